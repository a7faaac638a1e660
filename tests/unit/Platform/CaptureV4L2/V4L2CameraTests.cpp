// SPDX-License-Identifier: MIT
// The V4L2 back-end against a fake kernel (format negotiation, controls, streaming, a vanishing device) and, when
// the machine has one, a real webcam.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "Platform/Capture/V4L2Camera.h"
#include "support/FakeV4L2.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <turbojpeg.h>

#include <filesystem>
#include <mutex>

using namespace kp;
using kptest::FakeV4L2;

namespace {

const std::string kNode = "/fake/video0";

FakeV4L2::Node webcam() {
    FakeV4L2::Node node;
    node.path = kNode;
    node.card = "Fake HD Webcam";
    node.sizes = {{V4L2_PIX_FMT_YUYV, 640, 480},
                  {V4L2_PIX_FMT_YUYV, 320, 240},
                  {V4L2_PIX_FMT_MJPEG, 640, 480},
                  {V4L2_PIX_FMT_MJPEG, 1280, 720}};
    node.controls = {{V4L2_CID_FOCUS_AUTO, {0, 1, 1}},
                     {V4L2_CID_AUTO_FOCUS_START, {0, 1, 0}},
                     {V4L2_CID_AUTO_FOCUS_RANGE, {0, 3, 0}},
                     {V4L2_CID_AUTO_WHITE_BALANCE, {0, 1, 1}},
                     {V4L2_CID_EXPOSURE_AUTO, {1, 3, 3}}, // only manual and aperture priority, like most webcams
                     {V4L2_CID_FLASH_LED_MODE, {0, 2, 0}},
                     {V4L2_CID_FLASH_TORCH_INTENSITY, {0, 100, 0}},
                     {V4L2_CID_FLASH_STROBE, {0, 1, 0}}};
    return node;
}

std::vector<uint8_t> yuyv(uint32_t width, uint32_t height, uint8_t luma) {
    std::vector<uint8_t> bytes(static_cast<size_t>(width) * height * 2);
    for (size_t i = 0; i < bytes.size(); i += 2) {
        bytes[i] = luma;
        bytes[i + 1] = 128;
    }
    return bytes;
}

std::vector<uint8_t> jpeg(int width, int height, uint8_t grey) {
    std::vector<uint8_t> pixels(static_cast<size_t>(width) * height, grey);
    tjhandle handle = tjInitCompress();
    unsigned char* out = nullptr;
    unsigned long size = 0;
    tjCompress2(handle, pixels.data(), width, 0, height, TJPF_GRAY, &out, &size, TJSAMP_GRAY, 90, 0);
    std::vector<uint8_t> bytes(out, out + size);
    tjFree(out);
    tjDestroy(handle);
    return bytes;
}

class Frames final : public AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    void captureOutput(const std::shared_ptr<AVCaptureOutput>&, const CMSampleBufferRef& sample,
                       const std::shared_ptr<AVCaptureConnection>&) override {
        std::lock_guard lock(mutex);
        samples.push_back(sample);
    }
    size_t count() {
        std::lock_guard lock(mutex);
        return samples.size();
    }
    std::mutex mutex;
    std::vector<CMSampleBufferRef> samples;
};

// B, G, R of the frame's centre pixel.
std::array<int, 3> centre(const CMSampleBufferRef& sample) {
    auto pixels = CMSampleBufferGetImageBuffer(sample);
    CVPixelBufferLockBaseAddress(pixels, 0);
    const auto* p = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddress(pixels)) +
                    (pixels->height() / 2) * CVPixelBufferGetBytesPerRow(pixels) + (pixels->width() / 2) * 4;
    std::array<int, 3> bgr{p[0], p[1], p[2]};
    CVPixelBufferUnlockBaseAddress(pixels, 0);
    return bgr;
}

} // namespace

