// SPDX-License-Identifier: MIT
// The capture engine against fake cameras: set-up, configuration, the frame path, the metadata handler with
// hand-built batches, the camera controls and the preview view.
#include "KPImage/KPCameraRollHelper.h"
#include "KPImage/KPVideoHelper.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/CATransform3D.h"
#include "KPImage/Platform/NSSearchPath.h"
#include "KPImage/Platform/UIColor.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"
#include "support/MovieFrames.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <mutex>
#include <numbers>
#include <filesystem>

namespace {

using namespace kp;
using kptest::FakeCaptureDevice;

const CGColor kRed = UIColor::redColor().CGColor();
const CGColor kGreen = UIColor::greenColor().CGColor();

// A delegate that records what reaches it, and on which queue.
class RecordingDelegate : public libVideoDelegate {
public:
    struct Frame {
        CGRect faceRect;
        CGFloat yaw;
        CGFloat roll;
        std::optional<std::string> barcode;
        bool onFrameQueue;
        OSType pixelFormat;
    };
    RecordingDelegate(bool frames, bool stills) : _frames(frames), _stills(stills) {}
    void setQueue(dispatch_queue_t queue) { _queue = std::move(queue); }
    bool respondsToSelector(Selector selector) const override {
        return selector == Selector::getLastSampleBuffer ? _frames : _stills;
    }
    void getLastSampleBuffer(const CMSampleBufferRef& buffer, CGRect faceRect, CGFloat yaw, CGFloat roll,
                             const std::optional<std::string>& barcode) override {
        const auto pixels = buffer ? CMSampleBufferGetImageBuffer(buffer) : nullptr;
        std::lock_guard lock(_mutex);
        _frameCalls.push_back({faceRect, yaw, roll, barcode, _queue && _queue->isCurrent(),
                               pixels ? CVPixelBufferGetPixelFormatType(pixels) : 0});
    }
    void getNewStillImage(const std::optional<UIImage>&) override {}
    std::vector<Frame> frames() const {
        std::lock_guard lock(_mutex);
        return _frameCalls;
    }

private:
    const bool _frames;
    const bool _stills;
    dispatch_queue_t _queue;
    mutable std::mutex _mutex;
    std::vector<Frame> _frameCalls;
};

std::shared_ptr<AVMetadataObject> face(CGRect bounds, NSInteger faceID, bool hasYaw = true, double yaw = 0,
                                       bool hasRoll = true, double roll = 0) {
    AVMetadataFaceObject::Fields f;
    f.bounds = bounds;
    f.faceID = faceID;
    f.hasYawAngle = hasYaw;
    f.yawAngle = yaw;
    f.hasRollAngle = hasRoll;
    f.rollAngle = roll;
    return AVMetadataFaceObject::create(f);
}

std::shared_ptr<AVMetadataObject> code(std::optional<std::string> text, const std::vector<CGPoint>& corners,
                                       AVMetadataObjectType type = AVMetadataObjectTypePDF417Code) {
    AVMetadataMachineReadableCodeObject::Fields f;
    f.type = std::move(type);
    f.stringValue = std::move(text);
    for (const CGPoint& p : corners) {
        f.corners.push_back(CGPointCreateDictionaryRepresentation(p));
    }
    return AVMetadataMachineReadableCodeObject::create(f);
}

// A code whose four corners, normalised, form the box (x, y, w, h) upright: bottom-left, bottom-right,
// top-right, top-left.
std::vector<CGPoint> uprightCorners(double x, double y, double w, double h) {
    return {{x, y + h}, {x + w, y + h}, {x + w, y}, {x, y}};
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

    // An engine on the back camera with BGRA frames.
    static std::shared_ptr<KPVideoHelper> backEngine() {
        return KPVideoHelper::initWithAVCaptureSessionPreset(0, AVCaptureDevicePositionBack,
                                                             AVLayerVideoGravityResizeAspect, kCVPixelFormatType_32BGRA);
    }

    // An engine on a back camera (not mirrored) whose 400 x 400 preview shows a 400 x 400 frame point for point,
    // so normalised 0.25 is 100 preview points.
    std::shared_ptr<KPVideoHelper> engineWithPreview(bool centerBox = true) {
        addCamera("back", AVCaptureDevicePositionBack);
        auto engine = backEngine();
        _view = engine->getPreviewView(CGRectMake(0, 0, 400, 400), centerBox);
        engine->previewLayer()->enqueueSampleBuffer(
            kptest::patternFrame(kCVPixelFormatType_32BGRA, 400, 400, 0, CMTimeMake(0, 30)));
        _main.drain();
        return engine;
    }

    kptest::ManualMainQueue _main;
    std::vector<AVCaptureDevice::Ref> _devices;
    std::shared_ptr<UIView> _view;
};

// ----------------------------------------------------------------------------------------------------------------
// Set-up and configuration.

TEST_F(CaptureEngine, ExifOrientationTable) {
    const int32_t expected[] = {1, 3, 8, 6, 2, 4, 5, 7, 1}; // the last: out of range
    for (int32_t o = -1; o < 9; ++o) {
        EXPECT_EQ(KPVideoHelper::exifOrientationFromUIImageOrientation(static_cast<UIImageOrientation>(o)),
                  o < 0 ? 1 : expected[o]) << o;
    }
}

TEST_F(CaptureEngine, BuildsTheWholeSessionWithFaceAndPdf417On) {
    addCamera("back", AVCaptureDevicePositionBack);
    addCamera("front", AVCaptureDevicePositionFront);
    auto engine = KPVideoHelper::initWithAVCaptureSessionPreset(5, AVCaptureDevicePositionFront,
                                                                AVLayerVideoGravityResizeAspectFill,
                                                                kCVPixelFormatType_32BGRA);
    ASSERT_TRUE(engine);
    ASSERT_TRUE(engine->device());
    EXPECT_EQ(engine->device()->uniqueID(), "front");
    EXPECT_EQ(engine->session()->sessionPreset(), AVCaptureSessionPreset1280x720);
    ASSERT_EQ(engine->session()->inputs().size(), 1U);
    EXPECT_EQ(engine->session()->outputs().size(), 3U); // still, frames, metadata
    // Single auto-focus restricted to near, the lock given back.
    EXPECT_EQ(engine->device()->focusMode(), AVCaptureFocusModeAutoFocus);
    EXPECT_EQ(engine->device()->autoFocusRangeRestriction(), AVCaptureAutoFocusRangeRestrictionNear);
    EXPECT_FALSE(engine->device()->isLockedForConfiguration());
    EXPECT_TRUE(engine->videoDataOutput()->alwaysDiscardsLateVideoFrames());
    EXPECT_EQ(engine->captureConnection()->preferredVideoStabilizationMode(), AVCaptureVideoStabilizationModeAuto);
    EXPECT_EQ(engine->previewLayer()->videoGravity(), AVLayerVideoGravityResizeAspectFill);
    EXPECT_EQ(engine->metaObjects(),
              (std::vector<AVMetadataObjectType>{AVMetadataObjectTypeFace, AVMetadataObjectTypePDF417Code}));
    EXPECT_EQ(engine->metaOutput()->metadataObjectTypes(), engine->metaObjects());

    // init(): the front camera, '420f' frames, aspect gravity.
    auto plain = KPVideoHelper::init();
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->device()->uniqueID(), "front");
    EXPECT_EQ(plain->videoDataOutput()->pixelFormat(), kCVPixelFormatType_420YpCbCr8BiPlanarFullRange);
    EXPECT_EQ(plain->previewLayer()->videoGravity(), AVLayerVideoGravityResizeAspect);
}

