// SPDX-License-Identifier: MIT
// The media-file camera plays a video made here, frame by frame, looping, with increasing time stamps.
#include "KPImage/Platform/AVAssetReader.h"
#include "KPImage/Platform/AVAssetWriter.h"
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "KPImage/Platform/NSThread.h"
#include "Platform/Capture/MediaFileCamera.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <unistd.h>

using namespace kp;

namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 48;
constexpr int kFrames = 5;

uint8_t level(int frame) {
    return static_cast<uint8_t>(30 + 45 * frame);
}

// Writes kFrames grey frames (levels 30, 75, 120, ...) with the movie writer, frame i at stamp stamps(i) in units
// of 1/rate seconds (default: 20 frames per second).
bool writeMovie(
    const std::string& path, int rate = 20,
    const std::function<int64_t(int)>& stamps = [](int i) { return static_cast<int64_t>(i); }) {
    auto writer = AVAssetWriter::assetWriterWithURL(NSURL::fileURLWithPath(path), AVFileTypeQuickTimeMovie, nullptr);
    auto input = AVAssetWriterInput::assetWriterInputWithMediaType(AVMediaTypeVideo, std::nullopt);
    writer->addInput(input);
    bool ok = writer->startWriting();
    writer->startSessionAtSourceTime(kCMTimeZero);
    for (int i = 0; ok && i < kFrames; ++i) {
        CVPixelBufferRef pixels;
        if (CVPixelBufferCreate(kWidth, kHeight, kCVPixelFormatType_32BGRA, &pixels) != kCVReturnSuccess) {
            return false;
        }
        std::memset(pixels->bytes(), level(i), pixels->dataSize());
        CMSampleTimingInfo timing;
        timing.presentationTimeStamp = CMTimeMake(stamps(i), rate);
        timing.duration = CMTimeMake(1, rate);
        CMSampleBufferRef sample;
        ok = CMSampleBufferCreateForImageBuffer(pixels, true, timing, &sample) == noErr;
        for (int wait = 0; ok && wait < 10000 && !input->isReadyForMoreMediaData(); ++wait) {
            NSThread::sleepForTimeInterval(0.001);
        }
        ok = ok && input->appendSampleBuffer(sample);
    }
    input->markAsFinished();
    std::promise<void> finished;
    writer->finishWritingWithCompletionHandler([&] { finished.set_value(); });
    finished.get_future().wait();
    return ok && writer->status() == AVAssetWriterStatusCompleted;
}

class Frames final : public AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    void captureOutput(const std::shared_ptr<AVCaptureOutput>&, const CMSampleBufferRef& sample,
                       const std::shared_ptr<AVCaptureConnection>&) override {
        auto pixels = CMSampleBufferGetImageBuffer(sample);
        CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
        const auto* y = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(pixels, 0));
        const uint8_t luma = y[(kHeight / 2) * CVPixelBufferGetBytesPerRowOfPlane(pixels, 0) + kWidth / 2];
        CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
        std::lock_guard lock(mutex);
        levels.push_back(luma);
        stamps.push_back(CMSampleBufferGetPresentationTimeStamp(sample));
        widths.push_back(CVPixelBufferGetWidth(pixels));
    }
    size_t count() {
        std::lock_guard lock(mutex);
        return levels.size();
    }
    std::mutex mutex;
    std::vector<int> levels;
    std::vector<CMTime> stamps;
    std::vector<size_t> widths;
};

// A running session playing the camera into Frames on a queue of its own.
struct Playback {
    std::shared_ptr<AVCaptureSession> session = AVCaptureSession::create();
    std::shared_ptr<AVCaptureVideoDataOutput> output = AVCaptureVideoDataOutput::create(); // '420f' by default
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

// A folder of its own for a test's movies, removed afterwards.
struct MovieFolder {
    const std::string path;
    explicit MovieFolder(const std::string& name)
        : path((std::filesystem::temp_directory_path() / ("kpimage-" + name + "-" + std::to_string(getpid())))
                   .string()) {
        std::filesystem::create_directories(path);
    }
    ~MovieFolder() { std::filesystem::remove_all(path); }
};

} // namespace