TEST(V4L2Camera, ScanProbeAndFormatNegotiation) {
    auto fake = std::make_shared<FakeV4L2>();
    fake->addNode(webcam());
    FakeV4L2::Node output;
    output.path = "/fake/video1";
    output.capabilities = V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_STREAMING; // not a camera
    output.sizes = {{V4L2_PIX_FMT_YUYV, 640, 480}};
    fake->addNode(output);
    EXPECT_EQ(V4L2Camera::scan(fake, "/fake"), (std::vector<std::string>{kNode}));
    EXPECT_EQ(V4L2Camera::open(fake, "/fake/video1"), nullptr);
    EXPECT_EQ(V4L2Camera::open(fake, "/fake/video9"), nullptr);
    EXPECT_EQ(fake->openDescriptors(), 0) << "probing leaves nothing open";

    auto camera = V4L2Camera::open(fake, kNode);
    ASSERT_TRUE(camera);
    EXPECT_EQ(camera->localizedName(), "Fake HD Webcam");
    EXPECT_EQ(camera->formatForPreset(AVCaptureSessionPreset640x480), (CaptureFormat{640, 480}));
    EXPECT_EQ(camera->formatForPreset(AVCaptureSessionPreset1280x720), (CaptureFormat{1280, 720}));
    EXPECT_EQ(camera->formatForPreset(AVCaptureSessionPresetLow), (CaptureFormat{320, 240}));
    EXPECT_EQ(camera->formatForPreset(AVCaptureSessionPresetMedium), (CaptureFormat{640, 480}));
    EXPECT_EQ(camera->formatForPreset(AVCaptureSessionPresetHigh), (CaptureFormat{1280, 720}));
    EXPECT_EQ(camera->formatForPreset(AVCaptureSessionPreset1920x1080), (CaptureFormat{1280, 720}))
        << "too large: the largest there is";
    EXPECT_EQ(camera->formatForPreset("nonsense"), (CaptureFormat{}));

    const auto caps = camera->capabilities();
    EXPECT_EQ(caps.focusModes, (std::vector<AVCaptureFocusMode>{AVCaptureFocusModeLocked, AVCaptureFocusModeAutoFocus,
                                                                AVCaptureFocusModeContinuousAutoFocus}));
    EXPECT_TRUE(caps.autoFocusRangeRestriction);
    EXPECT_EQ(caps.flashModes.size(), 3U);
    EXPECT_EQ(caps.torchModes.size(), 2U);
    EXPECT_EQ(caps.whiteBalanceModes.size(), 2U);
}

TEST(V4L2Camera, ControlsMapToV4L2AndTheLockIsExclusive) {
    auto fake = std::make_shared<FakeV4L2>();
    fake->addNode(webcam());
    auto device = std::make_shared<AVCaptureDevice>(V4L2Camera::open(fake, kNode), AVCaptureDevicePositionBack);

    fake->holdLockElsewhere(kNode, true);
    NSErrorRef error;
    EXPECT_FALSE(device->lockForConfiguration(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), AVErrorDeviceLockedForConfigurationByAnotherProcess);
    fake->holdLockElsewhere(kNode, false);

    ASSERT_TRUE(device->lockForConfiguration(&error));
    device->setAutoFocusRangeRestriction(AVCaptureAutoFocusRangeRestrictionNear);
    EXPECT_EQ(fake->control(kNode, V4L2_CID_AUTO_FOCUS_RANGE), V4L2_AUTO_FOCUS_RANGE_MACRO);
    device->setAutoFocusRangeRestriction(AVCaptureAutoFocusRangeRestrictionFar);
    EXPECT_EQ(fake->control(kNode, V4L2_CID_AUTO_FOCUS_RANGE), V4L2_AUTO_FOCUS_RANGE_INFINITY);
    // Single focus: continuous focus off, then a focus run.
    const size_t before = fake->controlLog(kNode).size();
    device->setFocusMode(AVCaptureFocusModeAutoFocus);
    auto log = fake->controlLog(kNode);
    ASSERT_EQ(log.size(), before + 2);
    EXPECT_EQ(log[before], (std::pair<uint32_t, int32_t>{V4L2_CID_FOCUS_AUTO, 0}));
    EXPECT_EQ(log[before + 1], (std::pair<uint32_t, int32_t>{V4L2_CID_AUTO_FOCUS_START, 1}));
    device->setFocusMode(AVCaptureFocusModeContinuousAutoFocus);
    EXPECT_EQ(fake->control(kNode, V4L2_CID_FOCUS_AUTO), 1);
    device->setWhiteBalanceMode(AVCaptureWhiteBalanceModeLocked);
    EXPECT_EQ(fake->control(kNode, V4L2_CID_AUTO_WHITE_BALANCE), 0);
    device->setExposureMode(AVCaptureExposureModeLocked);
    EXPECT_EQ(fake->control(kNode, V4L2_CID_EXPOSURE_AUTO), V4L2_EXPOSURE_MANUAL);
    device->setExposureMode(AVCaptureExposureModeContinuousAutoExposure);
    EXPECT_EQ(fake->control(kNode, V4L2_CID_EXPOSURE_AUTO), V4L2_EXPOSURE_APERTURE_PRIORITY)
        << "full auto is out of range, aperture priority is the webcam's automatic mode";
    ASSERT_TRUE(device->setTorchModeOnWithLevel(0.5F));
    EXPECT_EQ(fake->control(kNode, V4L2_CID_FLASH_TORCH_INTENSITY), 50);
    EXPECT_EQ(fake->control(kNode, V4L2_CID_FLASH_LED_MODE), V4L2_FLASH_LED_MODE_TORCH);
    device->setTorchMode(AVCaptureTorchModeOff);
    EXPECT_EQ(fake->control(kNode, V4L2_CID_FLASH_LED_MODE), V4L2_FLASH_LED_MODE_NONE);
    device->setFlashMode(AVCaptureFlashModeOn);
    EXPECT_EQ(fake->control(kNode, V4L2_CID_FLASH_LED_MODE), V4L2_FLASH_LED_MODE_FLASH);
    device->unlockForConfiguration();
}