TEST_F(CaptureEngine, FailedLocksSkipTheSetUpStepsAndAMissingCameraLeavesNoInput) {
    auto camera = addCamera("back", AVCaptureDevicePositionBack);
    camera->failNextLocks(3);
    auto engine = backEngine();
    EXPECT_EQ(camera->lockAttempts(), 3);
    EXPECT_EQ(engine->device()->focusMode(), AVCaptureFocusModeContinuousAutoFocus); // unchanged
    EXPECT_EQ(engine->device()->autoFocusRangeRestriction(), AVCaptureAutoFocusRangeRestrictionNone);
    EXPECT_EQ(engine->session()->inputs().size(), 1U); // the input does not need the lock

    // No front camera: no device, no input, no metadata type (the output offers none without a camera).
    auto lonely = KPVideoHelper::init();
    ASSERT_TRUE(lonely);
    EXPECT_FALSE(lonely->device());
    EXPECT_TRUE(lonely->session()->inputs().empty());
    EXPECT_TRUE(lonely->metaObjects().empty());
    lonely->setFlashMode(1);
    lonely->autoFocusCamera();
    lonely->enableTorchWithLevel(1.0F);
    lonely->disableTorch();
}

TEST_F(CaptureEngine, MetadataTypesChangeOnlyWhileStoppedAndOnlyToWhatTheCameraOffers) {
    CaptureCapabilities caps = FakeCaptureDevice::fullCapabilities();
    caps.metadataObjectTypes = {AVMetadataObjectTypeFace, AVMetadataObjectTypePDF417Code};
    addCamera("front", AVCaptureDevicePositionFront, caps);
    auto engine = KPVideoHelper::init();
    const auto initial = engine->metaObjects();

    engine->setQrCodeSupport(true); // not offered
    EXPECT_EQ(engine->metaObjects(), initial);
    engine->setFaceFindSupport(true); // already there
    EXPECT_EQ(engine->metaObjects(), initial);
    engine->UpdateAVCaptureMetadataOutput(AVMetadataObjectTypeAztecCode, false); // absent
    EXPECT_EQ(engine->metaObjects(), initial);

    // Disabled and enabled again: the order is the order of enabling.
    engine->setFaceFindSupport(false);
    engine->setFaceFindSupport(true);
    EXPECT_EQ(engine->metaObjects(),
              (std::vector<AVMetadataObjectType>{AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeFace}));
    EXPECT_EQ(engine->metaOutput()->metadataObjectTypes(), engine->metaObjects());

    engine->startVideoCapture();
    ASSERT_TRUE(engine->session()->isRunning());
    engine->setPdf417Support(false);
    engine->setFaceFindSupport(false);
    EXPECT_TRUE(engine->pdf417Support());
    EXPECT_TRUE(engine->faceFindSupport());
    engine->stopVideoCapture();
    engine->setPdf417Support(false);
    EXPECT_FALSE(engine->pdf417Support());
    _main.drain();
}

