// SPDX-License-Identifier: MIT
// kpimage faces: the widest face of an image file as JSON, optionally annotated into a PNG.
#include "Args.h"
#include "Command.h"
#include "ImageFile.h"
#include "Json.h"

#include <KPImage/KPImage.h>

#include <iostream>

namespace kpcli {

namespace {

std::string point(kp::CGPoint p) { return JsonObject().add("x", p.x).add("y", p.y).str(); }

std::string rect(kp::CGRect r) {
    return JsonObject().add("x", r.origin.x).add("y", r.origin.y).add("width", r.size.width).add("height", r.size.height).str();
}

int faces(const std::vector<std::string>& argv) {
    Args args(argv, {"accuracy", "annotate", "model"}, {});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    if (args.positional().size() != 1) {
        return fail("faces needs exactly one FILE");
    }
    const std::string accuracy = args.value("accuracy", "high");
    if (accuracy != "high" && accuracy != "low") {
        return fail("--accuracy must be high or low");
    }
    if (args.has("model")) {
        kp::CIDetectorSetFaceLandmarksModelPath(args.value("model"));
    }
    const std::string& path = args.positional()[0];
    const auto image = readImageFile(path);
    if (!image) {
        return 1;
    }
    const kp::FaceFeatures f = image->getFaceFeaturesWithAccuracy(accuracy == "high" ? 1 : 0);
    if (args.has("annotate")) {
        const auto marked =
            image->drawFacialLocationsLeftEye(f.leftEyePosition, f.rightEyePosition, f.mouthPosition, f.faceBounds);
        const auto png = marked ? kp::UIImagePNGRepresentation(*marked) : std::nullopt;
        if (!png || !kp::writeToFile(*png, args.value("annotate"), true)) {
            return fail("cannot write " + args.value("annotate"));
        }
    }
    std::cout << JsonObject()
                     .add("file", path)
                     .raw("faceBounds", rect(f.faceBounds))
                     .raw("leftEyePosition", point(f.leftEyePosition))
                     .raw("rightEyePosition", point(f.rightEyePosition))
                     .raw("mouthPosition", point(f.mouthPosition))
                     .add("faceAngle", static_cast<double>(f.faceAngle))
                     .add("hasSmile", f.hasSmile)
                     .add("leftEyeClosed", f.leftEyeClosed)
                     .add("rightEyeClosed", f.rightEyeClosed)
                     .add("landmarksFound", f.landmarksFound)
                     .str()
              << std::endl;
    return 0;
}

const Registration kFaces({"faces",
                           "  kpimage faces FILE [--accuracy high|low] [--annotate OUT.png] [--model LANDMARKS.dat]\n"
                           "      the widest face in top-left pixels: {\"file\",\"faceBounds\",\"leftEyePosition\","
                           "\"rightEyePosition\",\"mouthPosition\",\n      \"faceAngle\",\"hasSmile\",\"leftEyeClosed\","
                           "\"rightEyeClosed\",\"landmarksFound\"}; --annotate writes the markers (default accuracy"
                           " high)",
                           faces});

} // namespace

} // namespace kpcli
