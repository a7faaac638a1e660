// SPDX-License-Identifier: MIT
// The capture engine against fake cameras: set-up, the frame path, the metadata handler with hand-built batches,
// the camera controls and the preview view.
#include "KPImage/KPVideoHelper.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/CATransform3D.h"
#include "KPImage/Platform/UIColor.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"
#include "support/MovieFrames.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <mutex>
#include <numbers>

namespace {

using namespace kp;
using kptest::FakeCaptureDevice;

const CGColor kRed = UIColor::redColor().CGColor();
const CGColor kGreen = UIColor::greenColor().CGColor();

// Records what reaches the delegate.
class RecordingDelegate : public libVideoDelegate {
public:
    struct Frame {
        CGRect faceRect;
        CGFloat yaw, roll;
        std::optional<std::string> barcode;
    };
    void getLastSampleBuffer(const CMSampleBufferRef&, CGRect faceRect, CGFloat yaw, CGFloat roll,
                             const std::optional<std::string>& barcode) override {
        std::lock_guard lock(_mutex);
        _calls.push_back({faceRect, yaw, roll, barcode});
    }
    void getNewStillImage(const std::optional<UIImage>&) override {}
    std::vector<Frame> frames() const {
        std::lock_guard lock(_mutex);
        return _calls;
    }

private:
    mutable std::mutex _mutex;
    std::vector<Frame> _calls;
};

std::shared_ptr<AVMetadataObject> face(CGRect bounds, NSInteger id, bool hasYaw = true, double yaw = 0,
                                       bool hasRoll = true, double roll = 0) {
    return AVMetadataFaceObject::create({.bounds = bounds,
                                         .faceID = id,
                                         .hasRollAngle = hasRoll,
                                         .rollAngle = roll,
                                         .hasYawAngle = hasYaw,
                                         .yawAngle = yaw});
}

std::shared_ptr<AVMetadataObject> code(std::optional<std::string> text, const std::vector<CGPoint>& corners,
                                       AVMetadataObjectType type = AVMetadataObjectTypePDF417Code) {
    AVMetadataMachineReadableCodeObject::Fields f{
        .type = std::move(type), .stringValue = std::move(text), .corners = {}};
    for (const CGPoint& p : corners) {
        f.corners.push_back(CGPointCreateDictionaryRepresentation(p));
    }
    return AVMetadataMachineReadableCodeObject::create(f);
}

// The normalised corners of an upright box: bottom-left, bottom-right, top-right, top-left.
std::vector<CGPoint> upright(double x, double y, double w, double h) {
    return {{x, y + h}, {x + w, y + h}, {x + w, y}, {x, y}};
}

CMSampleBufferRef smallFrame() {
    return kptest::patternFrame(kCVPixelFormatType_32BGRA, 8, 8, 0, CMTimeMake(0, 30));
}

class CaptureEngine : public ::testing::Test {
protected:
    void SetUp() override { AVCaptureDevice::setDiscovery({false, "/dev", false}); }
    void TearDown() override {
        for (const auto& device : _devices) {
            AVCaptureDevice::removeDevice(device);
        }
        AVCaptureDevice::setDiscovery({});
    }
    std::shared_ptr<FakeCaptureDevice> addCamera(const std::string& id, AVCaptureDevicePosition position,
                                                 CaptureCapabilities caps = FakeCaptureDevice::fullCapabilities()) {
        auto camera = std::make_shared<FakeCaptureDevice>(id, caps);
        _devices.push_back(AVCaptureDevice::addDevice(camera, position));
        return camera;
    }
    static std::shared_ptr<KPVideoHelper> backEngine() {
        return KPVideoHelper::initWithAVCaptureSessionPreset(
            0, AVCaptureDevicePositionBack, AVLayerVideoGravityResizeAspect, kCVPixelFormatType_32BGRA);
    }
    // A 400 x 400 preview showing a 400 x 400 frame point for point: normalised 0.25 is 100 points.
    std::shared_ptr<KPVideoHelper> engineWithPreview(AVCaptureDevicePosition position = AVCaptureDevicePositionBack) {
        addCamera("cam", position);
        auto engine = position == AVCaptureDevicePositionBack ? backEngine() : KPVideoHelper::init();
        _view = engine->getPreviewView(CGRectMake(0, 0, 400, 400), true);
        engine->previewLayer()->enqueueSampleBuffer(
            kptest::patternFrame(kCVPixelFormatType_32BGRA, 400, 400, 0, CMTimeMake(0, 30)));
        _main.drain();
        return engine;
    }