TEST_F(CaptureEngine, FlashAndFocusRangeSettersAndTheirLocks) {
    auto camera = addCamera("back", AVCaptureDevicePositionBack);
    auto engine = backEngine();
    engine->setFlashMode(2);
    EXPECT_EQ(engine->flashMode(), 2);
    engine->setAutoFocusRange(2);
    EXPECT_EQ(engine->autoFocusRange(), 2);
    // After a failed lock the range setter stops; the flash setter calls the device anyway, which refuses the
    // change without the lock and says so. Nothing is left locked either way.
    struct LockCase {
        const char* setter;
        std::function<void()> call;
        std::function<NSInteger()> read;
        bool deviceCalled;
    };
    const LockCase cases[] = {
        {"setAutoFocusRangeRestriction:", [&] { engine->setAutoFocusRange(0); }, [&] { return engine->autoFocusRange(); },
         false},
        {"setFlashMode:", [&] { engine->setFlashMode(0); }, [&] { return engine->flashMode(); }, true},
    };
    for (const LockCase& c : cases) {
        kptest::LogCapture log;
        camera->failNextLocks(1);
        c.call();
        EXPECT_EQ(c.read(), 2) << c.setter;
        const auto lines = log.lines();
        const bool refused = std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
            return line == std::string(c.setter) + ": " + kNotLockedForConfiguration;
        });
        EXPECT_EQ(refused, c.deviceCalled) << c.setter;
        EXPECT_FALSE(engine->device()->isLockedForConfiguration()) << c.setter;
    }
}

// ----------------------------------------------------------------------------------------------------------------
// Frame path.

TEST_F(CaptureEngine, EveryFrameWithoutFaceOrCodeQueuesBothCleanUpsAndStillReachesTheDelegate) {
    auto engine = engineWithPreview();
    auto delegate = std::make_shared<RecordingDelegate>(true, true);
    engine->setDelegate(delegate);
    const auto frame = kptest::patternFrame(kCVPixelFormatType_32BGRA, 16, 16, 0, CMTimeMake(1, 30));

    // A face and a code on screen first.
    engine->captureOutput(nullptr, {face(CGRectMake(0.25, 0.25, 0.5, 0.5), 1),
                                    code("DL123", uprightCorners(0.1, 0.1, 0.3, 0.1))}, nullptr);
    _main.drain();
    ASSERT_TRUE(engine->primaryLayer());
    ASSERT_TRUE(engine->barcodeLineLayer());

    // Face present, code present: nothing to clean up.
    engine->captureOutput(nullptr, frame, nullptr);
    EXPECT_EQ(_main.pending(), 0U);
    // Face present, no code: only the barcode clean-up; the face box stays.
    engine->clearBarcodeData();
    engine->setParsedData("stale");
    engine->captureOutput(nullptr, frame, nullptr);
    EXPECT_EQ(_main.pending(), 1U);
    EXPECT_EQ(engine->parsedData(), std::optional<std::string>(""));
    _main.drain();
    EXPECT_FALSE(engine->barcodeLineLayer());
    EXPECT_TRUE(engine->primaryLayer());
    EXPECT_TRUE(engine->primaryLayer()->superlayer());

    // Neither: two tasks per frame, every frame.
    const CGFloat yaw = engine->yawAngle();
    engine->clearFaceData();
    engine->setYawAngle(45);
    engine->setRollAngle(30);
    engine->centerLayer()->setBorderColor(kGreen);
    engine->captureOutput(nullptr, frame, nullptr);
    engine->captureOutput(nullptr, frame, nullptr);
    EXPECT_EQ(_main.pending(), 4U);
    _main.drain();
    EXPECT_FALSE(engine->primaryLayer());
    EXPECT_EQ(engine->centerLayer()->borderColor(), kRed);

    const auto frames = delegate->frames();
    ASSERT_EQ(frames.size(), 4U);
    EXPECT_EQ(frames[0].barcode, std::optional<std::string>("DL123"));
    EXPECT_EQ(frames[0].faceRect, CGRectMake(100, 100, 200, 200));
    EXPECT_EQ(frames[0].yaw, yaw);
    // After the face is gone the delegate keeps receiving the last angles beside the zero rectangle.
    EXPECT_EQ(frames[3].faceRect, CGRectZero);
    EXPECT_EQ(frames[3].yaw, 45);
    EXPECT_EQ(frames[3].roll, 30);
    EXPECT_EQ(frames[3].barcode, std::optional<std::string>(""));

    // A delegate that implements only the still method hears of no frame.
    auto stillsOnly = std::make_shared<RecordingDelegate>(false, true);
    engine->setDelegate(stillsOnly);
    engine->captureOutput(nullptr, frame, nullptr);
    EXPECT_TRUE(stillsOnly->frames().empty());
    _main.drain();
}

