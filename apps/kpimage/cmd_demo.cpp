// SPDX-License-Identifier: MIT
// kpimage demo: the main job — analyses the bundled sample picture and prints a summary.
#include "Args.h"
#include "Command.h"
#include "Json.h"

#include <KPImage/KPImage.h>

#include <filesystem>
#include <iostream>

namespace kpcli {

namespace {

/// The bundled data folder: the installed one, else the source tree's.
std::string dataDirectory() {
#ifdef KPIMAGE_DATADIR
    if (std::filesystem::exists(std::string(KPIMAGE_DATADIR) + "/sample-face.png")) {
        return KPIMAGE_DATADIR;
    }
#endif
    return std::string(KPIMAGE_SOURCE_DIR) + "/data";
}

int demo(const std::vector<std::string>& argv) {
    Args args(argv, {}, {});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    const std::string path = dataDirectory() + "/sample-face.png";
    auto image = kp::UIImage::imageWithContentsOfFile(path);
    if (!image) {
        return fail("cannot read the sample picture " + path);
    }
    const int32_t focus = image->calculateFocus();
    const int32_t focusScore = image->calculateFocusScore(1, 1, 10);
    const int32_t brightness = image->calculateBrightness(4, 10);
    std::cout << JsonObject()
                     .add("file", path)
                     .add("width", static_cast<uint64_t>(image->CGImage()->width()))
                     .add("height", static_cast<uint64_t>(image->CGImage()->height()))
                     .add("grayscale", image->isGrayScale())
                     .add("focus", focus)
                     .add("focusScore", focusScore)
                     .add("brightness", brightness)
                     .str()
              << std::endl;
    std::cout << "summary: sample picture " << image->CGImage()->width() << "x" << image->CGImage()->height()
              << ", focus " << focus << "/100 (" << (focus >= 50 ? "sharp" : "soft") << "), focus score "
              << focusScore << "/100, brightness " << brightness << "/255" << std::endl;
    return 0;
}

const Registration kDemo({"demo",
                          "  kpimage demo\n"
                          "      the main job: analyses the bundled sample picture; one JSON line and a summary",
                          demo});

} // namespace

} // namespace kpcli
