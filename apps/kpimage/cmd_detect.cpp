// SPDX-License-Identifier: MIT
// kpimage detect: the faces and codes the metadata output would report for picture files, as JSON.
#include "Args.h"
#include "Command.h"
#include "ImageFile.h"
#include "MetadataTypes.h"

#include <iostream>

namespace kpcli {

namespace {

int detect(const std::vector<std::string>& argv) {
    Args args(argv, {"types", "model"}, {});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    if (args.positional().empty()) {
        return fail("detect needs at least one FILE");
    }
    std::vector<kp::AVMetadataObjectType> types;
    std::string error;
    if (!metadataTypesFromList(args.value("types"), types, error)) {
        return fail(error);
    }
    if (args.has("model")) {
        kp::CIDetectorSetFaceLandmarksModelPath(args.value("model"));
    }
    for (const std::string& path : args.positional()) {
        const auto image = readImageFile(path);
        if (!image || !image->CGImage()) {
            return 1;
        }
        const auto& cg = *image->CGImage();
        std::string faces;
        std::string codes;
        jsonObjects(kp::AVCaptureMetadataOutput::metadataObjectsInImage(cg, types), faces, codes);
        std::cout << JsonObject()
                         .add("file", path)
                         .add("width", static_cast<uint64_t>(cg.width()))
                         .add("height", static_cast<uint64_t>(cg.height()))
                         .raw("faces", faces)
                         .raw("codes", codes)
                         .str()
                  << std::endl;
    }
    return 0;
}

const Registration kDetect({"detect",
                            "  kpimage detect FILE... [--types face,pdf417,qr,...] [--model LANDMARKS.dat]\n"
                            "      faces and codes as the metadata output reports them, one JSON object per file:\n"
                            "      {\"file\",\"width\",\"height\",\"faces\":[{\"bounds\",\"faceID\",\"rollAngle\","
                            "\"yawAngle\"}],\"codes\":[{\"type\",\"text\",\"corners\"}]};\n"
                            "      geometry normalised to the picture (0..1, origin top-left), corners bottom-left,"
                            " bottom-right,\n      top-right, top-left of the upright code; types: face pdf417 qr"
                            " ean13 ean8 upce code39 code93\n      code128 itf14 i2of5 aztec datamatrix (default"
                            " face,pdf417,qr)",
                            detect});

} // namespace

} // namespace kpcli