TEST_F(CaptureEngine, FramesOfARunningSessionAreRecorded) {
    kptest::ScratchFolder root("engine-recorder");
    setDocumentsDirectory(root.file("Documents"));
    setSavedPhotosAlbumDirectory(root.file("Album"));
    std::filesystem::create_directories(root.file("Documents"));

    auto camera = addCamera("front", AVCaptureDevicePositionFront);
    auto engine = KPVideoHelper::init();
    engine->setFaceFindSupport(false); // no detection worker: the test pushes the frames it wants
    engine->setPdf417Support(false);
    engine->setRecordCameraData(true);
    engine->startVideoCapture();
    auto recorder = KPCameraRollHelper::getInstance();
    EXPECT_TRUE(recorder->isRecording());
    ASSERT_TRUE(camera->isStreaming());
    for (int i = 0; i < 5; ++i) {
        camera->pushFrame(static_cast<uint8_t>(0x20 * i));
        dispatch_sync(engine->videoDataOutputQueue(), [] {});
    }
    EXPECT_TRUE(recorder->inputWriterBuffer()); // the first frame started the writer; no delegate needed

    // The recorder stops only when recording is on at the moment of the stop.
    engine->setRecordCameraData(false);
    engine->stopVideoCapture();
    EXPECT_TRUE(recorder->isRecording());
    engine->setRecordCameraData(true);
    engine->startVideoCapture();
    engine->stopVideoCapture();
    ASSERT_TRUE(_main.drainUntil([&] { return !recorder->isRecording(); }));
    _main.drain();
    setDocumentsDirectory("");
    setSavedPhotosAlbumDirectory("");
}

TEST_F(CaptureEngine, APreviewViewKeepsTheCameraRunningAfterTheEngineGoes) {
    auto camera = addCamera("front", AVCaptureDevicePositionFront);
    auto engine = KPVideoHelper::init();
    engine->setFaceFindSupport(false);
    engine->setPdf417Support(false);
    auto view = engine->getPreviewView(CGRectMake(0, 0, 64, 48), false);
    engine->startVideoCapture();
    _main.drain();
    std::weak_ptr<KPVideoHelper> weakEngine = engine;
    std::weak_ptr<AVCaptureSession> session = engine->session();
    auto layer = std::static_pointer_cast<AVCaptureVideoPreviewLayer>(view->layer()->sublayers().at(0));
    engine.reset();
    _main.drain();
    ASSERT_TRUE(weakEngine.expired());

    // The host kept only the view: the picture stays live.
    ASSERT_FALSE(session.expired());
    EXPECT_TRUE(session.lock()->isRunning());
    EXPECT_TRUE(camera->isStreaming());
    ASSERT_TRUE(camera->pushFrame(0x42));
    const auto frame = layer->newestSampleBuffer();
    ASSERT_TRUE(frame);
    EXPECT_EQ(CMSampleBufferGetImageBuffer(frame)->bytes()[0], 0x42);

    // With the view gone too, nothing holds the session: no cycle through the layer's feed.
    session.lock()->stopRunning();
    layer.reset();
    view.reset();
    EXPECT_TRUE(session.expired());
    _main.drain();
}

TEST_F(CaptureEngine, FramesComeInTheFormatAskedForAndUnknownFormatsAreRefusedWithALogLine) {
    auto camera = addCamera("front", AVCaptureDevicePositionFront);
    struct Case {
        OSType asked;
        OSType delivered;
    };
    constexpr OSType k420v = kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;
    constexpr OSType k420f = kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
    for (const Case c : {Case{k420v, k420v}, Case{k420f, k420f}, Case{kCVPixelFormatType_32BGRA, kCVPixelFormatType_32BGRA},
                         Case{0x79757673 /* 'yuvs' */, k420f}, Case{0, k420f}}) {
        kptest::LogCapture log;
        auto engine = KPVideoHelper::initWithAVCaptureSessionPreset(0, AVCaptureDevicePositionFront,
                                                                    AVLayerVideoGravityResizeAspect, c.asked);
        const auto lines = log.lines();
        const bool refused = std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
            return line.starts_with(kUnsupportedPixelFormatLog);
        });
        EXPECT_EQ(refused, c.asked != c.delivered) << c.asked;
        EXPECT_EQ(engine->videoDataOutput()->pixelFormat(), c.delivered) << c.asked;

        engine->setFaceFindSupport(false);
        engine->setPdf417Support(false);
        auto delegate = std::make_shared<RecordingDelegate>(true, false);
        delegate->setQueue(engine->videoDataOutputQueue());
        engine->setDelegate(delegate);
        engine->startVideoCapture();
        EXPECT_EQ(camera->streamRequest().pixelFormat, c.delivered) << c.asked;
        camera->pushFrame(0x80);
        dispatch_sync(engine->videoDataOutputQueue(), [] {});
        ASSERT_EQ(delegate->frames().size(), 1U) << c.asked;
        EXPECT_EQ(delegate->frames()[0].pixelFormat, c.delivered) << c.asked;
        EXPECT_TRUE(delegate->frames()[0].onFrameQueue);
        engine->stopVideoCapture();
        _main.drain();
    }
}

