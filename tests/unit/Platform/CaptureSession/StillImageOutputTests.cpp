// SPDX-License-Identifier: MIT
// The still output: digital zoom crops the centre, a camera without frames times out, a foreign connection fails.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureStillImageOutput.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>

using namespace kp;
using kptest::FakeCaptureDevice;

namespace {

struct Outcome {
    std::mutex mutex;
    bool done = false;
    CMSampleBufferRef picture;
    NSErrorRef error;
};

std::shared_ptr<Outcome> request(const std::shared_ptr<AVCaptureStillImageOutput>& still,
                                 const std::shared_ptr<AVCaptureConnection>& connection) {
    auto outcome = std::make_shared<Outcome>();
    still->captureStillImageAsynchronouslyFromConnection(
        connection, [outcome](const CMSampleBufferRef& picture, const NSErrorRef& error) {
            std::lock_guard lock(outcome->mutex);
            outcome->picture = picture;
            outcome->error = error;
            outcome->done = true;
        });
    return outcome;
}

bool finished(const std::shared_ptr<Outcome>& outcome) {
    std::lock_guard lock(outcome->mutex);
    return outcome->done;
}

// The error of a request that failed without a picture.
int64_t failure(const std::shared_ptr<Outcome>& outcome) {
    std::lock_guard lock(outcome->mutex);
    EXPECT_FALSE(outcome->picture);
    return outcome->error ? outcome->error->code() : 0;
}

// A 64 x 48 BGRA frame, black with a white centre of 32 x 24.
CVPixelBufferRef centredSquare() {
    CVPixelBufferRef pixels;
    EXPECT_EQ(CVPixelBufferCreate(64, 48, kCVPixelFormatType_32BGRA, &pixels), kCVReturnSuccess);
    for (size_t y = 0; y < 48; ++y) {
        uint8_t* row = pixels->bytes() + y * pixels->plane(0).bytesPerRow;
        for (size_t x = 0; x < 64; ++x) {
            const bool inside = x >= 16 && x < 48 && y >= 12 && y < 36;
            std::memset(row + x * 4, inside ? 255 : 0, 3);
            row[x * 4 + 3] = 255;
        }
    }
    return pixels;
}

int green(const CVPixelBufferRef& pixels, size_t x, size_t y) {
    CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    const auto* base = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddress(pixels));
    const int value = base[y * CVPixelBufferGetBytesPerRow(pixels) + x * 4 + 1];
    CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    return value;
}

struct Rig {
    std::shared_ptr<FakeCaptureDevice> camera = std::make_shared<FakeCaptureDevice>("still");
    AVCaptureDevice::Ref device = std::make_shared<AVCaptureDevice>(camera, AVCaptureDevicePositionBack);
    std::shared_ptr<AVCaptureSession> session = AVCaptureSession::create();
    std::shared_ptr<AVCaptureStillImageOutput> still = AVCaptureStillImageOutput::create();

    Rig() {
        session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
        session->addOutput(still);
        session->startRunning();
    }
};

} // namespace

TEST(StillImageOutput, ScaleAndCropFactorTakesTheCentreOfTheFrame) {
    kptest::ManualMainQueue main;
    Rig rig;
    auto connection = rig.still->connectionWithMediaType(AVMediaTypeVideo);
    ASSERT_TRUE(connection);
    const auto frame = centredSquare();
    struct Case {
        double factor;
        int corner; // green of the picture's corner pixels
    };
    // The picture keeps the frame's size: the centre 1/factor of it, enlarged.
    for (const Case& c : {Case{1.0, 0}, Case{2.0, 255}, Case{1.5, 0}}) {
        SCOPED_TRACE(c.factor);
        connection->setVideoScaleAndCropFactor(c.factor);
        auto outcome = request(rig.still, connection);
        EXPECT_TRUE(rig.still->isCapturingStillImage());
        ASSERT_TRUE(main.drainUntil(
            [&] {
                rig.camera->pushFrame(frame); // the request takes the first frame that starts after it
                return finished(outcome);
            },
            60.0));
        std::lock_guard lock(outcome->mutex);
        ASSERT_TRUE(outcome->picture) << (outcome->error ? outcome->error->localizedDescription() : "");
        const auto pixels = CMSampleBufferGetImageBuffer(outcome->picture);
        ASSERT_EQ(CVPixelBufferGetWidth(pixels), 64U);
        ASSERT_EQ(CVPixelBufferGetHeight(pixels), 48U);
        EXPECT_EQ(green(pixels, 0, 0), c.corner);
        EXPECT_EQ(green(pixels, 32, 24), 255);
        EXPECT_EQ(green(pixels, 63, 47), c.corner);
    }
}

TEST(StillImageOutput, ACameraWithoutFramesTimesOutWithNoDataCaptured) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the time-out is a fixed 5 s: the plain build waits for it";
#endif
    kptest::ManualMainQueue main;
    Rig rig;
    auto outcome = request(rig.still, rig.still->connectionWithMediaType(AVMediaTypeVideo));
    EXPECT_TRUE(rig.still->isCapturingStillImage());
    ASSERT_TRUE(main.drainUntil([&] { return finished(outcome); }, 60.0));
    EXPECT_EQ(failure(outcome), AVErrorNoDataCaptured);
    EXPECT_FALSE(rig.still->isCapturingStillImage());
    EXPECT_EQ(rig.camera->stillRequests(), 1) << "the camera was told (a flash may fire)";
}

TEST(StillImageOutput, AConnectionThatIsNotTheOutputsFails) {
    kptest::ManualMainQueue main;
    Rig rig;
    auto frames = AVCaptureVideoDataOutput::create();
    rig.session->addOutput(frames);
    Rig other;
    // Another output of the same session, a still output of another session, none.
    for (const auto& connection :
         {frames->connectionWithMediaType(AVMediaTypeVideo), other.still->connectionWithMediaType(AVMediaTypeVideo),
          std::shared_ptr<AVCaptureConnection>{}}) {
        auto outcome = request(rig.still, connection);
        ASSERT_TRUE(main.drainUntil([&] { return finished(outcome); }));
        EXPECT_EQ(failure(outcome), AVErrorInvalidSourceMedia);
    }
    EXPECT_EQ(rig.camera->stillRequests(), 0);
}
