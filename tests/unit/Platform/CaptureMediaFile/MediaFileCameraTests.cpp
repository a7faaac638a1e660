// SPDX-License-Identifier: MIT
// The media-file camera plays a video made here, frame by frame, looping, with increasing time stamps.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "Platform/Capture/MediaFileCamera.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
}

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <functional>
#include <fstream>
#include <mutex>
#include <unistd.h>

using namespace kp;

namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 48;
constexpr int kFrames = 5;

uint8_t level(int frame) { return static_cast<uint8_t>(30 + 45 * frame); }

// Writes kFrames grey frames (levels 30, 75, 120, ...) as MJPEG in a QuickTime file, frame i at stamp
// stamps(i) in units of 1/rate seconds (default: 20 frames per second).
bool writeMovie(const std::string& path, int rate = 20, const std::function<int64_t(int)>& stamps = [](int i) {
    return static_cast<int64_t>(i);
}) {
    AVFormatContext* format = nullptr;
    if (avformat_alloc_output_context2(&format, nullptr, "mov", path.c_str()) < 0) {
        return false;
    }
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    AVCodecContext* encoder = avcodec_alloc_context3(codec);
    encoder->width = kWidth;
    encoder->height = kHeight;
    encoder->pix_fmt = AV_PIX_FMT_YUVJ420P;
    encoder->time_base = AVRational{1, rate};
    encoder->color_range = AVCOL_RANGE_JPEG;
    bool ok = avcodec_open2(encoder, codec, nullptr) >= 0;
    AVStream* stream = avformat_new_stream(format, nullptr);
    ok = ok && stream != nullptr && avcodec_parameters_from_context(stream->codecpar, encoder) >= 0;
    if (ok) {
        stream->time_base = encoder->time_base;
        ok = avio_open(&format->pb, path.c_str(), AVIO_FLAG_WRITE) >= 0 && avformat_write_header(format, nullptr) >= 0;
    }
    AVFrame* frame = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    for (int i = 0; ok && i <= kFrames; ++i) {
        if (i < kFrames) {
            frame->format = encoder->pix_fmt;
            frame->width = kWidth;
            frame->height = kHeight;
            ok = av_frame_get_buffer(frame, 0) >= 0;
            for (int y = 0; ok && y < kHeight; ++y) {
                std::memset(frame->data[0] + y * frame->linesize[0], level(i), kWidth);
            }
            for (int y = 0; ok && y < kHeight / 2; ++y) {
                std::memset(frame->data[1] + y * frame->linesize[1], 128, kWidth / 2);
                std::memset(frame->data[2] + y * frame->linesize[2], 128, kWidth / 2);
            }
            frame->pts = stamps(i);
            ok = ok && avcodec_send_frame(encoder, frame) >= 0;
            av_frame_unref(frame);
        } else {
            avcodec_send_frame(encoder, nullptr);
        }
        while (ok && avcodec_receive_packet(encoder, packet) >= 0) {
            packet->duration = 1; // one frame; without it the container drops the last frame
            av_packet_rescale_ts(packet, encoder->time_base, stream->time_base);
            packet->stream_index = stream->index;
            ok = av_interleaved_write_frame(format, packet) >= 0;
        }
    }
    ok = ok && av_write_trailer(format) >= 0;
    av_packet_free(&packet);
    av_frame_free(&frame);
    avcodec_free_context(&encoder);
    if (format->pb != nullptr) {
        avio_closep(&format->pb);
    }
    avformat_free_context(format);
    return ok;
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
        : path((std::filesystem::temp_directory_path() /
                ("kpimage-" + name + "-" + std::to_string(getpid())))
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