// ----------------------------------------------------------------------------------------------------------------
// Metadata handler.

TEST_F(CaptureEngine, AnEmptyBatchClearsTheRectanglesAndTurnsTheBoxRedEvenWithoutTheBox) {
    auto engine = engineWithPreview(false);
    engine->setFaceRect(CGRectMake(1, 2, 3, 4));
    engine->setBarcodeRect(CGRectMake(1, 2, 3, 4));
    engine->setYawAngle(45);
    engine->setIsHeadCentered(true);
    engine->centerLayer()->setBorderColor(kGreen);
    engine->captureOutput(nullptr, std::vector<std::shared_ptr<AVMetadataObject>>{}, nullptr);
    EXPECT_EQ(engine->faceRect(), CGRectZero);
    EXPECT_EQ(engine->barcodeRect(), CGRectZero);
    EXPECT_EQ(engine->yawAngle(), 45);      // kept
    EXPECT_TRUE(engine->isHeadCentered()); // kept
    EXPECT_EQ(_main.pending(), 1U);
    EXPECT_EQ(engine->centerLayer()->borderColor(), kGreen); // not yet: the task runs after the handler
    _main.drain();
    EXPECT_EQ(engine->centerLayer()->borderColor(), kRed);
}

TEST_F(CaptureEngine, CodesSetTextOutlineAndRectangleFromTheLastCode) {
    auto engine = engineWithPreview();
    // The first code's outline, then a second code read: the text and rectangle are the last code's.
    engine->captureOutput(nullptr,
                          {code("first", uprightCorners(0.1, 0.1, 0.2, 0.1)),
                           code("second", uprightCorners(0.25, 0.5, 0.5, 0.25), AVMetadataObjectTypeQRCode)},
                          nullptr);
    EXPECT_EQ(engine->parsedData(), std::optional<std::string>("second"));
    EXPECT_EQ(engine->barcodeRect(), CGRectMake(100, 200, 200, 100));
    ASSERT_TRUE(engine->barcodeLineLayer());
    const auto outline = engine->barcodeLineLayer();
    EXPECT_EQ(outline->lineWidth(), 3.0);
    EXPECT_EQ(outline->strokeColor(), kGreen);
    EXPECT_EQ(outline->lineCap(), kCALineCapSquare);
    // Four two-point subpaths: top (p3-p2), left (p3-p0), bottom (p0-p1), right (p2-p1).
    const auto& e = outline->path()->elements();
    ASSERT_EQ(e.size(), 8U);
    const CGPoint expected[8] = {{100, 200}, {300, 200}, {100, 200}, {100, 300},
                                 {100, 300}, {300, 300}, {300, 200}, {300, 300}};
    for (size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(e[i].type, i % 2 == 0 ? CGPathElement::Type::MoveToPoint : CGPathElement::Type::AddLineToPoint) << i;
        EXPECT_EQ(e[i].points[0].x, expected[i].x) << i;
        EXPECT_EQ(e[i].points[0].y, expected[i].y) << i;
    }
    EXPECT_EQ(_main.pending(), 2U); // the outline's addSublayer, the centre box colour (no face)
    _main.drain();
    EXPECT_EQ(outline->superlayer(), engine->previewLayer());

    // A later code without text and with three corners: nil text, no rectangle, the outline left as it was.
    const auto path = outline->path();
    engine->captureOutput(nullptr, {code(std::nullopt, {{0.1, 0.1}, {0.2, 0.1}, {0.2, 0.2}})}, nullptr);
    EXPECT_EQ(engine->parsedData(), std::nullopt);
    EXPECT_EQ(engine->barcodeRect(), CGRectZero);
    EXPECT_EQ(engine->barcodeLineLayer()->path(), path);
    engine->captureOutput(nullptr, {code("five", {{0, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 0}})}, nullptr);
    EXPECT_EQ(engine->parsedData(), std::optional<std::string>("five"));
    EXPECT_EQ(engine->barcodeRect(), CGRectZero);

    // A code upside down: the rectangle from p3, p2 and p0 keeps its negative sides.
    const std::vector<CGPoint> upsideDown{{0.5, 0.25}, {0.25, 0.25}, {0.25, 0.5}, {0.5, 0.5}};
    engine->captureOutput(nullptr, {code("turned", upsideDown)}, nullptr);
    EXPECT_EQ(engine->barcodeRect(), CGRectMake(200, 200, -100, -100));

    // Outline hidden: text read, no rectangle; the next frame then takes that as no code and empties the text.
    engine->setShowBarcodeBoundingBox(false);
    engine->captureOutput(nullptr, {code("hidden", uprightCorners(0.1, 0.1, 0.2, 0.1))}, nullptr);
    EXPECT_EQ(engine->parsedData(), std::optional<std::string>("hidden"));
    EXPECT_EQ(engine->barcodeRect(), CGRectZero);
    engine->captureOutput(nullptr, kptest::patternFrame(kCVPixelFormatType_32BGRA, 8, 8, 0, CMTimeMake(0, 30)),
                          nullptr);
    EXPECT_EQ(engine->parsedData(), std::optional<std::string>(""));
    _main.drain();

    EXPECT_EQ(KPVideoHelper::pointFromArray({CGPointCreateDictionaryRepresentation({3, 4})}, 0), CGPointMake(3, 4));
    EXPECT_EQ(KPVideoHelper::pointFromArray({CGPointCreateDictionaryRepresentation({3, 4})}, 1), CGPointZero);
    EXPECT_EQ(KPVideoHelper::pointFromArray({CGPointDictionary{{"X", 5}}}, 0), CGPointZero);
}

