// SPDX-License-Identifier: MIT
// The media-file camera plays a video made here, frame by frame, looping, with increasing time stamps.
#include "KPImage/Platform/AVAssetWriter.h"
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "KPImage/Platform/NSThread.h"
#include "Platform/Capture/MediaFileCamera.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"
#include "support/MovieFrames.h"

#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <mutex>

using namespace kp;

namespace {

constexpr int kFrames = 5;

uint8_t level(size_t frame) {
    return static_cast<uint8_t>(30 + 45 * (frame % kFrames));
}

// Writes kFrames grey 64 x 48 frames (levels 30, 75, 120, ...) at the given seconds.
bool writeMovie(const std::string& path, const std::function<double(int)>& seconds) {
    auto writer = AVAssetWriter::assetWriterWithURL(NSURL::fileURLWithPath(path), AVFileTypeQuickTimeMovie, nullptr);
    auto input = AVAssetWriterInput::assetWriterInputWithMediaType(AVMediaTypeVideo, std::nullopt);
    writer->addInput(input);
    bool ok = writer->startWriting();
    writer->startSessionAtSourceTime(kCMTimeZero);
    for (int i = 0; ok && i < kFrames; ++i) {
        CVPixelBufferRef pixels;
        ok = CVPixelBufferCreate(64, 48, kCVPixelFormatType_32BGRA, &pixels) == kCVReturnSuccess;
        std::memset(pixels->bytes(), level(i), pixels->dataSize());
        CMSampleTimingInfo timing;
        timing.presentationTimeStamp = CMTimeMakeWithSeconds(seconds(i), 600);
        CMSampleBufferRef sample;
        CMSampleBufferCreateForImageBuffer(pixels, true, timing, &sample);
        for (int wait = 0; wait < 10000 && !input->isReadyForMoreMediaData(); ++wait) {
            NSThread::sleepForTimeInterval(0.001);
        }
        ok = input->appendSampleBuffer(sample);
    }
    input->markAsFinished();
    std::promise<void> finished;
    writer->finishWritingWithCompletionHandler([&] { finished.set_value(); });
    finished.get_future().wait();
    return ok && writer->status() == AVAssetWriterStatusCompleted;
}

// The centre luma and time stamp of every frame a session's output hands over.
class Frames final : public AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    void captureOutput(const std::shared_ptr<AVCaptureOutput>&, const CMSampleBufferRef& sample,
                       const std::shared_ptr<AVCaptureConnection>&) override {
        auto pixels = CMSampleBufferGetImageBuffer(sample);
        CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
        const auto* y = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(pixels, 0));
        const uint8_t luma = y[24 * CVPixelBufferGetBytesPerRowOfPlane(pixels, 0) + 32];
        CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
        std::lock_guard lock(mutex);
        levels.push_back(luma);
        stamps.push_back(CMSampleBufferGetPresentationTimeStamp(sample));
    }
    size_t count() {
        std::lock_guard lock(mutex);
        return levels.size();
    }
    std::mutex mutex;
    std::vector<int> levels;
    std::vector<CMTime> stamps;
};

// A running session playing the camera into Frames ('420f') on a queue of its own.
struct Playback {
    std::shared_ptr<AVCaptureSession> session = AVCaptureSession::create();
    std::shared_ptr<AVCaptureVideoDataOutput> output = AVCaptureVideoDataOutput::create();
    std::shared_ptr<Frames> frames = std::make_shared<Frames>();
    dispatch_queue_t queue = dispatch_queue_create("VideoDataOutputQueue", nullptr);

    explicit Playback(const AVCaptureDevice::Ref& device) {
        output->setAlwaysDiscardsLateVideoFrames(false); // a busy machine must not make frames go missing
        output->setSampleBufferDelegate(frames, queue);
        session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
        session->addOutput(output);
        session->startRunning();
    }
};

} // namespace

TEST(MediaFileCamera, PlaysTheFileFrameByFrameAndLoopsAndStopsWithoutWaitingForTheNextFrame) {
    kptest::ScratchFolder folder("media-file");
    const std::string path = folder.file("pattern.mov");
    ASSERT_TRUE(writeMovie(path, [](int i) { return i / 20.0; }));
    NSErrorRef error;
    EXPECT_EQ(AVCaptureDevice::addMediaFileCamera(folder.file("missing.mov"), AVCaptureDevicePositionBack, &error),
              nullptr);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), AVErrorInvalidSourceMedia);

    kptest::ManualMainQueue main;
    auto device = AVCaptureDevice::addMediaFileCamera(path, AVCaptureDevicePositionBack, &error);
    ASSERT_TRUE(device) << (error ? error->localizedDescription() : "");
    EXPECT_EQ(AVCaptureDevice::devices().front(), device);
    {
        Playback play(device);
        ASSERT_TRUE(main.drainUntil([&] { return play.frames->count() >= kFrames + 3; }, 60.0));
        play.session->stopRunning();
        dispatch_sync(play.queue, [] {});
        for (size_t i = 0; i < kFrames + 3; ++i) {
            SCOPED_TRACE(i);
            EXPECT_NEAR(play.frames->levels[i], level(i), 4) << "frame order, then the loop";
            EXPECT_TRUE(i == 0 || CMTimeCompare(play.frames->stamps[i], play.frames->stamps[i - 1]) > 0);
        }
    }
    AVCaptureDevice::removeDevice(device);

    // An hour between the first two frames: stopping ends the wait for the second at once (a wait would hang the
    // test).
    const std::string gap = folder.file("gap.mov");
    ASSERT_TRUE(writeMovie(gap, [](int i) { return i == 0 ? 0.0 : 3600.0 + i; }));
    device = AVCaptureDevice::addMediaFileCamera(gap, AVCaptureDevicePositionBack, &error);
    ASSERT_TRUE(device);
    Playback play(device);
    ASSERT_TRUE(main.drainUntil([&] { return play.frames->count() >= 1; }, 60.0));
    play.session->stopRunning();
    EXPECT_EQ(play.frames->count(), 1U);
    AVCaptureDevice::removeDevice(device);
}

TEST(MediaFileCamera, AStreamKeepsItsCameraAliveWhenTheLastReferenceGoesInAFrame) {
    kptest::ScratchFolder folder("media-release");
    ASSERT_TRUE(writeMovie(folder.file("pattern.mov"), [](int i) { return i / 20.0; }));
    NSErrorRef error;
    auto camera = MediaFileCamera::open(folder.file("pattern.mov"), &error);
    ASSERT_TRUE(camera);
    EXPECT_TRUE(kptest::LastReferenceSink::releaseInFirstFrame(std::move(camera)));
}