    kptest::ManualMainQueue _main;
    std::vector<AVCaptureDevice::Ref> _devices;
    std::shared_ptr<UIView> _view;
};

TEST_F(CaptureEngine, BuildsTheSessionChangesMetadataTypesWhileStoppedAndSurvivesFailedLocksAndNoCamera) {
    const int32_t exif[] = {1, 3, 8, 6, 2, 4, 5, 7, 1};
    const auto exifOf = &KPVideoHelper::exifOrientationFromUIImageOrientation;
    for (int32_t o = -1; o < 9; ++o) {
        EXPECT_EQ(exifOf(static_cast<UIImageOrientation>(o)), o < 0 ? 1 : exif[o]) << o;
    }
    auto back = addCamera("back", AVCaptureDevicePositionBack);
    addCamera("front", AVCaptureDevicePositionFront);
    auto engine = KPVideoHelper::initWithAVCaptureSessionPreset(
        5, AVCaptureDevicePositionFront, AVLayerVideoGravityResizeAspectFill, kCVPixelFormatType_32BGRA);
    ASSERT_TRUE(engine && engine->device());
    EXPECT_EQ(engine->device()->uniqueID(), "front");
    EXPECT_EQ(engine->session()->sessionPreset(), AVCaptureSessionPreset1280x720);
    EXPECT_TRUE(engine->device()->focusMode() == AVCaptureFocusModeAutoFocus &&
                engine->device()->autoFocusRangeRestriction() == AVCaptureAutoFocusRangeRestrictionNear &&
                engine->videoDataOutput()->alwaysDiscardsLateVideoFrames());
    EXPECT_EQ(engine->metaObjects(),
              (std::vector<AVMetadataObjectType>{AVMetadataObjectTypeFace, AVMetadataObjectTypePDF417Code}));
    EXPECT_EQ(KPVideoHelper::init()->videoDataOutput()->pixelFormat(), kCVPixelFormatType_420YpCbCr8BiPlanarFullRange);
    // Metadata types change only while stopped, in the order of enabling.
    engine->setFaceFindSupport(false);
    engine->setFaceFindSupport(true);
    EXPECT_EQ(engine->metaOutput()->metadataObjectTypes(),
              (std::vector<AVMetadataObjectType>{AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeFace}));
    engine->startVideoCapture();
    engine->setPdf417Support(false);
    EXPECT_TRUE(engine->pdf417Support());
    engine->stopVideoCapture();

    // Failed locks skip the focus set-up; the input does not need the lock.
    back->failNextLocks(3);
    auto locked = backEngine();
    EXPECT_TRUE(locked->device()->focusMode() == AVCaptureFocusModeContinuousAutoFocus &&
                locked->session()->inputs().size() == 1U);

    // No front camera: no device, no input, no metadata type.
    AVCaptureDevice::removeDevice(_devices.back());
    _devices.pop_back();
    auto lonely = KPVideoHelper::init();
    EXPECT_TRUE(!lonely->device() && lonely->session()->inputs().empty() && lonely->metaObjects().empty());
}

TEST_F(CaptureEngine, FramesWithoutFaceOrCodeQueueTheCleanUpsAndStillReachTheDelegate) {
    auto engine = engineWithPreview();
    auto delegate = std::make_shared<RecordingDelegate>();
    engine->setDelegate(delegate);
    engine->captureOutput(
        nullptr, {face(CGRectMake(0.25, 0.25, 0.5, 0.5), 1), code("DL123", upright(0.1, 0.1, 0.3, 0.1))}, nullptr);
    _main.drain();
    ASSERT_TRUE(engine->primaryLayer() && engine->barcodeLineLayer());
    engine->captureOutput(nullptr, smallFrame(), nullptr);
    EXPECT_EQ(_main.pending(), 0U); // face and code present: nothing to clean up
    engine->clearBarcodeData();
    engine->captureOutput(nullptr, smallFrame(), nullptr);
    EXPECT_EQ(_main.pending(), 1U); // only the outline goes
    EXPECT_EQ(engine->parsedData(), std::optional<std::string>(""));
    _main.drain();
    EXPECT_FALSE(engine->barcodeLineLayer());
    EXPECT_TRUE(engine->primaryLayer()->superlayer());

    engine->clearFaceData();
    engine->setYawAngle(45);
    engine->setRollAngle(30);
    engine->centerLayer()->setBorderColor(kGreen);
    engine->captureOutput(nullptr, smallFrame(), nullptr);
    engine->captureOutput(nullptr, smallFrame(), nullptr);
    EXPECT_EQ(_main.pending(), 4U); // two tasks a frame, every frame
    _main.drain();
    EXPECT_FALSE(engine->primaryLayer());
    EXPECT_EQ(engine->centerLayer()->borderColor(), kRed);
    const auto frames = delegate->frames();
    ASSERT_EQ(frames.size(), 4U);
    EXPECT_EQ(frames[0].barcode, std::optional<std::string>("DL123"));
    EXPECT_EQ(frames[0].faceRect, CGRectMake(100, 100, 200, 200));
    EXPECT_TRUE(frames[3].faceRect == CGRectZero && frames[3].yaw == 45 && frames[3].roll == 30)
        << "the last angles stay beside the zero rectangle";
}

TEST_F(CaptureEngine, FramesComeInTheFormatAskedForOrInTheDefaultOne) {
    auto camera = addCamera("front", AVCaptureDevicePositionFront);
    constexpr OSType k420v = kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;
    constexpr OSType k420f = kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
    for (const auto& [asked, delivered] : {std::pair{k420v, k420v},
                                           {kCVPixelFormatType_32BGRA, kCVPixelFormatType_32BGRA},
                                           {OSType{0x79757673} /* 'yuvs' */, k420f}}) {
        kptest::LogCapture log;
        auto engine = KPVideoHelper::initWithAVCaptureSessionPreset(0, AVCaptureDevicePositionFront,
                                                                    AVLayerVideoGravityResizeAspect, asked);
        const auto lines = log.lines();
        EXPECT_EQ(std::any_of(lines.begin(), lines.end(),
                              [](const std::string& l) { return l.starts_with(kUnsupportedPixelFormatLog); }),
                  asked != delivered)
            << asked;
        engine->startVideoCapture();
        EXPECT_EQ(camera->streamRequest().pixelFormat, delivered) << asked;
        engine->stopVideoCapture();
        _main.drain();
    }
}

TEST_F(CaptureEngine, APreviewViewKeepsTheCameraRunningAfterTheEngineGoes) {
    auto camera = addCamera("front", AVCaptureDevicePositionFront);
    auto engine = KPVideoHelper::init();
    auto view = engine->getPreviewView(CGRectMake(0, 0, 64, 48), false);
    engine->startVideoCapture();
    std::weak_ptr<AVCaptureSession> session = engine->session();
    auto layer = std::static_pointer_cast<AVCaptureVideoPreviewLayer>(view->layer()->sublayers().at(0));
    engine.reset();
    _main.drain();
    ASSERT_TRUE(!session.expired() && session.lock()->isRunning() && camera->pushFrame(0x42));
    ASSERT_TRUE(layer->newestSampleBuffer());
    EXPECT_EQ(CMSampleBufferGetImageBuffer(layer->newestSampleBuffer())->bytes()[0], 0x42);
    // With the view gone too nothing holds the session: no cycle through the layer's feed.
    session.lock()->stopRunning();
    layer.reset();
    view.reset();
    EXPECT_TRUE(session.expired());
    _main.drain();
}

TEST_F(CaptureEngine, CodesSetTextOutlineAndRectangleFromTheLastCode) {
    auto engine = engineWithPreview();
    engine->captureOutput(nullptr,
                          {code("first", upright(0.1, 0.1, 0.2, 0.1)),
                           code("second", upright(0.25, 0.5, 0.5, 0.25), AVMetadataObjectTypeQRCode)},
                          nullptr);
    EXPECT_EQ(engine->parsedData(), std::optional<std::string>("second"));
    EXPECT_EQ(engine->barcodeRect(), CGRectMake(100, 200, 200, 100));
    const auto outline = engine->barcodeLineLayer();
    // Four two-point subpaths: top (p3-p2), left (p3-p0), bottom (p0-p1), right (p2-p1).
    const auto& e = outline->path()->elements();
    const CGPoint expected[8] = {{100, 200}, {300, 200}, {100, 200}, {100, 300},
                                 {100, 300}, {300, 300}, {300, 200}, {300, 300}};
    ASSERT_EQ(e.size(), 8U);
    for (size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(e[i].type, i % 2 == 0 ? CGPathElement::Type::MoveToPoint : CGPathElement::Type::AddLineToPoint) << i;
        EXPECT_EQ(e[i].points[0], expected[i]) << i;
    }
    _main.drain();
    EXPECT_EQ(outline->superlayer(), engine->previewLayer());

    // No text and three corners: nil text, no rectangle, the outline as it was.
    const auto path = outline->path();
    engine->captureOutput(nullptr, {code(std::nullopt, {{0.1, 0.1}, {0.2, 0.1}, {0.2, 0.2}})}, nullptr);
    EXPECT_TRUE(!engine->parsedData() && engine->barcodeRect() == CGRectZero &&
                engine->barcodeLineLayer()->path() == path);
    // Upside down: the rectangle from p3, p2 and p0 keeps its negative sides.
    engine->captureOutput(nullptr, {code("turned", {{0.5, 0.25}, {0.25, 0.25}, {0.25, 0.5}, {0.5, 0.5}})}, nullptr);
    EXPECT_EQ(engine->barcodeRect(), CGRectMake(200, 200, -100, -100));
    _main.drain();
}

TEST_F(CaptureEngine, TheWidestFaceIsCentredUprightAndOfAcceptableSize) {
    auto engine = engineWithPreview();
    const CGRect centred = CGRectMake(0.25, 0.25, 0.5, 0.5); // 100,100 200x200 in the preview
    // Equal widths: the first wins; width 0 is never chosen. Tasks: centre colour, face box added, its frame.
    engine->captureOutput(
        nullptr,
        {face(CGRectMake(0.1, 0.1, 0, 0.5), 9), face(centred, 7), face(CGRectMake(0.3, 0.3, 0.5, 0.1), 8, true, 45)},
        nullptr);
    EXPECT_EQ(engine->faceRect(), CGRectMake(100, 100, 200, 200));
    EXPECT_EQ(engine->centerLayer()->frame(), CGRectMake(30, 50, 340, 300));
    EXPECT_TRUE(engine->isHeadCentered());
    EXPECT_EQ(engine->avfFaceLayers().at(7), engine->primaryLayer());
    EXPECT_EQ(_main.pending(), 3U);
    _main.drain();
    EXPECT_EQ(engine->centerLayer()->borderColor(), kGreen);
    EXPECT_EQ(engine->primaryLayer()->frame(), CGRectMake(100, 100, 200, 200));

    // Roll is guarded by the yaw flag; size bounds are strict; the face must lie inside the box.
    struct Case {
        const char* what;
        std::shared_ptr<AVMetadataObject> face;
        CGFloat minHead, maxHead;
        bool centred;
    };
    const Case cases[] = {
        {"roll 30, roll flag unread", face(centred, 7, true, 0, false, 30), 0, 5000, false},
        {"no yaw angle", face(centred, 7, false, 90, true, 30), 0, 5000, true},
        {"yaw 45", face(centred, 7, true, 45), 0, 5000, false},
        {"width at the minimum", face(centred, 7), 200, 5000, false},
        {"width at the maximum", face(centred, 7), 199.5, 200, false},
        {"width between", face(centred, 7), 199.5, 200.5, true},
        {"left edge at 20 points", face(CGRectMake(0.05, 0.25, 0.5, 0.5), 7), 0, 5000, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        engine->setMinHeadSize(c.minHead, c.maxHead);
        engine->captureOutput(nullptr, {c.face}, nullptr);
        EXPECT_EQ(engine->isHeadCentered(), c.centred);
        _main.drain();
        EXPECT_EQ(engine->centerLayer()->borderColor(), c.centred ? kGreen : kRed);
    }
    engine->setMinHeadSize(0, 5000);

    // A preview under 60 x 100 points has a null box: nothing is inside it.
    engine->previewLayer()->setFrame(CGRectMake(0, 0, 59, 400));
    engine->captureOutput(nullptr, {face(CGRectMake(0.6, 0.6, 0.3, 0.2), 7)}, nullptr);
    EXPECT_TRUE(CGRectIsNull(engine->centerLayer()->frame()));
    EXPECT_FALSE(engine->isHeadCentered());
    _main.drain();
}

TEST_F(CaptureEngine, TheFrontCameraMirrorsTheFaceBoxAndItsAngles) {
    auto engine = engineWithPreview(AVCaptureDevicePositionFront);
    ASSERT_TRUE(engine->previewLayer()->isVideoMirrored());
    const double cases[][4] = {{0, 0, 0, 0}, {30, 45, 330, 315}, {90, 270, 270, 90}, {180, 0, 180, 0}};
    for (const auto& [roll, yaw, mirroredRoll, mirroredYaw] : cases) { // as sent, then as seen in the mirror
        engine->captureOutput(nullptr, {face(CGRectMake(0.1, 0.25, 0.3, 0.5), 1, true, yaw, true, roll)}, nullptr);
        EXPECT_EQ(engine->faceRect(), CGRectMake(240, 100, 120, 200));
        EXPECT_EQ(engine->rollAngle(), mirroredRoll) << roll;
        EXPECT_EQ(engine->yawAngle(), mirroredYaw) << yaw;
    }
    _main.drain();
}

TEST_F(CaptureEngine, CameraSwitchFocusAndTorchFollowTheirRules) {
    auto camera = addCamera("back", AVCaptureDevicePositionBack);
    addCamera("front", AVCaptureDevicePositionFront, FakeCaptureDevice::noCapabilities());
    auto engine = backEngine();
    auto device = engine->device();
    const auto requests = [&] { return camera->appliedControls().back().autoFocusRequests; };
    const uint32_t before = requests();
    engine->autoFocusCamera();
    camera->failNextLocks(1);
    engine->autoFocusCamera();
    EXPECT_EQ(requests(), before + 1);
    for (float level : {0.0F, 1.5F, std::numeric_limits<float>::quiet_NaN()}) {
        engine->enableTorchWithLevel(level);
        EXPECT_EQ(device->torchMode(), AVCaptureTorchModeOff) << level;
    }
    engine->enableTorchWithLevel(0.25F);
    EXPECT_EQ(device->torchLevel(), 0.25F);

    // The switch: new connections with default settings, the same outputs; the front camera has no torch.
    engine->toggleCameraWithAnimation(false);
    ASSERT_EQ(engine->session()->inputs().size(), 1U);
    EXPECT_EQ(engine->session()->inputs()[0]->device()->uniqueID(), "front");
    engine->enableTorchWithLevel(1.0F);
    EXPECT_EQ(engine->device()->torchMode(), AVCaptureTorchModeOff);
    engine->toggleCameraWithAnimation(true);
    EXPECT_EQ(engine->device()->uniqueID(), "back");
    _main.drain();
    const auto flip = engine->previewLayer()->animationForKey("transform");
    ASSERT_TRUE(flip && flip->toValue());
    const auto* turn = std::get_if<CATransform3D>(&flip->toValue()->storage());
    ASSERT_TRUE(turn);
    EXPECT_TRUE(CATransform3DEqualToTransform(*turn, CATransform3DMakeRotation(std::numbers::pi / 2, 0, 1, 0)));
}

} // namespace