TEST_F(CaptureEngine, TheWidestFaceIsCentredUprightAndOfAcceptableSize) {
    auto engine = engineWithPreview();
    ASSERT_EQ(engine->centerLayer()->superlayer(), engine->previewLayer());
    const CGRect centred = CGRectMake(0.25, 0.25, 0.5, 0.5); // 100,100 200x200 in the 400 x 400 preview

    // Equal widths: the first wins; a face of width 0 is never chosen. Tasks: centre colour, face box added,
    // face box frame.
    engine->captureOutput(nullptr, {face(CGRectMake(0.1, 0.1, 0, 0.5), 9), face(centred, 7, true, 0, true, 0),
                                    face(CGRectMake(0.3, 0.3, 0.5, 0.1), 8, true, 45)},
                          nullptr);
    EXPECT_EQ(engine->faceRect(), CGRectMake(100, 100, 200, 200));
    EXPECT_EQ(engine->centerLayer()->frame(), CGRectMake(30, 50, 340, 300));
    EXPECT_TRUE(engine->isHeadCentered());
    EXPECT_EQ(engine->yawAngle(), 0);
    ASSERT_TRUE(engine->primaryLayer());
    EXPECT_EQ(engine->avfFaceLayers().at(7), engine->primaryLayer());
    EXPECT_EQ(_main.pending(), 3U);
    _main.drain();
    EXPECT_EQ(engine->centerLayer()->borderColor(), kGreen);
    EXPECT_EQ(engine->primaryLayer()->superlayer(), engine->previewLayer());
    EXPECT_EQ(engine->primaryLayer()->frame(), CGRectMake(100, 100, 200, 200));
    // The box, the outline and the face box in the order they were attached.
    EXPECT_EQ(engine->previewLayer()->sublayers().back(), engine->primaryLayer());

    // Roll is guarded by the yaw flag (a face with a yaw fails for roll 30 whatever its own roll flag says; a face
    // without a yaw is never failed for roll or yaw); size bounds are strict; the face must lie inside the box.
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

    // Face box off: removed from the screen, the layer kept; its frame still follows once it is on again.
    engine->setShowFaceBoundingBox(false);
    engine->captureOutput(nullptr, {face(centred, 7)}, nullptr);
    _main.drain();
    ASSERT_TRUE(engine->primaryLayer());
    EXPECT_FALSE(engine->primaryLayer()->superlayer());
    engine->setShowFaceBoundingBox(true);
    engine->captureOutput(nullptr, {face(CGRectMake(0.25, 0.25, 0.25, 0.25), 7)}, nullptr);
    _main.drain();
    EXPECT_FALSE(engine->primaryLayer()->superlayer());
    EXPECT_EQ(engine->primaryLayer()->frame(), CGRectMake(100, 100, 100, 100));
}

TEST_F(CaptureEngine, QueuedTasksRunInTheirOrderAfterTheHandler) {
    auto engine = engineWithPreview();
    // A face outside the box and a code, in one batch: outline added, centre box red, face box added, its frame.
    engine->centerLayer()->setBorderColor(kGreen);
    engine->captureOutput(nullptr, {face(CGRectMake(0.0, 0.0, 0.5, 0.5), 4),
                                    code("ID", uprightCorners(0.5, 0.5, 0.25, 0.1))}, nullptr);
    EXPECT_EQ(_main.pending(), 4U);
    EXPECT_FALSE(engine->barcodeLineLayer()->superlayer());
    EXPECT_FALSE(engine->primaryLayer()->superlayer());
    EXPECT_EQ(engine->primaryLayer()->frame(), CGRectZero);
    _main.drainOnce();
    EXPECT_EQ(engine->previewLayer()->sublayers(),
              (std::vector<std::shared_ptr<CALayer>>{engine->centerLayer(), engine->barcodeLineLayer(),
                                                     engine->primaryLayer()}));
    EXPECT_EQ(engine->centerLayer()->borderColor(), kRed);
    EXPECT_EQ(engine->primaryLayer()->frame(), CGRectMake(0, 0, 200, 200));
    EXPECT_FALSE(engine->isHeadCentered());
}

