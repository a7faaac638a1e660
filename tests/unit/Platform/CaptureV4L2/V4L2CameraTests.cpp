// SPDX-License-Identifier: MIT
// The V4L2 back-end against a fake kernel (format and frame-rate negotiation, controls and their read-back, single
// auto-focus, streaming in every format, driver time stamps, failing calls, a vanishing device).
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

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <functional>
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
    node.controls = {{V4L2_CID_FOCUS_AUTO, {0, 1, 1, V4L2_CTRL_TYPE_BOOLEAN}},
                     {V4L2_CID_AUTO_FOCUS_START, {0, 1, 0, V4L2_CTRL_TYPE_BUTTON}},
                     {V4L2_CID_AUTO_FOCUS_RANGE, {0, 3, 0, V4L2_CTRL_TYPE_MENU}},
                     {V4L2_CID_AUTO_WHITE_BALANCE, {0, 1, 1, V4L2_CTRL_TYPE_BOOLEAN}},
                     // only manual and aperture priority, like most webcams
                     {V4L2_CID_EXPOSURE_AUTO, {1, 3, 3, V4L2_CTRL_TYPE_MENU}},
                     {V4L2_CID_FLASH_LED_MODE, {0, 2, 0, V4L2_CTRL_TYPE_MENU}},
                     {V4L2_CID_FLASH_TORCH_INTENSITY, {0, 100, 0, V4L2_CTRL_TYPE_INTEGER, 25}},
                     {V4L2_CID_FLASH_STROBE, {0, 1, 0, V4L2_CTRL_TYPE_BUTTON}}};
    return node;
}

// A USB webcam: continuous focus that can be switched off, but no focus trigger.
FakeV4L2::Node uvcWebcam() {
    FakeV4L2::Node node;
    node.path = kNode;
    node.card = "Fake USB Webcam";
    node.sizes = {{V4L2_PIX_FMT_YUYV, 320, 240}};
    node.controls = {{V4L2_CID_FOCUS_AUTO, {0, 1, 1, V4L2_CTRL_TYPE_BOOLEAN}},
                     {V4L2_CID_AUTO_WHITE_BALANCE, {0, 1, 1, V4L2_CTRL_TYPE_BOOLEAN}}};
    return node;
}

// Limited-range BT.601 colours.
struct Yuv {
    uint8_t y, u, v;
};
constexpr Yuv kRed{81, 90, 240};
constexpr Yuv kBlue{41, 240, 110};

// A frame whose left half is one colour and right half another, in a packed 4:2:2 layout (YUYV or UYVY) or NV12;
// padding bytes at the end of each row are junk.
std::vector<uint8_t> picture(uint32_t fourcc, uint32_t width, uint32_t height, uint32_t stride, Yuv left, Yuv right) {
    const bool nv12 = fourcc == V4L2_PIX_FMT_NV12;
    std::vector<uint8_t> bytes(static_cast<size_t>(stride) * (nv12 ? height + height / 2 : height), 0xEE);
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; x += 2) {
            const Yuv& c = x < width / 2 ? left : right;
            uint8_t* p = bytes.data() + static_cast<size_t>(y) * stride;
            if (nv12) {
                p[x] = p[x + 1] = c.y;
                if (y % 2 == 0) {
                    uint8_t* uv = bytes.data() + static_cast<size_t>(stride) * (height + y / 2) + x;
                    uv[0] = c.u;
                    uv[1] = c.v;
                }
            } else if (fourcc == V4L2_PIX_FMT_UYVY) {
                const uint8_t quad[4] = {c.u, c.y, c.v, c.y};
                std::copy(quad, quad + 4, p + x * 2);
            } else {
                const uint8_t quad[4] = {c.y, c.u, c.y, c.v};
                std::copy(quad, quad + 4, p + x * 2);
            }
        }
    }
    return bytes;
}

