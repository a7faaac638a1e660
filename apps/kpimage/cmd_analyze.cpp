// SPDX-License-Identifier: MIT
// kpimage analyze / focus / focus-score / brightness / gray: sharpness and brightness of image files.
#include "Args.h"
#include "Command.h"
#include "ImageFile.h"
#include "Json.h"

#include <KPImage/KPImage.h>

#include <iostream>

namespace kpcli {

namespace {

std::optional<kp::UIImage> load(const std::string& path) {
    return readImageFile(path);
}

/// Runs print on each FILE argument's image; files that cannot be read are reported and make the result 1.
template <typename Print> int forEachImage(const std::vector<std::string>& argv, const char* command, Print print) {
    Args args(argv, {}, {});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    if (args.positional().empty()) {
        return fail(std::string(command) + " needs at least one FILE");
    }
    int status = 0;
    for (const std::string& path : args.positional()) {
        auto image = load(path);
        if (!image) {
            status = 1;
            continue;
        }
        std::cout << print(path, *image).str() << std::endl;
    }
    return status;
}

int analyze(const std::vector<std::string>& argv) {
    return forEachImage(argv, "analyze", [](const std::string& path, const kp::UIImage& image) {
        JsonObject o;
        o.add("file", path)
            .add("width", static_cast<uint64_t>(kp::CGImageGetWidth(image.CGImage())))
            .add("height", static_cast<uint64_t>(kp::CGImageGetHeight(image.CGImage())))
            .add("grayscale", image.isGrayScale())
            .add("focus", image.calculateFocus())
            .add("focusScore", image.calculateFocusScore(1, 1, 10))
            .add("brightness", image.calculateBrightness());
        return o;
    });
}

int focus(const std::vector<std::string>& argv) {
    return forEachImage(argv, "focus", [](const std::string& path, const kp::UIImage& image) {
        return JsonObject().add("file", path).add("focus", image.calculateFocus());
    });
}

int focusScore(const std::vector<std::string>& argv) {
    Args args(argv, {"offset", "step", "edge"}, {});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    if (args.positional().size() != 1) {
        return fail("focus-score needs exactly one FILE");
    }
    const auto offset = parseInt(args.value("offset", "1"));
    const auto step = parseInt(args.value("step", "1"));
    const auto edge = parseInt(args.value("edge", "10"));
    if (!offset || !step || !edge) {
        return fail("--offset, --step and --edge take whole numbers");
    }
    if (*step <= 0) {
        return fail("--step must be positive");
    }
    const std::string& path = args.positional()[0];
    auto image = load(path);
    if (!image) {
        return 1;
    }
    std::cout << JsonObject().add("file", path).add("score", image->calculateFocusScore(*offset, *step, *edge)).str()
              << std::endl;
    return 0;
}

int brightness(const std::vector<std::string>& argv) {
    Args args(argv, {"channels", "edge", "rect"}, {});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    if (args.positional().size() != 1) {
        return fail("brightness needs exactly one FILE");
    }
    if (args.has("rect") && (args.has("channels") || args.has("edge"))) {
        return fail("--rect cannot be combined with --channels or --edge");
    }
    const std::string& path = args.positional()[0];
    auto image = load(path);
    if (!image) {
        return 1;
    }
    int32_t value = 0;
    if (args.has("rect")) {
        const auto r = parseNumbers(args.value("rect"), 4);
        if (!r) {
            return fail("--rect takes X,Y,W,H");
        }
        value = image->calculateBrightness(kp::CGRectMake((*r)[0], (*r)[1], (*r)[2], (*r)[3]));
    } else if (args.has("channels") || args.has("edge")) {
        const auto channels = parseInt(args.value("channels", "1"));
        const auto edge = parseInt(args.value("edge", "0"));
        if (!channels || !edge) {
            return fail("--channels and --edge take whole numbers");
        }
        value = image->calculateBrightness(*channels, *edge);
    } else {
        value = image->calculateBrightness();
    }
    std::cout << JsonObject().add("file", path).add("brightness", value).str() << std::endl;
    return 0;
}

int gray(const std::vector<std::string>& argv) {
    Args args(argv, {"scale"}, {});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    if (args.positional().size() != 2) {
        return fail("gray needs FILE and OUT.png");
    }
    const auto scale = parseInt(args.value("scale", "1"));
    if (!scale) {
        return fail("--scale takes a whole number");
    }
    auto image = load(args.positional()[0]);
    if (!image) {
        return 1;
    }
    auto grayImage = image->makeGrayScaleAndScale(*scale);
    if (!grayImage || !grayImage->CGImage()) {
        return fail("the grey image is empty");
    }
    auto png = kp::UIImagePNGRepresentation(*grayImage);
    const std::string& out = args.positional()[1];
    if (!png || !kp::writeToFile(*png, out, true)) {
        return fail("cannot write " + out);
    }
    std::cout << JsonObject()
                     .add("file", out)
                     .add("width", static_cast<uint64_t>(grayImage->CGImage()->width()))
                     .add("height", static_cast<uint64_t>(grayImage->CGImage()->height()))
                     .str()
              << std::endl;
    return 0;
}

const Registration kAnalyze({"analyze",
                             "  kpimage analyze FILE...\n"
                             "      {\"file\",\"width\",\"height\",\"grayscale\",\"focus\",\"focusScore\",\"brightness\"}"
                             " per file:\n"
                             "      focus = two-pi focus score 0..100, focusScore = offset-1 step-1 edge-10 score,\n"
                             "      brightness = mean grey byte inside a 20-pixel border",
                             analyze});
const Registration kFocus({"focus", "  kpimage focus FILE...\n      {\"file\",\"focus\"} per file", focus});
const Registration kFocusScore({"focus-score",
                                "  kpimage focus-score FILE [--offset O] [--step S] [--edge E]\n"
                                "      {\"file\",\"score\"}; defaults offset 1, step 1, edge 10 (percent)",
                                focusScore});
const Registration kBrightness({"brightness",
                                "  kpimage brightness FILE [--channels C --edge E | --rect X,Y,W,H]\n"
                                "      {\"file\",\"brightness\"}: 20-pixel border, a percentage border over C-byte"
                                " pixels,\n      or a rectangle",
                                brightness});
const Registration kGray({"gray",
                          "  kpimage gray FILE OUT.png [--scale S]\n"
                          "      writes the 8-bit grey image (reduced by the whole factor S when S > 1);"
                          " {\"file\",\"width\",\"height\"}",
                          gray});

} // namespace

} // namespace kpcli