TEST_F(CaptureEngine, AFaceBoxIsNeverReusedFromTheDictionaryAndATinyPreviewIsAlwaysRed) {
    auto engine = engineWithPreview();
    engine->captureOutput(nullptr, {face(CGRectMake(0.25, 0.25, 0.5, 0.5), 3)}, nullptr);
    _main.drain();
    const auto first = engine->primaryLayer();
    // A frame without a face clears the face box; the same face then gets a new one.
    engine->clearFaceData();
    engine->captureOutput(nullptr, kptest::patternFrame(kCVPixelFormatType_32BGRA, 8, 8, 0, CMTimeMake(0, 30)),
                          nullptr);
    _main.drain();
    EXPECT_FALSE(engine->primaryLayer());
    EXPECT_FALSE(first->superlayer());
    engine->captureOutput(nullptr, {face(CGRectMake(0.25, 0.25, 0.5, 0.5), 3)}, nullptr);
    ASSERT_TRUE(engine->primaryLayer());
    EXPECT_NE(engine->primaryLayer(), first);
    EXPECT_EQ(engine->avfFaceLayers().at(3), engine->primaryLayer());
    _main.drain();

    // A preview less than 60 points wide or 100 high: the inset box is the null rectangle and nothing is inside
    // it, not even a face that lies inside the box of the earlier, larger preview (30, 50, 340, 300).
    for (const CGRect tiny : {CGRectMake(0, 0, 59, 400), CGRectMake(0, 0, 400, 99)}) {
        engine->previewLayer()->setFrame(CGRectMake(0, 0, 400, 400));
        engine->captureOutput(nullptr, {face(CGRectMake(0.25, 0.25, 0.5, 0.5), 3)}, nullptr);
        _main.drain();
        ASSERT_EQ(engine->centerLayer()->borderColor(), kGreen);
        engine->previewLayer()->setFrame(tiny);
        // The 400 x 400 frame shown in 59 x 59 (or 99 x 99) points, centred: this face lies inside the old box.
        engine->captureOutput(nullptr, {face(CGRectMake(0.6, 0.6, 0.3, 0.2), 3)}, nullptr);
        ASSERT_TRUE(CGRectContainsRect(CGRectMake(30, 50, 340, 300), engine->faceRect()));
        EXPECT_TRUE(CGRectIsNull(engine->centerLayer()->frame()));
        EXPECT_FALSE(engine->isHeadCentered());
        _main.drain();
        EXPECT_EQ(engine->centerLayer()->borderColor(), kRed);
    }
}

TEST_F(CaptureEngine, TheFrontCameraMirrorsTheFaceBoxAndItsAngles) {
    addCamera("front", AVCaptureDevicePositionFront);
    auto engine = KPVideoHelper::init();
    _view = engine->getPreviewView(CGRectMake(0, 0, 400, 400), true);
    engine->previewLayer()->enqueueSampleBuffer(
        kptest::patternFrame(kCVPixelFormatType_32BGRA, 400, 400, 0, CMTimeMake(0, 30)));
    ASSERT_TRUE(engine->previewLayer()->isVideoMirrored());
    struct Case {
        double roll, yaw, mirroredRoll, mirroredYaw;
    };
    for (const Case c : {Case{0, 0, 0, 0}, Case{30, 45, 330, 315}, Case{330, 315, 30, 45}, Case{90, 270, 270, 90},
                         Case{180, 0, 180, 0}}) {
        engine->captureOutput(nullptr, {face(CGRectMake(0.1, 0.25, 0.3, 0.5), 1, true, c.yaw, true, c.roll)},
                              nullptr);
        EXPECT_EQ(engine->faceRect(), CGRectMake(240, 100, 120, 200)) << "the box as seen in the mirror";
        EXPECT_EQ(engine->rollAngle(), c.mirroredRoll) << c.roll;
        EXPECT_EQ(engine->yawAngle(), c.mirroredYaw) << c.yaw;
        EXPECT_EQ(engine->isHeadCentered(), c.roll == 0 && c.yaw == 0);
    }
    _main.drain();
}

// ----------------------------------------------------------------------------------------------------------------
// Camera controls.