std::vector<uint8_t> yuyv(uint32_t width, uint32_t height, uint8_t luma) {
    return picture(V4L2_PIX_FMT_YUYV, width, height, width * 2, {luma, 128, 128}, {luma, 128, 128});
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

// B, G, R of a BGRA frame's pixel, or Y, Cb, Cr of a '420f' frame's pixel.
std::array<int, 3> pixel(const CMSampleBufferRef& sample, size_t x, size_t y) {
    auto pixels = CMSampleBufferGetImageBuffer(sample);
    CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    std::array<int, 3> out{};
    if (CVPixelBufferGetPixelFormatType(pixels) == kCVPixelFormatType_32BGRA) {
        const auto* p = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddress(pixels)) +
                        y * CVPixelBufferGetBytesPerRow(pixels) + x * 4;
        out = {p[0], p[1], p[2]};
    } else {
        const auto* luma = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(pixels, 0));
        const auto* chroma = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(pixels, 1)) +
                             (y / 2) * CVPixelBufferGetBytesPerRowOfPlane(pixels, 1) + (x / 2) * 2;
        out = {luma[y * CVPixelBufferGetBytesPerRowOfPlane(pixels, 0) + x], chroma[0], chroma[1]};
    }
    CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    return out;
}

std::array<int, 3> centre(const CMSampleBufferRef& sample) {
    auto pixels = CMSampleBufferGetImageBuffer(sample);
    return pixel(sample, pixels->width() / 2, pixels->height() / 2);
}

void expectNear(const std::array<int, 3>& actual, const std::array<int, 3>& expected, int tolerance, const char* what) {
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_NEAR(actual[i], expected[i], tolerance) << what << ", component " << i;
    }
}

// One camera of the fake kernel streaming through a session into a frame collector; runtime errors collected on
// the main queue.
struct Rig {
    explicit Rig(const std::shared_ptr<FakeV4L2>& fake, const std::string& path = kNode,
                 OSType pixelFormat = kCVPixelFormatType_32BGRA)
        : camera(V4L2Camera::open(fake, path)),
          device(std::make_shared<AVCaptureDevice>(camera, AVCaptureDevicePositionFront)),
          session(AVCaptureSession::create()), output(AVCaptureVideoDataOutput::create()),
          frames(std::make_shared<Frames>()), queue(dispatch_queue_create("VideoDataOutputQueue", nullptr)) {
        output->setVideoSettings({{kCVPixelBufferPixelFormatTypeKey, pixelFormat}});
        output->setSampleBufferDelegate(frames, queue);
        session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
        session->addOutput(output);
        session->setRuntimeErrorHandler([this](const NSErrorRef& e) { errors.push_back(e->code()); });
    }
    ~Rig() { session->stopRunning(); }
    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;

    std::shared_ptr<V4L2Camera> camera;
    AVCaptureDevice::Ref device;
    std::shared_ptr<AVCaptureSession> session;
    std::shared_ptr<AVCaptureVideoDataOutput> output;
    std::shared_ptr<Frames> frames;
    dispatch_queue_t queue;
    std::vector<int64_t> errors;
};

// The values written to one control, in order.
std::vector<int32_t> writes(const FakeV4L2& fake, uint32_t id) {
    std::vector<int32_t> out;
    for (const auto& [control, value] : fake.controlLog(kNode)) {
        if (control == id) {
            out.push_back(value);
        }
    }
    return out;
}

class Sink final : public CaptureFrameSink {
public:
    void didCaptureFrame(const CMSampleBufferRef&) override {}
    void didFailWithError(const NSErrorRef&) override {}
};

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
    // Known sizes as they are; larger ones fall back to the largest there is.
    for (const auto& [preset, format] : std::vector<std::pair<AVCaptureSessionPreset, CaptureFormat>>{
             {AVCaptureSessionPreset1280x720, {1280, 720}},
             {AVCaptureSessionPresetLow, {320, 240}},
             {AVCaptureSessionPresetMedium, {640, 480}},
             {AVCaptureSessionPreset1920x1080, {1280, 720}}}) {
        EXPECT_EQ(camera->formatForPreset(preset), format) << preset;
    }
    EXPECT_EQ(camera->formatForPreset("nonsense"), (CaptureFormat{}));

    const auto caps = camera->capabilities();
    EXPECT_EQ(caps.focusModes, (std::vector<AVCaptureFocusMode>{AVCaptureFocusModeLocked, AVCaptureFocusModeAutoFocus,
                                                                AVCaptureFocusModeContinuousAutoFocus}));
    EXPECT_TRUE(caps.autoFocusRangeRestriction);
}