TEST(MediaFileCamera, PlaysTheFileFrameByFrameAndLoops) {
    MovieFolder folder("movie");
    const std::string dir = folder.path;
    const std::string path = dir + "/pattern.mov";
    ASSERT_TRUE(writeMovie(path));

    NSErrorRef error;
    EXPECT_EQ(AVCaptureDevice::addMediaFileCamera(dir + "/missing.mov", AVCaptureDevicePositionBack, &error), nullptr);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), AVErrorInvalidSourceMedia);

    kptest::ManualMainQueue main;
    auto device = AVCaptureDevice::addMediaFileCamera(path, AVCaptureDevicePositionBack, &error);
    ASSERT_TRUE(device) << (error ? error->localizedDescription() : "");
    EXPECT_EQ(device->position(), AVCaptureDevicePositionBack);
    EXPECT_EQ(AVCaptureDevice::devices().front(), device);

    Playback play(device);
    auto& frames = play.frames;
    ASSERT_TRUE(main.drainUntil([&] { return frames->count() >= kFrames + 3; }, 60.0));
    play.session->stopRunning();
    dispatch_sync(play.queue, [] {});
    AVCaptureDevice::removeDevice(device);

    std::lock_guard lock(frames->mutex);
    for (size_t i = 0; i < kFrames + 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(frames->widths[i], static_cast<size_t>(kWidth));
        EXPECT_NEAR(frames->levels[i], level(static_cast<int>(i % kFrames)), 4) << "frame order, then the loop";
        if (i > 0) {
            EXPECT_GT(CMTimeCompare(frames->stamps[i], frames->stamps[i - 1]), 0);
        }
    }
}

TEST(MediaFileCamera, StopEndsTheWaitForTheNextFrameAtOnce) {
    MovieFolder folder("gap");
    const std::string path = folder.path + "/gap.mov";
    // One frame a second, with a minute between the first two frames.
    ASSERT_TRUE(writeMovie(path, 1, [](int i) { return i == 0 ? 0 : 60 + i; }));
    auto reader = AVAssetReader::assetReaderWithURL(NSURL::fileURLWithPath(path), nullptr);
    ASSERT_TRUE(reader && reader->copyNextSampleBuffer(kCVPixelFormatType_32BGRA));
    ASSERT_GE(CMTimeGetSeconds(
                  CMSampleBufferGetPresentationTimeStamp(reader->copyNextSampleBuffer(kCVPixelFormatType_32BGRA))),
              60.0);
    kptest::ManualMainQueue main;
    NSErrorRef error;
    auto device = AVCaptureDevice::addMediaFileCamera(path, AVCaptureDevicePositionBack, &error);
    ASSERT_TRUE(device) << (error ? error->localizedDescription() : "");
    Playback play(device);
    auto& frames = play.frames;
    ASSERT_TRUE(main.drainUntil([&] { return frames->count() >= 1; }, 60.0));
    // The camera now waits a minute for the second frame; stopping must not wait with it.
    const auto before = std::chrono::steady_clock::now();
    play.session->stopRunning();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count();
    EXPECT_LT(seconds, 20.0) << "stopRunning waited for the next frame's time";
    EXPECT_EQ(frames->count(), 1U);
    AVCaptureDevice::removeDevice(device);
}

TEST(MediaFileCamera, AStreamKeepsItsCameraAliveWhenTheLastReferenceGoesInAFrame) {
    MovieFolder folder("release");
    const std::string path = folder.path + "/pattern.mov";
    ASSERT_TRUE(writeMovie(path));
    NSErrorRef error;
    auto camera = MediaFileCamera::open(path, &error);
    ASSERT_TRUE(camera);
    EXPECT_TRUE(kptest::LastReferenceSink::releaseInFirstFrame(std::move(camera)));
}
