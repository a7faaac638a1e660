// SPDX-License-Identifier: MIT
// The V4L2 back-end against a fake kernel: probing, format and control mapping, single auto-focus, streaming in
// every format with the driver's time stamps, failing calls and a vanishing device.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "Platform/Capture/V4L2Camera.h"
#include "support/FakeCaptureDevice.h"
#include "support/FakeV4L2.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <turbojpeg.h>

#include <array>
#include <chrono>
#include <functional>
#include <mutex>

using namespace kp;
using kptest::FakeV4L2;

namespace {

const std::string kNode = "/fake/video0";
const std::vector<FakeV4L2::FrameSize> kWebcamSizes = {{V4L2_PIX_FMT_YUYV, 640, 480},
                                                       {V4L2_PIX_FMT_YUYV, 320, 240},
                                                       {V4L2_PIX_FMT_MJPEG, 640, 480},
                                                       {V4L2_PIX_FMT_MJPEG, 1280, 720}};

FakeV4L2::Node webcam(const std::string& path = kNode) {
    FakeV4L2::Node node;
    node.path = path;
    node.card = "Fake HD Webcam";
    node.sizes = kWebcamSizes;
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

// Limited-range BT.601 colours.
struct Yuv {
    uint8_t y, u, v;
};
constexpr Yuv kRed{81, 90, 240};
constexpr Yuv kBlue{41, 240, 110};

// A frame whose left half is red and right half blue, packed 4:2:2 (YUYV or UYVY) or NV12, with junk padding.
std::vector<uint8_t> picture(uint32_t fourcc, uint32_t width, uint32_t height, uint32_t stride) {
    const bool nv12 = fourcc == V4L2_PIX_FMT_NV12;
    std::vector<uint8_t> bytes(static_cast<size_t>(stride) * (nv12 ? height + height / 2 : height), 0xEE);
    for (uint32_t y = 0; y < height; ++y) {
        uint8_t* p = bytes.data() + static_cast<size_t>(y) * stride;
        for (uint32_t x = 0; x < width; x += 2) {
            const Yuv& c = x < width / 2 ? kRed : kBlue;
            if (nv12) {
                p[x] = p[x + 1] = c.y;
                if (y % 2 == 0) {
                    uint8_t* uv = bytes.data() + static_cast<size_t>(stride) * (height + y / 2) + x;
                    uv[0] = c.u;
                    uv[1] = c.v;
                }
            } else {
                const std::array<uint8_t, 4> quad = fourcc == V4L2_PIX_FMT_UYVY
                                                        ? std::array<uint8_t, 4>{c.u, c.y, c.v, c.y}
                                                        : std::array<uint8_t, 4>{c.y, c.u, c.y, c.v};
                std::copy(quad.begin(), quad.end(), p + x * 2);
            }
        }
    }
    return bytes;
}

std::vector<uint8_t> jpeg(int width, int height, uint8_t level) {
    std::vector<uint8_t> pixels(static_cast<size_t>(width) * height, level);
    tjhandle handle = tjInitCompress();
    unsigned char* out = nullptr;
    unsigned long size = 0;
    tjCompress2(handle, pixels.data(), width, 0, height, TJPF_GRAY, &out, &size, TJSAMP_GRAY, 90, 0);
    std::vector<uint8_t> bytes(out, out + size);
    tjFree(out);
    tjDestroy(handle);
    return bytes;
}

using kptest::SampleList;

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

// One camera of the fake kernel streaming through a session into a frame collector; runtime errors collected on
// the main queue.
struct V4L2Rig {
    explicit V4L2Rig(const std::shared_ptr<FakeV4L2>& fake, const std::string& path = kNode,
                 OSType pixelFormat = kCVPixelFormatType_32BGRA)
        : camera(V4L2Camera::open(fake, path)),
          device(std::make_shared<AVCaptureDevice>(camera, AVCaptureDevicePositionFront)) {
        output->setVideoSettings({{kCVPixelBufferPixelFormatTypeKey, pixelFormat}});
        output->setSampleBufferDelegate(frames, queue);
        session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
        session->addOutput(output);
        session->setRuntimeErrorHandler([this](const NSErrorRef& e) { errors.push_back(e->code()); });
    }
    ~V4L2Rig() { session->stopRunning(); }
    void start(const AVCaptureSessionPreset& preset) {
        session->setSessionPreset(preset);
        session->startRunning();
        ASSERT_TRUE(session->isRunning());
    }

    std::shared_ptr<V4L2Camera> camera;
    AVCaptureDevice::Ref device;
    std::shared_ptr<AVCaptureSession> session = AVCaptureSession::create();
    std::shared_ptr<AVCaptureVideoDataOutput> output = AVCaptureVideoDataOutput::create();
    std::shared_ptr<SampleList> frames = std::make_shared<SampleList>();
    dispatch_queue_t queue = dispatch_queue_create("VideoDataOutputQueue", nullptr);
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
    EXPECT_EQ(camera->formatForPreset(AVCaptureSessionPreset1280x720), (CaptureFormat{1280, 720}));
    EXPECT_EQ(camera->formatForPreset(AVCaptureSessionPresetLow), (CaptureFormat{320, 240}));
    EXPECT_EQ(camera->formatForPreset(AVCaptureSessionPresetMedium), (CaptureFormat{640, 480}));
    EXPECT_EQ(camera->formatForPreset(AVCaptureSessionPreset1920x1080), (CaptureFormat{1280, 720}));
    EXPECT_EQ(camera->formatForPreset("nonsense"), (CaptureFormat{}));
    EXPECT_EQ(camera->capabilities().focusModes,
              (std::vector<AVCaptureFocusMode>{AVCaptureFocusModeLocked, AVCaptureFocusModeAutoFocus,
                                               AVCaptureFocusModeContinuousAutoFocus}));
    EXPECT_TRUE(camera->capabilities().autoFocusRangeRestriction);
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

    const auto written = [&](uint32_t control) { return fake->control(kNode, control); };
    device->setAutoFocusRangeRestriction(AVCaptureAutoFocusRangeRestrictionNear);
    EXPECT_EQ(written(V4L2_CID_AUTO_FOCUS_RANGE), V4L2_AUTO_FOCUS_RANGE_MACRO);
    device->setAutoFocusRangeRestriction(AVCaptureAutoFocusRangeRestrictionFar);
    EXPECT_EQ(written(V4L2_CID_AUTO_FOCUS_RANGE), V4L2_AUTO_FOCUS_RANGE_INFINITY);
    device->setWhiteBalanceMode(AVCaptureWhiteBalanceModeLocked);
    EXPECT_EQ(written(V4L2_CID_AUTO_WHITE_BALANCE), 0);
    device->setExposureMode(AVCaptureExposureModeLocked);
    EXPECT_EQ(written(V4L2_CID_EXPOSURE_AUTO), V4L2_EXPOSURE_MANUAL);
    device->setWhiteBalanceMode(AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance);
    EXPECT_EQ(written(V4L2_CID_AUTO_WHITE_BALANCE), 1);
    device->setExposureMode(AVCaptureExposureModeContinuousAutoExposure);
    EXPECT_EQ(written(V4L2_CID_EXPOSURE_AUTO), V4L2_EXPOSURE_APERTURE_PRIORITY) << "full auto is out of range";
    // Single focus: continuous focus off, then one focus run per request; other controls do not refocus.
    const size_t before = fake->controlLog(kNode).size();
    device->setFocusMode(AVCaptureFocusModeAutoFocus);
    const auto log = fake->controlLog(kNode);
    ASSERT_EQ(log.size(), before + 2);
    EXPECT_EQ(log[before], (std::pair<uint32_t, int32_t>{V4L2_CID_FOCUS_AUTO, 0}));
    EXPECT_EQ(log[before + 1], (std::pair<uint32_t, int32_t>{V4L2_CID_AUTO_FOCUS_START, 1}));
    EXPECT_EQ(writes(*fake, V4L2_CID_AUTO_FOCUS_START).size(), 1U);

    // The driver rounds the intensity to its step; the camera keeps what the device holds.
    ASSERT_TRUE(device->setTorchModeOnWithLevel(0.6F));
    EXPECT_EQ(written(V4L2_CID_FLASH_TORCH_INTENSITY), 60);
    EXPECT_EQ(camera->controlValue(V4L2_CID_FLASH_TORCH_INTENSITY), 50);
    // A write that fails with EIO leaves the camera connected; the change is written again with the next one.
    fake->failIoctl(kNode, VIDIOC_S_CTRL, EIO);
    device->setTorchMode(AVCaptureTorchModeOff);
    EXPECT_TRUE(device->isConnected());
    EXPECT_EQ(camera->controlValue(V4L2_CID_FLASH_LED_MODE), V4L2_FLASH_LED_MODE_TORCH) << "read back after failing";
    device->setWhiteBalanceMode(AVCaptureWhiteBalanceModeLocked);
    EXPECT_EQ(written(V4L2_CID_FLASH_LED_MODE), V4L2_FLASH_LED_MODE_NONE);
    EXPECT_EQ(writes(*fake, V4L2_CID_AUTO_FOCUS_START).size(), 1U);
    device->setFlashMode(AVCaptureFlashModeOn);
    EXPECT_EQ(written(V4L2_CID_FLASH_LED_MODE), V4L2_FLASH_LED_MODE_FLASH);
    // Only a vanished device is disconnected.
    fake->failIoctl(kNode, VIDIOC_S_CTRL, ENODEV);
    device->setWhiteBalanceMode(AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance);
    EXPECT_FALSE(device->isConnected());
    device->unlockForConfiguration();
}

TEST(V4L2Camera, EmulatesSingleAutoFocusWithoutAFocusTrigger) {
    // A USB webcam: continuous focus that can be switched off, but no focus trigger.
    kptest::ManualMainQueue main;
    auto fake = std::make_shared<FakeV4L2>();
    FakeV4L2::Node node;
    node.path = kNode;
    node.sizes = {{V4L2_PIX_FMT_YUYV, 320, 240}};
    node.controls = {{V4L2_CID_FOCUS_AUTO, {0, 1, 1, V4L2_CTRL_TYPE_BOOLEAN}},
                     {V4L2_CID_AUTO_WHITE_BALANCE, {0, 1, 1, V4L2_CTRL_TYPE_BOOLEAN}}};
    fake->addNode(node);
    V4L2Rig rig(fake);
    EXPECT_TRUE(rig.device->isFocusModeSupported(AVCaptureFocusModeAutoFocus));
    rig.camera->setFocusSettleTime(std::chrono::milliseconds(20));
    ASSERT_TRUE(rig.device->lockForConfiguration());

    // Before streaming the lens cannot focus: continuous focus goes on and stays on until it can.
    rig.device->setFocusMode(AVCaptureFocusModeAutoFocus);
    const auto focus = [&] { return writes(*fake, V4L2_CID_FOCUS_AUTO); };
    EXPECT_EQ(focus(), (std::vector<int32_t>{1}));
    rig.start(AVCaptureSessionPresetLow);
    ASSERT_TRUE(main.drainUntil([&] { return focus().size() == 2; }));
    EXPECT_EQ(focus(), (std::vector<int32_t>{1, 0})) << "focus found, the lens is locked";
    // The next request focuses again; other controls leave focus alone; continuous focus stays on.
    rig.device->setFocusMode(AVCaptureFocusModeAutoFocus);
    ASSERT_TRUE(main.drainUntil([&] { return focus().size() == 4; }));
    rig.device->setWhiteBalanceMode(AVCaptureWhiteBalanceModeLocked);
    EXPECT_EQ(rig.camera->controlValue(V4L2_CID_FOCUS_AUTO), 0);
    rig.device->setFocusMode(AVCaptureFocusModeContinuousAutoFocus);
    rig.session->stopRunning();
    EXPECT_EQ(focus(), (std::vector<int32_t>{1, 0, 1, 0, 1}));
    rig.device->unlockForConfiguration();
}

TEST(V4L2Camera, StreamsEveryFormatWithTheDriversTimeStampsAndFrameRate) {
    struct Case {
        AVCaptureSessionPreset preset;
        OSType format;
        uint32_t fourcc, width, height;
        std::array<int, 3> left, right; // the colours the two halves arrive in
    };
    constexpr OSType kBGRA = kCVPixelFormatType_32BGRA;
    constexpr OSType k420f = kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
    const Case cases[] = {
        // Small frames of a webcam come as YUYV, large ones as MJPEG.
        {AVCaptureSessionPreset640x480, kBGRA, V4L2_PIX_FMT_YUYV, 640, 480, {0, 0, 254}, {255, 0, 0}},
        {AVCaptureSessionPreset1280x720, kBGRA, V4L2_PIX_FMT_MJPEG, 1280, 720, {100, 100, 100}, {100, 100, 100}},
        // Cameras of one format at 15, 25 or 60 frames a second: 25 is the nearest to 30.
        {AVCaptureSessionPresetLow, kBGRA, V4L2_PIX_FMT_UYVY, 320, 240, {0, 0, 254}, {255, 0, 0}},
        // Padded rows, and no driver time stamps: the host time of arrival.
        {AVCaptureSessionPreset1280x720, k420f, V4L2_PIX_FMT_NV12, 1280, 720, {76, 85, 255}, {29, 255, 108}},
    };
    kptest::ManualMainQueue main;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.preset + " " + std::to_string(c.fourcc));
        const bool webcamFormat = c.fourcc == V4L2_PIX_FMT_YUYV || c.fourcc == V4L2_PIX_FMT_MJPEG;
        const bool nv12 = c.fourcc == V4L2_PIX_FMT_NV12;
        auto fake = std::make_shared<FakeV4L2>();
        FakeV4L2::Node node = webcam();
        if (!webcamFormat) {
            node.sizes = {{c.fourcc, 640, 480}, {c.fourcc, c.width, c.height}};
            node.frameRates = {15, 25, 60};
        }
        node.rowPadding = nv12 ? 64 : 0;
        node.monotonicTimestamps = !nv12;
        fake->addNode(node);
        V4L2Rig rig(fake, kNode, c.format);
        rig.start(c.preset);
        EXPECT_EQ(fake->lastFormat(kNode).fourcc, c.fourcc);
        EXPECT_EQ(fake->lastFormat(kNode).width, c.width);
        const CMTime before = CMClockGetHostTimeNow();
        if (c.fourcc == V4L2_PIX_FMT_MJPEG) {
            fake->pushFrame(kNode, std::vector<uint8_t>(1000, 0x55)); // corrupt: skipped, the stream goes on
            fake->pushFrame(kNode, jpeg(1280, 720, 100), timeval{5, 250000});
        } else {
            const uint32_t stride = (nv12 ? c.width : c.width * 2) + node.rowPadding;
            fake->pushFrame(kNode, picture(c.fourcc, c.width, c.height, stride), timeval{5, 250000});
        }
        ASSERT_TRUE(main.drainUntil([&] { return rig.frames->count() == 1; }));
        const auto& sample = rig.frames->samples[0];
        EXPECT_EQ(CVPixelBufferGetWidth(CMSampleBufferGetImageBuffer(sample)), c.width);
        const int tolerance = nv12 ? 0 : 3; // '420f' keeps the camera's samples, widened exactly
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_NEAR(pixel(sample, c.width / 4, c.height / 2)[i], c.left[i], tolerance) << "left " << i;
            EXPECT_NEAR(pixel(sample, c.width * 3 / 4, c.height / 2)[i], c.right[i], tolerance) << "right " << i;
        }
        const CMTime stamp = CMSampleBufferGetPresentationTimeStamp(sample);
        EXPECT_GE(CMTimeCompare(stamp, nv12 ? before : CMTimeMake(5250000000, 1000000000)), 0);
        EXPECT_LE(CMTimeCompare(stamp, nv12 ? CMClockGetHostTimeNow() : CMTimeMake(5250000000, 1000000000)), 0);
        const uint32_t rate = webcamFormat ? 30 : 25;
        EXPECT_EQ(fake->frameRate(kNode), rate);
        EXPECT_EQ(CMTimeCompare(CMSampleBufferGetDuration(sample), CMTimeMake(1, rate)), 0);
    }
}