TEST(V4L2Camera, ControlsMapToV4L2AreReadBackAndFailedWritesRetried) {
    auto fake = std::make_shared<FakeV4L2>();
    fake->addNode(webcam());
    auto camera = V4L2Camera::open(fake, kNode);
    auto device = std::make_shared<AVCaptureDevice>(camera, AVCaptureDevicePositionBack);
    EXPECT_EQ(camera->controlValue(V4L2_CID_AUTO_WHITE_BALANCE), 1) << "values are read when the camera opens";
    EXPECT_EQ(camera->controlValue(V4L2_CID_AUTO_FOCUS_START), std::nullopt) << "a trigger holds no value";

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
    // Single focus: continuous focus off, then one focus run per request; other controls do not refocus.
    const size_t before = fake->controlLog(kNode).size();
    device->setFocusMode(AVCaptureFocusModeAutoFocus);
    auto log = fake->controlLog(kNode);
    ASSERT_EQ(log.size(), before + 2);
    EXPECT_EQ(log[before], (std::pair<uint32_t, int32_t>{V4L2_CID_FOCUS_AUTO, 0}));
    EXPECT_EQ(log[before + 1], (std::pair<uint32_t, int32_t>{V4L2_CID_AUTO_FOCUS_START, 1}));
    device->setWhiteBalanceMode(AVCaptureWhiteBalanceModeLocked);
    EXPECT_EQ(fake->control(kNode, V4L2_CID_AUTO_WHITE_BALANCE), 0);
    device->setExposureMode(AVCaptureExposureModeLocked);
    EXPECT_EQ(fake->control(kNode, V4L2_CID_EXPOSURE_AUTO), V4L2_EXPOSURE_MANUAL);
    EXPECT_EQ(writes(*fake, V4L2_CID_AUTO_FOCUS_START).size(), 1U);
    device->setFocusMode(AVCaptureFocusModeAutoFocus);
    EXPECT_EQ(writes(*fake, V4L2_CID_AUTO_FOCUS_START).size(), 2U) << "the focus timer's next request";
    device->setFocusMode(AVCaptureFocusModeContinuousAutoFocus);
    EXPECT_EQ(fake->control(kNode, V4L2_CID_FOCUS_AUTO), 1);
    device->setWhiteBalanceMode(AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance);
    EXPECT_EQ(fake->control(kNode, V4L2_CID_AUTO_WHITE_BALANCE), 1);
    device->setExposureMode(AVCaptureExposureModeContinuousAutoExposure);
    EXPECT_EQ(fake->control(kNode, V4L2_CID_EXPOSURE_AUTO), V4L2_EXPOSURE_APERTURE_PRIORITY)
        << "full auto is out of range, aperture priority is the webcam's automatic mode";

    // The driver rounds the intensity to its step; the camera keeps what the device holds.
    ASSERT_TRUE(device->setTorchModeOnWithLevel(0.6F));
    EXPECT_EQ(fake->control(kNode, V4L2_CID_FLASH_TORCH_INTENSITY), 60);
    EXPECT_EQ(camera->controlValue(V4L2_CID_FLASH_TORCH_INTENSITY), 50);
    EXPECT_EQ(camera->controlValue(V4L2_CID_FLASH_LED_MODE), V4L2_FLASH_LED_MODE_TORCH);

    // A control write that fails with EIO leaves the camera connected, and the change is written again with the
    // next one.
    fake->failIoctl(kNode, VIDIOC_S_CTRL, EIO);
    device->setTorchMode(AVCaptureTorchModeOff);
    EXPECT_TRUE(device->isConnected());
    EXPECT_EQ(fake->deviceValue(kNode, V4L2_CID_FLASH_LED_MODE), V4L2_FLASH_LED_MODE_TORCH);
    EXPECT_EQ(camera->controlValue(V4L2_CID_FLASH_LED_MODE), V4L2_FLASH_LED_MODE_TORCH) << "read back after failing";
    device->setWhiteBalanceMode(AVCaptureWhiteBalanceModeLocked);
    EXPECT_EQ(fake->deviceValue(kNode, V4L2_CID_FLASH_LED_MODE), V4L2_FLASH_LED_MODE_NONE);
    EXPECT_EQ(writes(*fake, V4L2_CID_AUTO_FOCUS_START).size(), 2U);
    device->setFlashMode(AVCaptureFlashModeOn);
    EXPECT_EQ(fake->control(kNode, V4L2_CID_FLASH_LED_MODE), V4L2_FLASH_LED_MODE_FLASH);

    // Only a vanished device is disconnected.
    fake->failIoctl(kNode, VIDIOC_S_CTRL, ENODEV);
    device->setWhiteBalanceMode(AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance);
    EXPECT_FALSE(device->isConnected());
    device->unlockForConfiguration();
}