TEST(V4L2Camera, StreamsYUYVAndMJPEGAndReportsAVanishingDevice) {
    kptest::ManualMainQueue main;
    auto fake = std::make_shared<FakeV4L2>();
    fake->addNode(webcam());
    auto device = std::make_shared<AVCaptureDevice>(V4L2Camera::open(fake, kNode), AVCaptureDevicePositionFront);
    auto session = AVCaptureSession::create();
    auto output = AVCaptureVideoDataOutput::create();
    auto frames = std::make_shared<Frames>();
    auto queue = dispatch_queue_create("VideoDataOutputQueue", DISPATCH_QUEUE_SERIAL);
    output->setVideoSettings({{kCVPixelBufferPixelFormatTypeKey, kCVPixelFormatType_32BGRA}});
    output->setSampleBufferDelegate(frames, queue);
    session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
    session->addOutput(output);
    std::vector<int64_t> errors;
    session->setRuntimeErrorHandler([&](const NSErrorRef& e) { errors.push_back(e->code()); });

    // Small frames come as YUYV.
    session->setSessionPreset(AVCaptureSessionPreset640x480);
    session->startRunning();
    ASSERT_TRUE(session->isRunning());
    EXPECT_EQ(fake->lastFormat(kNode).fourcc, V4L2_PIX_FMT_YUYV);
    EXPECT_TRUE(fake->isStreaming(kNode));
    fake->pushFrame(kNode, yuyv(640, 480, 235)); // limited-range white
    ASSERT_TRUE(main.drainUntil([&] { return frames->count() == 1; }));
    EXPECT_EQ(CVPixelBufferGetWidth(CMSampleBufferGetImageBuffer(frames->samples[0])), 640U);
    for (int c : centre(frames->samples[0])) {
        EXPECT_GE(c, 250);
    }

    // Large frames come as MJPEG and are decoded.
    session->setSessionPreset(AVCaptureSessionPreset1280x720);
    EXPECT_EQ(fake->lastFormat(kNode).fourcc, V4L2_PIX_FMT_MJPEG);
    EXPECT_EQ(fake->lastFormat(kNode).width, 1280U);
    fake->pushFrame(kNode, jpeg(1280, 720, 100));
    ASSERT_TRUE(main.drainUntil([&] { return frames->count() == 2; }));
    EXPECT_EQ(CVPixelBufferGetWidth(CMSampleBufferGetImageBuffer(frames->samples[1])), 1280U);
    for (int c : centre(frames->samples[1])) {
        EXPECT_NEAR(c, 100, 3);
    }
    // A corrupt MJPEG frame is skipped, the stream goes on.
    fake->pushFrame(kNode, std::vector<uint8_t>(1000, 0x55));
    fake->pushFrame(kNode, jpeg(1280, 720, 200));
    ASSERT_TRUE(main.drainUntil([&] { return frames->count() == 3; }));

    // The device vanishes: frames stop, the session reports it and stops, nothing crashes.
    fake->vanish(kNode);
    ASSERT_TRUE(main.drainUntil([&] { return !errors.empty(); }));
    EXPECT_EQ(errors, (std::vector<int64_t>{AVErrorDeviceWasDisconnected}));
    EXPECT_FALSE(session->isRunning());
    EXPECT_FALSE(device->isConnected());
    dispatch_sync(queue, [] {});
    EXPECT_EQ(frames->count(), 3U);
    EXPECT_EQ(fake->mappedBuffers(), 0U) << "buffers are unmapped when the stream ends";
    session->startRunning();
    EXPECT_FALSE(session->isRunning()) << "a gone camera cannot start";
}

TEST(V4L2Camera, RealWebcamDeliversAFrame) {
    const auto nodes = V4L2Camera::scan(V4L2Interface::system(), "/dev");
    if (nodes.empty()) {
        GTEST_SKIP() << "no V4L2 capture device on this machine";
    }
    kptest::ManualMainQueue main;
    auto camera = V4L2Camera::open(V4L2Interface::system(), nodes.front());
    ASSERT_TRUE(camera);
    auto device = std::make_shared<AVCaptureDevice>(camera, AVCaptureDevicePositionFront);
    auto session = AVCaptureSession::create();
    auto output = AVCaptureVideoDataOutput::create();
    auto frames = std::make_shared<Frames>();
    output->setSampleBufferDelegate(frames, dispatch_queue_create("VideoDataOutputQueue", nullptr));
    session->setSessionPreset(AVCaptureSessionPreset640x480);
    session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
    session->addOutput(output);
    session->startRunning();
    ASSERT_TRUE(main.drainUntil([&] { return frames->count() > 0; }, 10.0));
    session->stopRunning();
    EXPECT_GT(CVPixelBufferGetWidth(CMSampleBufferGetImageBuffer(frames->samples[0])), 0U);
}