TEST(V4L2Camera, PassingErrorsAreSurvivedAndLastingOnesOrAVanishingDeviceEndTheStream) {
    kptest::ManualMainQueue main;
    auto fake = std::make_shared<FakeV4L2>();
    const std::function<void(const std::string&)> faults[] = {
        [&](const std::string& path) { fake->vanish(path); },
        [&](const std::string& path) { fake->failIoctl(path, VIDIOC_DQBUF, EIO, -1); },
        // Buffers never go back to the driver: the stream does not starve silently.
        [&](const std::string& path) { fake->failIoctl(path, VIDIOC_QBUF, EINVAL, -1); },
        [&](const std::string& path) { fake->failPoll(path); },
    };
    for (size_t i = 0; i < std::size(faults); ++i) {
        SCOPED_TRACE(i);
        const std::string path = "/fake/video" + std::to_string(i);
        fake->addNode(webcam(path));
        V4L2Rig rig(fake, path);
        rig.start(AVCaptureSessionPreset640x480);
        // Now and then a wake-up without a frame or a failed dequeue: survived, the frame arrives.
        const std::vector<uint8_t> grey(640 * 480 * 2, 128);
        fake->failIoctl(path, VIDIOC_DQBUF, i % 2 == 0 ? EAGAIN : EIO, 3);
        fake->pushFrame(path, grey);
        ASSERT_TRUE(main.drainUntil([&] { return rig.frames->count() == 1; }));
        faults[i](path);
        for (int n = 0; n < 8; ++n) {
            fake->pushFrame(path, grey);
        }
        ASSERT_TRUE(main.drainUntil([&] { return !rig.errors.empty(); }));
        EXPECT_EQ(rig.errors, (std::vector<int64_t>{AVErrorDeviceWasDisconnected}));
        EXPECT_FALSE(rig.device->isConnected());
        EXPECT_FALSE(rig.session->isRunning());
        EXPECT_EQ(fake->mappedBuffers(), 0U) << "buffers are unmapped when the stream ends";
        rig.session->startRunning();
        EXPECT_FALSE(rig.session->isRunning()) << "a lost camera cannot start";
        main.drain();
    }
}