TEST(V4L2Camera, StreamsYUYVAndMJPEGAndReportsAVanishingDevice) {
    kptest::ManualMainQueue main;
    auto fake = std::make_shared<FakeV4L2>();
    fake->addNode(webcam());
    Rig rig(fake);
    auto& [camera, device, session, output, frames, queue, errors] = rig;

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

TEST(V4L2Camera, EmulatesSingleAutoFocusWithoutAFocusTrigger) {
    kptest::ManualMainQueue main;
    auto fake = std::make_shared<FakeV4L2>();
    fake->addNode(uvcWebcam());
    Rig rig(fake);
    EXPECT_TRUE(rig.device->isFocusModeSupported(AVCaptureFocusModeAutoFocus));
    rig.camera->setFocusSettleTime(std::chrono::milliseconds(20));
    ASSERT_TRUE(rig.device->lockForConfiguration());

    // Before streaming the lens cannot focus: continuous focus goes on and stays on until it can.
    rig.device->setFocusMode(AVCaptureFocusModeAutoFocus);
    const auto focus = [&] { return writes(*fake, V4L2_CID_FOCUS_AUTO); };
    EXPECT_EQ(focus(), (std::vector<int32_t>{1}));
    rig.session->setSessionPreset(AVCaptureSessionPresetLow);
    rig.session->startRunning();
    ASSERT_TRUE(rig.session->isRunning());
    ASSERT_TRUE(main.drainUntil([&] { return focus().size() == 2; }));
    EXPECT_EQ(focus(), (std::vector<int32_t>{1, 0})) << "focus found, the lens is locked";

    // The next request focuses again; other controls leave focus alone.
    rig.device->setFocusMode(AVCaptureFocusModeAutoFocus);
    ASSERT_TRUE(main.drainUntil([&] { return focus().size() == 4; }));
    EXPECT_EQ(focus(), (std::vector<int32_t>{1, 0, 1, 0}));
    rig.device->setWhiteBalanceMode(AVCaptureWhiteBalanceModeLocked);
    EXPECT_EQ(focus().size(), 4U);
    EXPECT_EQ(rig.camera->controlValue(V4L2_CID_FOCUS_AUTO), 0);

    // Continuous focus stays on.
    rig.device->setFocusMode(AVCaptureFocusModeContinuousAutoFocus);
    rig.session->stopRunning();
    EXPECT_EQ(focus(), (std::vector<int32_t>{1, 0, 1, 0, 1}));
    rig.device->unlockForConfiguration();
}

TEST(V4L2Camera, TransientStreamErrorsAreSurvivedAndNoBufferIsLost) {
    kptest::ManualMainQueue main;
    auto fake = std::make_shared<FakeV4L2>();
    fake->addNode(webcam());
    Rig rig(fake);
    rig.session->setSessionPreset(AVCaptureSessionPreset640x480);
    rig.session->startRunning();
    ASSERT_TRUE(rig.session->isRunning());
    size_t expected = 0;
    const auto frameArrives = [&] {
        fake->pushFrame(kNode, yuyv(640, 480, 128));
        ++expected;
        return main.drainUntil([&] { return rig.frames->count() == expected; });
    };

    // A wake-up without a frame, and a dequeue that fails now and then.
    fake->failIoctl(kNode, VIDIOC_DQBUF, EAGAIN, 3);
    EXPECT_TRUE(frameArrives());
    fake->failIoctl(kNode, VIDIOC_DQBUF, EIO, 3);
    EXPECT_TRUE(frameArrives());

    // Re-queues that fail once, for every buffer in turn: each buffer goes back to the driver later.
    for (int i = 0; i < 6; ++i) {
        fake->failIoctl(kNode, VIDIOC_QBUF, i % 2 == 0 ? EIO : EINVAL);
        EXPECT_TRUE(frameArrives()) << i;
    }
    EXPECT_TRUE(main.drainUntil([&] { return fake->queuedBuffers(kNode) == 4; }));
    EXPECT_TRUE(frameArrives());
    EXPECT_TRUE(rig.device->isConnected());
    EXPECT_TRUE(rig.session->isRunning());
    main.drain();
    EXPECT_TRUE(rig.errors.empty());
}

TEST(V4L2Camera, LastingStreamErrorsAndPollErrorsEndTheStream) {
    kptest::ManualMainQueue main;
    auto fake = std::make_shared<FakeV4L2>();
    int cameras = 0;
    const auto expectLost = [&](const std::function<void(const std::string& path)>& fault) {
        auto node = webcam();
        node.path = "/fake/video" + std::to_string(cameras++);
        fake->addNode(node);
        Rig rig(fake, node.path);
        rig.session->setSessionPreset(AVCaptureSessionPreset640x480);
        rig.session->startRunning();
        ASSERT_TRUE(rig.session->isRunning());
        fault(node.path);
        for (int i = 0; i < 8; ++i) {
            fake->pushFrame(node.path, yuyv(640, 480, 128));
        }
        ASSERT_TRUE(main.drainUntil([&] { return !rig.errors.empty(); }));
        EXPECT_EQ(rig.errors, (std::vector<int64_t>{AVErrorDeviceWasDisconnected}));
        EXPECT_FALSE(rig.device->isConnected());
        EXPECT_FALSE(rig.session->isRunning());
        EXPECT_EQ(fake->mappedBuffers(), 0U);
    };
    expectLost([&](const std::string& path) { fake->failIoctl(path, VIDIOC_DQBUF, EIO, -1); });
    // Buffers never go back to the driver: the stream does not starve silently.
    expectLost([&](const std::string& path) { fake->failIoctl(path, VIDIOC_QBUF, EINVAL, -1); });
    expectLost([&](const std::string& path) { fake->failPoll(path); });
}

TEST(V4L2Camera, StartReportsWhyTheCameraGaveNoBuffers) {
    auto fake = std::make_shared<FakeV4L2>();
    auto node = webcam();
    node.maxBuffers = 0;
    fake->addNode(node);
    auto camera = V4L2Camera::open(fake, kNode);
    const CaptureStreamRequest request{{640, 480}, kCVPixelFormatType_32BGRA};
    const auto sink = std::make_shared<Sink>();

    errno = EIO; // left over from an earlier call: not this failure's cause
    auto error = camera->startStream(request, sink);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), AVErrorOutOfMemory);
    EXPECT_TRUE(camera->isConnected());

    fake->failIoctl(kNode, VIDIOC_REQBUFS, EBUSY);
    error = camera->startStream(request, sink);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), AVErrorDeviceAlreadyUsedByAnotherSession);
    EXPECT_TRUE(camera->isConnected());

    fake->failIoctl(kNode, VIDIOC_REQBUFS, ENODEV);
    error = camera->startStream(request, sink);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), AVErrorDeviceWasDisconnected);
    EXPECT_FALSE(camera->isConnected());
}

