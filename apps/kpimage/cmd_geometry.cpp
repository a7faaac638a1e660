// SPDX-License-Identifier: MIT
// kpimage crop / rotate / scale: the geometry methods on image files, written as PNG.
#include "Args.h"
#include "Command.h"
#include "ImageFile.h"
#include "Json.h"

#include <KPImage/KPImage.h>

#include <iostream>

namespace kpcli {

namespace {

// Writes the result as PNG and prints its pixel size; the exit code.
int writeResult(const std::optional<kp::UIImage>& result, const std::string& in, const std::string& out) {
    if (!result || !result->CGImage()) {
        return fail("no image came out for " + in);
    }
    const auto png = kp::UIImagePNGRepresentation(*result);
    if (!png || !kp::writeToFile(*png, out, true)) {
        return fail("cannot write " + out);
    }
    std::cout << JsonObject()
                     .add("file", out)
                     .add("width", static_cast<uint64_t>(result->CGImage()->width()))
                     .add("height", static_cast<uint64_t>(result->CGImage()->height()))
                     .str()
              << std::endl;
    return 0;
}

std::optional<kp::UIImage> load(const std::string& path) {
    return readImageFile(path);
}

int crop(const std::vector<std::string>& argv) {
    Args args(argv, {"rect", "padding", "view-size"}, {});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    if (args.positional().size() != 2 || !args.has("rect")) {
        return fail("crop needs FILE OUT and --rect X,Y,W,H");
    }
    if (args.has("padding") && args.has("view-size")) {
        return fail("--padding and --view-size exclude each other");
    }
    const auto r = parseNumbers(args.value("rect"), 4);
    if (!r) {
        return fail("--rect must be X,Y,W,H");
    }
    const auto image = load(args.positional()[0]);
    if (!image) {
        return 1;
    }
    const kp::CGRect box = kp::CGRectMake((*r)[0], (*r)[1], (*r)[2], (*r)[3]);
    if (args.has("view-size")) {
        const auto v = parseNumbers(args.value("view-size"), 2);
        if (!v) {
            return fail("--view-size must be W,H");
        }
        return writeResult(image->cropImageAtCoordinates(box, 0, kp::CGSizeMake((*v)[0], (*v)[1])),
                           args.positional()[0], args.positional()[1]);
    }
    const auto padding = parseNumber(args.value("padding", "0"));
    if (!padding) {
        return fail("--padding must be a number (percent)");
    }
    return writeResult(image->cropImageAtCoordinates(box, static_cast<float>(*padding)), args.positional()[0],
                       args.positional()[1]);
}

int rotate(const std::vector<std::string>& argv) {
    Args args(argv, {"degrees"}, {"bitmap"});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    if (args.positional().size() != 2 || !args.has("degrees")) {
        return fail("rotate needs FILE OUT and --degrees D");
    }
    const auto degrees = parseNumber(args.value("degrees"));
    if (!degrees) {
        return fail("--degrees must be a number");
    }
    const auto image = load(args.positional()[0]);
    if (!image) {
        return 1;
    }
    // The bitmap rotation turns positive angles counter-clockwise; the drawing rotation clockwise.
    return writeResult(args.flag("bitmap") ? image->rotatedByAngle(*degrees) : image->imageRotatedByDegrees(*degrees),
                       args.positional()[0], args.positional()[1]);
}

int scale(const std::vector<std::string>& argv) {
    Args args(argv, {"size"}, {"fit", "fill", "stretch"});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    if (args.positional().size() != 2 || !args.has("size")) {
        return fail("scale needs FILE OUT and --size W,H");
    }
    if (args.flag("fit") + args.flag("fill") + args.flag("stretch") > 1) {
        return fail("choose one of --fit, --fill, --stretch");
    }
    const auto s = parseNumbers(args.value("size"), 2);
    if (!s) {
        return fail("--size must be W,H");
    }
    const auto image = load(args.positional()[0]);
    if (!image) {
        return 1;
    }
    const kp::CGSize size = kp::CGSizeMake((*s)[0], (*s)[1]);
    std::optional<kp::UIImage> result;
    if (args.flag("fill")) {
        result = image->imageByScalingProportionallyToMinimumSize(size);
    } else if (args.flag("stretch")) {
        result = image->imageByScalingToSize(size);
    } else {
        result = image->imageByScalingProportionallyToSize(size);
    }
    return writeResult(result, args.positional()[0], args.positional()[1]);
}

const Registration kCrop({"crop",
                          "  kpimage crop FILE OUT.png --rect X,Y,W,H [--padding P | --view-size W,H]\n"
                          "      cuts the box (bitmap pixels, padded by P percent) or the box given in a view of"
                          " W x H points;\n      {\"file\",\"width\",\"height\"}",
                          crop});
const Registration kRotate({"rotate",
                            "  kpimage rotate FILE OUT.png --degrees D [--bitmap]\n"
                            "      turns the picture clockwise by D on a canvas that holds it (--bitmap: the bitmap"
                            " rotation,\n      counter-clockwise, same layout as the file); {\"file\",\"width\","
                            "\"height\"}",
                            rotate});
const Registration kScale({"scale",
                           "  kpimage scale FILE OUT.png --size W,H [--fit|--fill|--stretch]\n"
                           "      fit (default: inside, transparent margins), fill (cover, overflow cut) or stretch;"
                           " {\"file\",\"width\",\"height\"}",
                           scale});

} // namespace

} // namespace kpcli
