// SPDX-License-Identifier: MIT
// kpimage render-progress / preview: a progress circle and one preview-layer picture of a running camera,
// rendered by the layer renderer and written as PNG.
#include "Args.h"
#include "Camera.h"
#include "Command.h"
#include "Json.h"

#include <KPImage/KPImage.h>

#include <chrono>
#include <iostream>

namespace kpcli {

namespace {

std::optional<kp::CGSize> sizeOption(const Args& args, kp::CGSize fallback) {
    if (!args.has("size")) {
        return fallback;
    }
    const auto v = parseNumbers(args.value("size"), 2);
    if (!v || (*v)[0] < 1 || (*v)[1] < 1 || (*v)[0] > 8192 || (*v)[1] > 8192) {
        return std::nullopt;
    }
    return kp::CGSizeMake(std::floor((*v)[0]), std::floor((*v)[1]));
}

bool writePng(const std::optional<kp::UIImage>& image, const std::string& out) {
    if (!image) {
        return false;
    }
    const auto png = kp::UIImagePNGRepresentation(*image);
    return png && kp::writeToFile(*png, out, true);
}

// Runs the main run loop until the condition holds or seconds pass; true when it held.
template <typename F> bool runUntil(F condition, double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        kp::NSRunLoop::mainRunLoop().runFor(0.005);
    }
    return true;
}

int renderProgress(const std::vector<std::string>& argv) {
    Args args(argv, {"value", "maximum", "border", "inner", "center", "size"}, {"invert"});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    if (args.positional().size() != 1 || !args.has("value")) {
        return fail("render-progress needs OUT.png and --value V");
    }
    const auto value = parseNumber(args.value("value"));
    const auto maximum = parseNumber(args.value("maximum", "100"));
    const auto border = parseNumber(args.value("border", "0"));
    const auto inner = parseNumber(args.value("inner", "0"));
    const auto center = parseNumber(args.value("center", "0"));
    if (!value || !maximum || !border || !inner || !center) {
        return fail("--value, --maximum, --border, --inner and --center must be numbers");
    }
    const auto size = sizeOption(args, kp::CGSizeMake(200, 200));
    if (!size) {
        return fail("--size must be W,H (1 to 8192)");
    }
    auto view = kp::KPProgressCircleView::initWithFrame(kp::CGRectMake(0, 0, size->width, size->height));
    view->setMaximumValue(*maximum);
    view->setBorderSize(*border);
    view->setInterierOffsetMargin(*inner); // before the centre size, which it bounds
    view->setCenterSize(*center);
    view->setValue(*value);                      // clamped to the maximum
    view->setValue(view->value(), false);        // drawn there at once
    if (!runUntil([&] { return !view->animating(); }, 5)) {
        return fail("the circle did not settle");
    }
    if (args.flag("invert")) {
        view->setInvert(true);
    }
    view->setNeedsDisplay();
    kp::NSRunLoop::mainRunLoop().drainPending();
    const std::string out = args.positional()[0];
    if (!writePng(kp::UIViewRenderToImage(view, *size, 1), out)) {
        return fail("cannot write " + out);
    }
    std::cout << JsonObject()
                     .add("file", out)
                     .add("width", static_cast<uint64_t>(size->width))
                     .add("height", static_cast<uint64_t>(size->height))
                     .add("value", view->value())
                     .add("maximum", view->maximumValue())
                     .add("interierOffsetMargin", view->interierOffsetMargin())
                     .add("centerSize", view->centerSize())
                     .str()
              << std::endl;
    return 0;
}

int preview(const std::vector<std::string>& argv) {
    Args args(argv, {"gravity", "position", "size", "media"}, {});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    if (args.positional().size() != 1) {
        return fail("preview needs OUT.png");
    }
    const std::string g = args.value("gravity", "aspect");
    const kp::AVLayerVideoGravity gravity = g == "aspect" ? kp::AVLayerVideoGravityResizeAspect
                                           : g == "fill"  ? kp::AVLayerVideoGravityResizeAspectFill
                                           : g == "resize" ? kp::AVLayerVideoGravityResize
                                                           : std::string();
    if (gravity.empty()) {
        return fail("--gravity must be aspect, fill or resize");
    }
    const auto size = sizeOption(args, kp::CGSizeMake(640, 480));
    if (!size) {
        return fail("--size must be W,H (1 to 8192)");
    }
    std::string error;
    auto device = cameraFromArgs(args, error);
    if (!device) {
        return fail(error);
    }
    auto session = kp::AVCaptureSession::create();
    session->addInput(kp::AVCaptureDeviceInput::deviceInputWithDevice(device));
    auto layer = kp::AVCaptureVideoPreviewLayer::layerWithSession(session);
    layer->setFrame(kp::CGRectMake(0, 0, size->width, size->height));
    layer->setBackgroundColor(kp::UIColor::blackColor().CGColor());
    layer->setVideoGravity(gravity);
    session->startRunning();
    const bool framed = runUntil([&] { return layer->frameSize().has_value(); }, 10);
    const auto image = framed ? kp::CARenderLayerToImage(layer, *size, 1) : std::nullopt;
    const bool mirrored = layer->isVideoMirrored();
    session->stopRunning();
    if (!framed) {
        return fail("no frame from " + device->localizedName());
    }
    const std::string out = args.positional()[0];
    if (!writePng(image, out)) {
        return fail("cannot write " + out);
    }
    const auto frame = *layer->frameSize();
    std::cout << JsonObject()
                     .add("file", out)
                     .add("camera", device->uniqueID())
                     .add("width", static_cast<uint64_t>(size->width))
                     .add("height", static_cast<uint64_t>(size->height))
                     .add("frameWidth", static_cast<uint64_t>(frame.width))
                     .add("frameHeight", static_cast<uint64_t>(frame.height))
                     .add("gravity", g)
                     .add("mirrored", mirrored)
                     .str()
              << std::endl;
    return 0;
}

const Registration kRenderProgress(
    {"render-progress",
     "  kpimage render-progress OUT.png --value V [--maximum M --border B --inner I --center C --invert"
     " --size W,H]\n      draws the progress circle (default 200 x 200, maximum 100); {\"file\",\"width\","
     "\"height\",\"value\",...}",
     renderProgress});
const Registration kPreview({"preview",
                             "  kpimage preview OUT.png [--gravity aspect|fill|resize] [--position front|back]"
                             " [--size W,H] [--media FILE]\n      one preview-layer picture of the running camera"
                             " (default 640 x 480, mirrored for a front camera);\n      {\"file\",\"camera\","
                             "\"width\",\"height\",\"frameWidth\",\"frameHeight\",\"gravity\",\"mirrored\"}",
                             preview});

} // namespace

} // namespace kpcli