TEST(V4L2Camera, ConvertsUYVYAndNV12WithTheDriversTimeStampsAndFrameRate) {
    kptest::ManualMainQueue main;
    auto fake = std::make_shared<FakeV4L2>();
    FakeV4L2::Node uyvy;
    uyvy.path = kNode;
    uyvy.sizes = {{V4L2_PIX_FMT_UYVY, 320, 240}};
    uyvy.frameRates = {15, 25, 60};
    fake->addNode(uyvy);
    FakeV4L2::Node nv12;
    nv12.path = "/fake/video1";
    nv12.sizes = {{V4L2_PIX_FMT_NV12, 640, 480}, {V4L2_PIX_FMT_NV12, 1280, 720}};
    nv12.rowPadding = 64;
    nv12.monotonicTimestamps = false;
    fake->addNode(nv12);

    // UYVY to BGRA, stamped with the driver's monotonic time, at the nearest frame rate to 30.
    {
        Rig rig(fake);
        rig.session->setSessionPreset(AVCaptureSessionPresetLow);
        rig.session->startRunning();
        ASSERT_TRUE(rig.session->isRunning());
        EXPECT_EQ(fake->lastFormat(kNode).fourcc, V4L2_PIX_FMT_UYVY);
        EXPECT_EQ(fake->frameRate(kNode), 25U);
        fake->pushFrame(kNode, picture(V4L2_PIX_FMT_UYVY, 320, 240, 640, kRed, kBlue), timeval{5, 250000});
        ASSERT_TRUE(main.drainUntil([&] { return rig.frames->count() == 1; }));
        const auto& sample = rig.frames->samples[0];
        expectNear(pixel(sample, 80, 120), {0, 0, 254}, 3, "red");
        expectNear(pixel(sample, 240, 120), {255, 0, 0}, 3, "blue");
        const CMTime stamp = CMSampleBufferGetPresentationTimeStamp(sample);
        EXPECT_EQ(CMTimeCompare(stamp, CMTimeMake(5250000000, 1000000000)), 0) << CMTimeGetSeconds(stamp);
        EXPECT_EQ(CMTimeCompare(CMSampleBufferGetDuration(sample), CMTimeMake(1, 25)), 0);
    }

    // NV12 with padded rows, large frames included, to '420f' (full range); without driver time stamps the
    // host time of arrival.
    Rig rig(fake, "/fake/video1", kCVPixelFormatType_420YpCbCr8BiPlanarFullRange);
    rig.session->setSessionPreset(AVCaptureSessionPreset1280x720);
    rig.session->startRunning();
    ASSERT_TRUE(rig.session->isRunning());
    EXPECT_EQ(fake->lastFormat("/fake/video1").fourcc, V4L2_PIX_FMT_NV12);
    const CMTime before = CMClockGetHostTimeNow();
    fake->pushFrame("/fake/video1", picture(V4L2_PIX_FMT_NV12, 1280, 720, 1280 + 64, kRed, kBlue), timeval{5, 0});
    ASSERT_TRUE(main.drainUntil([&] { return rig.frames->count() == 1; }));
    const auto& sample = rig.frames->samples[0];
    expectNear(pixel(sample, 320, 360), {76, 85, 255}, 2, "red");
    expectNear(pixel(sample, 960, 360), {29, 255, 107}, 2, "blue");
    EXPECT_GE(CMTimeCompare(CMSampleBufferGetPresentationTimeStamp(sample), before), 0);
    EXPECT_EQ(CMTimeCompare(CMSampleBufferGetDuration(sample), CMTimeMake(1, 30)), 0);
}