TEST_F(CaptureEngine, CameraSwitchExchangesTheInputAndFlipsThePreview) {
    addCamera("front", AVCaptureDevicePositionFront);
    addCamera("back", AVCaptureDevicePositionBack);
    auto engine = KPVideoHelper::init();
    auto outputs = engine->session()->outputs();
    const auto oldFrames = engine->videoDataOutput()->connectionWithMediaType(AVMediaTypeVideo);
    const auto oldStills = engine->stillImageOutput()->connectionWithMediaType(AVMediaTypeVideo);
    ASSERT_EQ(oldFrames->preferredVideoStabilizationMode(), AVCaptureVideoStabilizationModeAuto);
    oldStills->setVideoScaleAndCropFactor(2.0);
    oldFrames->setEnabled(false);

    engine->toggleCameraWithAnimation(false);
    EXPECT_EQ(engine->device()->uniqueID(), "back");
    // The new camera has new connections with default settings: nothing set up for the old one carries over.
    const auto frames = engine->videoDataOutput()->connectionWithMediaType(AVMediaTypeVideo);
    const auto stills = engine->stillImageOutput()->connectionWithMediaType(AVMediaTypeVideo);
    ASSERT_TRUE(frames && stills);
    EXPECT_EQ(frames->preferredVideoStabilizationMode(), AVCaptureVideoStabilizationModeOff);
    EXPECT_TRUE(frames->isEnabled());
    EXPECT_EQ(stills->videoScaleAndCropFactor(), 1.0);
    ASSERT_EQ(engine->session()->inputs().size(), 1U);
    EXPECT_EQ(engine->session()->inputs()[0]->device()->uniqueID(), "back");
    EXPECT_EQ(engine->session()->outputs(), outputs);
    _main.drain();
    EXPECT_FALSE(engine->previewLayer()->animationForKey("transform"));

    engine->toggleCameraWithAnimation(true);
    EXPECT_EQ(engine->device()->uniqueID(), "front");
    EXPECT_FALSE(engine->previewLayer()->animationForKey("transform")); // queued, not yet added
    _main.drain();
    const auto flip = engine->previewLayer()->animationForKey("transform");
    ASSERT_TRUE(flip && flip->toValue());
    const auto* turn = std::get_if<CATransform3D>(&flip->toValue()->storage());
    ASSERT_TRUE(turn);
    EXPECT_TRUE(CATransform3DEqualToTransform(*turn, CATransform3DMakeRotation(std::numbers::pi / 2, 0, 1, 0)));
}

TEST_F(CaptureEngine, FocusAndTorchCommandsFollowTheirLockRules) {
    auto camera = addCamera("back", AVCaptureDevicePositionBack);
    CaptureCapabilities frontCaps = FakeCaptureDevice::noCapabilities();
    addCamera("front", AVCaptureDevicePositionFront, frontCaps);
    auto engine = backEngine();
    auto device = engine->device();
    const auto requests = [&] { return camera->appliedControls().back().autoFocusRequests; };
    const uint32_t before = requests();
    engine->autoFocusCamera();
    EXPECT_EQ(requests(), before + 1);
    camera->failNextLocks(1);
    engine->autoFocusCamera();
    EXPECT_EQ(requests(), before + 1);
    engine->autoFocusContinuousCamera();
    EXPECT_EQ(device->focusMode(), AVCaptureFocusModeContinuousAutoFocus);

    for (float level : {0.0F, -1.0F, 1.5F, std::numeric_limits<float>::quiet_NaN()}) {
        engine->enableTorchWithLevel(level);
        EXPECT_EQ(device->torchMode(), AVCaptureTorchModeOff) << level;
    }
    engine->enableTorchWithLevel(0.25F);
    EXPECT_EQ(device->torchMode(), AVCaptureTorchModeOn);
    EXPECT_EQ(device->torchLevel(), 0.25F);
    engine->disableTorch();
    EXPECT_EQ(device->torchMode(), AVCaptureTorchModeOff);
    EXPECT_FALSE(device->isLockedForConfiguration());

    // The front camera has no torch and no single auto-focus: the commands do nothing.
    engine->toggleCameraWithAnimation(false);
    ASSERT_EQ(engine->device()->uniqueID(), "front");
    engine->enableTorchWithLevel(1.0F);
    EXPECT_EQ(engine->device()->torchMode(), AVCaptureTorchModeOff);
    engine->autoFocusCamera();
    EXPECT_NE(engine->device()->focusMode(), AVCaptureFocusModeAutoFocus);
    _main.drain();
}

// ----------------------------------------------------------------------------------------------------------------
// Preview view and centre box.

TEST_F(CaptureEngine, PreviewViewsTakeThePreviewLayerAndTheCentreBoxFollowsItsFlag) {
    addCamera("front", AVCaptureDevicePositionFront);
    auto engine = KPVideoHelper::init();
    auto first = engine->getPreviewView(CGRectMake(10, 20, 320, 240), true);
    EXPECT_EQ(engine->previewLayer()->frame(), CGRectMake(0, 0, 320, 240));
    EXPECT_EQ(engine->centerLayer()->superlayer(), engine->previewLayer());
    EXPECT_EQ(engine->centerLayer()->frame(), CGRectZero); // no face seen yet: nothing visible

    // Shown twice: once, on top.
    auto marker = CALayer::layer();
    engine->previewLayer()->addSublayer(marker);
    engine->setShowCenterBox(true);
    const auto& sublayers = engine->previewLayer()->sublayers();
    EXPECT_EQ(std::count(sublayers.begin(), sublayers.end(), engine->centerLayer()), 1);
    EXPECT_EQ(sublayers.back(), engine->centerLayer());

    // A second view takes the layer; the box goes with NO. Resizing the view leaves the layer's frame.
    auto second = engine->getPreviewView(CGRectMake(0, 0, 100, 80), false);
    EXPECT_EQ(engine->previewLayer()->superlayer(), second->layer());
    EXPECT_TRUE(first->layer()->sublayers().empty());
    EXPECT_FALSE(engine->centerLayer()->superlayer());
    second->setFrame(CGRectMake(0, 0, 200, 160));
    EXPECT_EQ(engine->previewLayer()->frame(), CGRectMake(0, 0, 100, 80));
}

} // namespace
