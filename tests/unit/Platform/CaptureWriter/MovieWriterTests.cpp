// SPDX-License-Identifier: MIT
// The movie writer: its states, refusals and back-pressure, movies read back with FFmpeg (frames, sizes, formats,
// time stamps, pixels), a recording killed mid-way; movies played by the media-file camera; and the photo album
// that stores movies and images.
#include "KPImage/Platform/AVAssetReader.h"
#include "KPImage/Platform/AVAssetWriter.h"
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "KPImage/Platform/NSThread.h"
#include "KPImage/Platform/UIPhotoAlbum.h"
#include "Platform/Capture/MediaFileCamera.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"
#include "support/MovieFrames.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <set>

using namespace kp;
using kptest::patternFrame;

namespace {

namespace fs = std::filesystem;
constexpr OSType kBGRA = kCVPixelFormatType_32BGRA;
constexpr OSType kNV12 = kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;

struct Writer {
    std::shared_ptr<AVAssetWriter> writer;
    std::shared_ptr<AVAssetWriterInput> input;
};

// A writer of one video input (nil writer when it cannot be made).
Writer makeWriter(const std::string& path, std::optional<AVOutputSettings> settings = std::nullopt) {
    Writer w{AVAssetWriter::assetWriterWithURL(NSURL::fileURLWithPath(path), AVFileTypeQuickTimeMovie, nullptr),
             AVAssetWriterInput::assetWriterInputWithMediaType(AVMediaTypeVideo, std::move(settings))};
    if (w.writer) {
        w.writer->addInput(w.input);
    }
    return w;
}

// Finishes and waits (up to 20 s) for the handler; false when it did not run.
bool finish(AVAssetWriter& writer) {
    auto done = std::make_shared<std::promise<void>>();
    writer.finishWritingWithCompletionHandler([done] { done->set_value(); });
    return done->get_future().wait_for(std::chrono::seconds(20)) == std::future_status::ready;
}

// Appends once the input is ready (up to 10 s); the append's result.
bool appendWhenReady(AVAssetWriterInput& input, const CMSampleBufferRef& frame) {
    for (int i = 0; i < 10000 && !input.isReadyForMoreMediaData(); ++i) {
        NSThread::sleepForTimeInterval(0.001);
    }
    return input.appendSampleBuffer(frame);
}

// Records count pattern frames (at 30 fps from time zero unless stamped otherwise) and finishes; the final status.
AVAssetWriterStatus recordPattern(
    const std::string& path, OSType format, size_t width, size_t height, int count,
    std::optional<AVOutputSettings> settings = std::nullopt,
    const std::function<CMTime(int)>& stamp = [](int i) { return CMTimeMake(i, 30); }) {
    auto [writer, input] = makeWriter(path, std::move(settings));
    EXPECT_TRUE(writer && writer->startWriting());
    writer->startSessionAtSourceTime(kCMTimeZero);
    for (int i = 0; i < count; ++i) {
        EXPECT_TRUE(appendWhenReady(*input, patternFrame(format, width, height, i, stamp(i)))) << i;
    }
    input->markAsFinished();
    EXPECT_TRUE(finish(*writer));
    return writer->status();
}

// Every frame of a movie in the given format.
std::vector<CMSampleBufferRef> readAll(const std::string& path, OSType format, AVAssetVideoTrackInfo* info = nullptr) {
    NSErrorRef error;
    auto reader = AVAssetReader::assetReaderWithURL(NSURL::fileURLWithPath(path), &error);
    EXPECT_TRUE(reader) << (error ? error->localizedDescription() : "");
    std::vector<CMSampleBufferRef> frames;
    if (reader && info != nullptr) {
        *info = reader->videoTrack();
    }
    while (reader) {
        if (auto frame = reader->copyNextSampleBuffer(format)) {
            frames.push_back(frame);
        } else {
            break;
        }
    }
    return frames;
}

double difference(const CMSampleBufferRef& a, const CMSampleBufferRef& b) {
    return kptest::meanDifference(CMSampleBufferGetImageBuffer(a), CMSampleBufferGetImageBuffer(b));
}

TEST(MovieWriterStates, RefusalsAndEveryOperationBeforeDuringAndAfterWriting) {
    kptest::ScratchFolder folder("writer-states");
    EXPECT_FALSE(
        AVAssetWriter::assetWriterWithURL(NSURL::fileURLWithPath(folder.file("a.mp4")), "public.mpeg-4", nullptr));
    // A file already there, or a regular file where the folder should be (which stops root as well): the writer
    // is made, its start fails naming the cause, and a finish still completes.
    std::ofstream(folder.file("taken.mov")) << "keep me";
    for (const auto& [path, cause] : {std::pair<std::string, std::string>{folder.file("taken.mov"), "taken.mov"},
                                      {folder.file("taken.mov") + "/movie.mov", "Not a directory"}}) {
        SCOPED_TRACE(path);
        auto [writer, input] = makeWriter(path);
        ASSERT_TRUE(writer);
        EXPECT_FALSE(writer->startWriting());
        EXPECT_EQ(writer->status(), AVAssetWriterStatusFailed);
        ASSERT_TRUE(writer->error());
        EXPECT_NE(writer->error()->localizedDescription().find(cause), std::string::npos);
        EXPECT_FALSE(input->appendSampleBuffer(patternFrame(kBGRA, 16, 16, 0, kCMTimeZero)));
        EXPECT_TRUE(finish(*writer));
    }
    EXPECT_EQ(fs::file_size(folder.file("taken.mov")), 7U);

    const auto frame = [](int i, bool ready = true) {
        return patternFrame(kBGRA, 16, 16, i, i < 0 ? kCMTimeInvalid : CMTimeMake(100 + i, 30), ready);
    };
    auto writer = AVAssetWriter::assetWriterWithURL(NSURL::fileURLWithPath(folder.file("states.mov")),
                                                    AVFileTypeQuickTimeMovie, nullptr);
    auto input = AVAssetWriterInput::assetWriterInputWithMediaType(AVMediaTypeVideo, std::nullopt);
    // Unknown: nothing is on disk; one video track.
    writer->addInput(input);
    EXPECT_FALSE(writer->canAddInput(AVAssetWriterInput::assetWriterInputWithMediaType(AVMediaTypeVideo, {})));
    EXPECT_FALSE(fs::exists(folder.file("states.mov")));
    // Writing: frames need a session, readiness, data, and a valid later time stamp.
    ASSERT_TRUE(writer->startWriting());
    writer->startSessionAtSourceTime(CMTimeMake(100, 30));
    for (const auto& refused :
         {frame(-1), patternFrame(kBGRA, 16, 16, 0, CMTimeMake(99, 30)), frame(0, false), CMSampleBufferRef{}}) {
        EXPECT_FALSE(input->appendSampleBuffer(refused));
    }
    EXPECT_TRUE(input->appendSampleBuffer(frame(0)));
    EXPECT_FALSE(input->appendSampleBuffer(frame(0))) << "same time stamp";
    EXPECT_TRUE(appendWhenReady(*input, frame(1)));
    input->markAsFinished();
    EXPECT_FALSE(input->isReadyForMoreMediaData());
    EXPECT_FALSE(input->appendSampleBuffer(frame(2)));
    // Completed: the movie has the two frames; a finish still calls back.
    ASSERT_TRUE(finish(*writer));
    EXPECT_EQ(writer->status(), AVAssetWriterStatusCompleted);
    EXPECT_EQ(readAll(folder.file("states.mov"), kBGRA).size(), 2U);
    EXPECT_TRUE(finish(*writer));

    // Cancel deletes the partial movie; a finish without frames fails.
    auto cancelled = makeWriter(folder.file("cancelled.mov"));
    ASSERT_TRUE(cancelled.writer->startWriting());
    cancelled.writer->startSessionAtSourceTime(kCMTimeZero);
    EXPECT_TRUE(cancelled.input->appendSampleBuffer(patternFrame(kBGRA, 16, 16, 0, kCMTimeZero)));
    cancelled.writer->cancelWriting();
    EXPECT_EQ(cancelled.writer->status(), AVAssetWriterStatusCancelled);
    EXPECT_FALSE(fs::exists(folder.file("cancelled.mov")));
    auto empty = makeWriter(folder.file("empty.mov"));
    ASSERT_TRUE(empty.writer->startWriting());
    ASSERT_TRUE(finish(*empty.writer));
    EXPECT_EQ(empty.writer->status(), AVAssetWriterStatusFailed);
    EXPECT_EQ(empty.writer->error()->code(), AVErrorNoDataCaptured);
}

TEST(MovieWriterStates, AFullQueueRefusesFramesAtOnceAndKeepsEveryAcceptedOne) {
    kptest::ScratchFolder folder("writer-pressure");
    auto [writer, input] = makeWriter(folder.file("pressure.mov"));
    ASSERT_TRUE(writer->startWriting());
    writer->startSessionAtSourceTime(kCMTimeZero);
    // Large frames handed over far faster than they are written.
    std::vector<CMSampleBufferRef> frames;
    for (int i = 0; i < 24; ++i) {
        frames.push_back(patternFrame(kBGRA, 1280, 720, i, CMTimeMake(i, 30)));
    }
    int accepted = 0;
    for (const auto& f : frames) {
        accepted += input->appendSampleBuffer(f) ? 1 : 0;
    }
    EXPECT_LT(accepted, 24);
    EXPECT_GE(accepted, static_cast<int>(AVAssetWriterInput::kQueueCapacity));
    frames.clear();
    input->markAsFinished();
    ASSERT_TRUE(finish(*writer));
    AVAssetVideoTrackInfo info;
    EXPECT_EQ(static_cast<int>(readAll(folder.file("pressure.mov"), kBGRA, &info).size()), accepted);
}

// Run as a child by the kill test: records until killed.
TEST(MovieWriterKilled, ChildRecordsUntilKilled) {
    const char* path = std::getenv("KPIMAGE_KILL_TEST_MOVIE");
    const char* ready = std::getenv("KPIMAGE_KILL_TEST_READY");
    if (path == nullptr || ready == nullptr) {
        GTEST_SKIP() << "runs only as the child of MovieWriterKilled.LeavesAMovieOfAllButTheLastSecond";
    }
    auto [writer, input] = makeWriter(path);
    ASSERT_TRUE(writer->startWriting());
    writer->startSessionAtSourceTime(kCMTimeZero);
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(appendWhenReady(*input, patternFrame(kBGRA, 64, 48, i, CMTimeMake(i, 30))));
    }
    // Let the queue drain, then tell the parent; it kills this process during the fourth second.
    for (int i = 0; i < 1000 && !input->isReadyForMoreMediaData(); ++i) {
        NSThread::sleepForTimeInterval(0.001);
    }
    NSThread::sleepForTimeInterval(0.2);
    std::ofstream(ready) << "ready";
    for (int i = 100;; ++i) {
        appendWhenReady(*input, patternFrame(kBGRA, 64, 48, i, CMTimeMake(i, 30)));
        NSThread::sleepForTimeInterval(1.0);
    }
}

TEST(MovieWriterKilled, LeavesAMovieOfAllButTheLastSecond) {
    kptest::ScratchFolder folder("writer-killed");
    const std::string movie = folder.file("killed.mov");
    const std::string ready = folder.file("ready");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        setenv("KPIMAGE_KILL_TEST_MOVIE", movie.c_str(), 1);
        setenv("KPIMAGE_KILL_TEST_READY", ready.c_str(), 1);
        execl("/proc/self/exe", "kill-test-child", "--gtest_filter=MovieWriterKilled.ChildRecordsUntilKilled",
              static_cast<char*>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < 3000 && !fs::exists(ready); ++i) {
        NSThread::sleepForTimeInterval(0.01);
    }
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(fs::exists(ready)) << "the child did not record";
    EXPECT_TRUE(WIFSIGNALED(status));
    // 100 frames were handed over; every whole second of them (90) must read back, exactly.
    AVAssetVideoTrackInfo info;
    const auto frames = readAll(movie, kBGRA, &info);
    EXPECT_GE(frames.size(), 70U);
    EXPECT_EQ(static_cast<int64_t>(frames.size()), info.frames);
    for (size_t i = 0; i < frames.size(); ++i) {
        ASSERT_EQ(difference(frames[i], patternFrame(kBGRA, 64, 48, static_cast<int>(i), kCMTimeZero)), 0.0) << i;
    }
}

TEST(MovieWriterRoundTrip, FramesAreStoredAsDeliveredTimedFromTheSessionStart) {
    struct Case {
        OSType format;
        const char* codec; // nil: raw
        const char* name;
        const char* tag;         // raw only
        const char* pixelFormat; // raw only
        double maxDifference;    // 0: exact
    };
    const Case cases[] = {
        {kBGRA, nullptr, "rawvideo", "BGRA", "bgra", 0},
        {kNV12, nullptr, "rawvideo", "NV12", "nv12", 0},
        {kNV12, AVVideoCodecTypeFFV1, "ffv1", nullptr, nullptr, 0},
        {kBGRA, AVVideoCodecTypeH264, "h264", nullptr, nullptr, 6},
        {kNV12, AVVideoCodecTypeHEVC, "hevc", nullptr, nullptr, 6},
    };
    kptest::ScratchFolder folder("round-trip");
    int index = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.name) + (c.format == kBGRA ? " BGRA" : " 420f"));
        if (c.codec != nullptr && !AVVideoCodecTypeIsAvailable(c.codec)) {
            std::cout << "[ SKIPPED  ] " << c.name << ": this FFmpeg has no encoder for it\n";
            continue;
        }
        std::optional<AVOutputSettings> settings;
        if (c.codec != nullptr) {
            settings = AVOutputSettings{{AVVideoCodecKey, std::string(c.codec)}, {AVVideoQualityKey, 0.9}};
        }
        // 50 pixels wide: the pixel buffers' rows are padded, the movie's rows are not.
        const std::string path = folder.file("movie" + std::to_string(index++) + ".mov");
        auto [writer, input] = makeWriter(path, settings);
        ASSERT_TRUE(writer->startWriting());
        // The session starts at 100 s of host time and half a tick (1/60 s) before the first frame, which is
        // stamped in the movie's ticks (1/30 s); the others come in 1/60 s, whole ticks after the session start.
        // Counted from the session start every frame has a tick of its own, and the movie starts at zero.
        writer->startSessionAtSourceTime(CMTimeMake(6001, 60));
        for (int i = 0; i < 10; ++i) {
            const CMTime time = i == 0 ? CMTimeMake(3001, 30) : CMTimeMake(6001 + 2 * (i + 1), 60);
            EXPECT_TRUE(appendWhenReady(*input, patternFrame(c.format, 50, 30, i, time))) << i;
        }
        input->markAsFinished();
        ASSERT_TRUE(finish(*writer));
        ASSERT_EQ(writer->status(), AVAssetWriterStatusCompleted);
        AVAssetVideoTrackInfo info;
        const auto frames = readAll(path, c.format, &info);
        EXPECT_EQ(info.codec, c.name);
        if (c.tag != nullptr) {
            EXPECT_EQ(info.codecTag, c.tag);
            EXPECT_EQ(info.pixelFormat, c.pixelFormat);
        }
        EXPECT_EQ(info.width, 50);
        EXPECT_EQ(info.height, 30);
        EXPECT_EQ(info.frames, 10);
        EXPECT_DOUBLE_EQ(info.startTime, 0.0);
        ASSERT_EQ(frames.size(), 10U);
        double worst = 0;
        for (size_t i = 0; i < frames.size(); ++i) {
            worst = std::max(worst,
                             difference(frames[i], patternFrame(c.format, 50, 30, static_cast<int>(i), kCMTimeZero)));
            EXPECT_EQ(CMTimeCompare(CMSampleBufferGetPresentationTimeStamp(frames[i]),
                                    CMTimeMake(static_cast<int64_t>(i), 30)),
                      0)
                << "frame " << i;
        }
        EXPECT_LE(worst, c.maxDifference);
    }
}

// A grey frame of another camera: level inside the centre box (cx, cy, cw, ch), white around it.
CMSampleBufferRef boxedFrame(OSType format, size_t width, size_t height, size_t cx, size_t cy, size_t cw, size_t ch,
                             uint8_t level, int64_t tick) {
    CVPixelBufferRef pixels;
    EXPECT_EQ(CVPixelBufferCreate(width, height, format, &pixels), kCVReturnSuccess);
    const bool bgra = format == kBGRA;
    for (size_t y = 0; y < height; ++y) {
        uint8_t* row = pixels->bytes() + pixels->plane(0).offset + y * pixels->plane(0).bytesPerRow;
        for (size_t x = 0; x < width; ++x) {
            const uint8_t v = x >= cx && x < cx + cw && y >= cy && y < cy + ch ? level : 255;
            std::fill_n(row + (bgra ? x * 4 : x), bgra ? 3 : 1, v);
            if (bgra) {
                row[x * 4 + 3] = 255;
            }
        }
    }
    if (!bgra) {
        const auto& chroma = pixels->plane(1);
        std::fill_n(pixels->bytes() + chroma.offset, chroma.height * chroma.bytesPerRow, uint8_t{128});
    }
    CMSampleTimingInfo timing;
    timing.presentationTimeStamp = CMTimeMake(tick, 30);
    CMSampleBufferRef sample;
    CMSampleBufferCreateForImageBuffer(pixels, true, timing, &sample);
    return sample;
}

TEST(MovieWriterRoundTrip, ACameraOfAnotherSizeOrFormatJoinsTheMovieAtItsSize) {
    struct Case {
        OSType movie, other;
        size_t width, height;  // the other camera's frames
        size_t cx, cy, cw, ch; // the part at the movie's aspect ratio, 4:3
    };
    const Case cases[] = {
        {kBGRA, kBGRA, 128, 48, 32, 0, 64, 48}, // wider: the sides go
        {kBGRA, kNV12, 24, 50, 0, 16, 24, 18},  // taller and another format: top and bottom go
        {kNV12, kBGRA, 64, 48, 0, 0, 64, 48},   // the same aspect, larger
        {kNV12, kNV12, 16, 12, 0, 0, 16, 12},   // smaller
    };
    kptest::ScratchFolder folder("switch");
    const auto grey = boxedFrame(kBGRA, 32, 24, 0, 0, 32, 24, 60, 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        const std::string path = folder.file("switch" + std::to_string(c.width) + ".mov");
        auto [writer, input] = makeWriter(path);
        ASSERT_TRUE(writer->startWriting());
        writer->startSessionAtSourceTime(kCMTimeZero);
        for (int i = 0; i < 4; ++i) {
            EXPECT_TRUE(
                appendWhenReady(*input, i < 2 ? patternFrame(c.movie, 32, 24, i, CMTimeMake(i, 30))
                                              : boxedFrame(c.other, c.width, c.height, c.cx, c.cy, c.cw, c.ch, 60, i)));
        }
        input->markAsFinished();
        ASSERT_TRUE(finish(*writer));
        AVAssetVideoTrackInfo info;
        const auto frames = readAll(path, kBGRA, &info);
        ASSERT_EQ(frames.size(), 4U);
        EXPECT_EQ(info.width, 32);
        EXPECT_EQ(info.height, 24);
        // The other camera's frames keep only their centre, grey 60 (within the RGB / YUV conversions' rounding);
        // none of the white around it, which would move the mean by about 100.
        EXPECT_LT(difference(frames[2], grey), 12.0);
        EXPECT_LT(difference(frames[3], grey), 12.0);
    }
    // An output size scales every frame.
    const AVOutputSettings small{{AVVideoCodecKey, std::string(AVVideoCodecTypeH264)},
                                 {AVVideoWidthKey, int64_t{32}},
                                 {AVVideoHeightKey, int64_t{24}}};
    ASSERT_EQ(recordPattern(folder.file("small.mov"), kBGRA, 64, 48, 3, small), AVAssetWriterStatusCompleted);
    AVAssetVideoTrackInfo info;
    EXPECT_EQ(readAll(folder.file("small.mov"), kBGRA, &info).size(), 3U);
    EXPECT_EQ(info.width, 32);
    EXPECT_EQ(info.height, 24);
}

using kptest::SampleList;

// A running session playing a media-file camera into SampleList ('420f') on a queue of its own.
struct Playback {
    AVCaptureDevice::Ref device;
    std::shared_ptr<AVCaptureSession> session = AVCaptureSession::create();
    std::shared_ptr<SampleList> frames = std::make_shared<SampleList>();
    dispatch_queue_t queue = dispatch_queue_create("VideoDataOutputQueue", nullptr);

    explicit Playback(const std::string& movie) {
        NSErrorRef error;
        device = AVCaptureDevice::addMediaFileCamera(movie, AVCaptureDevicePositionBack, &error);
        EXPECT_TRUE(device) << (error ? error->localizedDescription() : "");
        auto output = AVCaptureVideoDataOutput::create();
        output->setAlwaysDiscardsLateVideoFrames(false); // a busy machine must not make frames go missing
        output->setSampleBufferDelegate(frames, queue);
        session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
        session->addOutput(output);
        session->startRunning();
    }
    ~Playback() {
        session->stopRunning();
        dispatch_sync(queue, [] {});
        AVCaptureDevice::removeDevice(device);
    }
};

TEST(MediaFileCamera, PlaysTheFileFrameByFrameAndLoopsAndStopsWithoutWaitingForTheNextFrame) {
    kptest::ScratchFolder folder("media-file");
    NSErrorRef error;
    EXPECT_FALSE(AVCaptureDevice::addMediaFileCamera(folder.file("missing.mov"), AVCaptureDevicePositionBack, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), AVErrorInvalidSourceMedia);
    ASSERT_EQ(recordPattern(folder.file("five.mov"), kNV12, 64, 48, 5), AVAssetWriterStatusCompleted);
    kptest::ManualMainQueue main;
    {
        Playback play(folder.file("five.mov"));
        EXPECT_EQ(AVCaptureDevice::devices().front(), play.device);
        ASSERT_TRUE(main.drainUntil([&] { return play.frames->count() >= 8; }, 60.0));
        play.session->stopRunning();
        dispatch_sync(play.queue, [] {});
        for (size_t i = 0; i < 8; ++i) { // in order, then the loop: each frame is nearest the one recorded
            std::vector<double> differences;
            for (int k = 0; k < 5; ++k) {
                differences.push_back(difference(play.frames->samples[i], patternFrame(kNV12, 64, 48, k, kCMTimeZero)));
            }
            EXPECT_EQ(std::min_element(differences.begin(), differences.end()) - differences.begin(), i % 5) << i;
            EXPECT_TRUE(i == 0 ||
                        CMTimeCompare(CMSampleBufferGetPresentationTimeStamp(play.frames->samples[i]),
                                      CMSampleBufferGetPresentationTimeStamp(play.frames->samples[i - 1])) > 0);
        }
    }
    // An hour between the first two frames: stopping ends the wait for the second at once (a wait would hang).
    ASSERT_EQ(recordPattern(folder.file("gap.mov"), kNV12, 64, 48, 2, std::nullopt,
                            [](int i) { return CMTimeMake(i * 3600, 1); }),
              AVAssetWriterStatusCompleted);
    Playback play(folder.file("gap.mov"));
    ASSERT_TRUE(main.drainUntil([&] { return play.frames->count() >= 1; }, 60.0));
    play.session->stopRunning();
    EXPECT_EQ(play.frames->count(), 1U);
    // A stream keeps its camera alive when the last reference goes in a frame.
    auto camera = MediaFileCamera::open(folder.file("five.mov"), &error);
    ASSERT_TRUE(camera);
    EXPECT_TRUE(kptest::LastReferenceSink::releaseInFirstFrame(std::move(camera)));
}

class PhotoAlbumTest : public ::testing::Test {
protected:
    void SetUp() override { setSavedPhotosAlbumDirectory(_root.file("Album/Nested")); }
    void TearDown() override {
        setSavedPhotosAlbumDirectory("");
        setSavedPhotosAlbumImageFormat(UIPhotoAlbumImageFormat::PNG);
    }

    // Saves the movie and waits for its completion; the error it reported and the album file it wrote.
    NSErrorRef saveVideo(const std::string& path, std::string* albumFile) {
        bool called = false;
        NSErrorRef result;
        int context = 7;
        UISaveVideoAtPathToSavedPhotosAlbum(
            path, UIVideoSaveCompletion([&](const std::string& saved, const NSErrorRef& error, void* info) {
                called = true;
                EXPECT_TRUE(NSThread::isMainThread() && saved == path && info == &context);
                result = error;
                *albumFile = savedPhotosAlbumFilePath();
            }),
            &context);
        EXPECT_TRUE(_main.drainUntil([&] { return called; }));
        return result;
    }

    kptest::ScratchFolder _root{"album"};
    kptest::ManualMainQueue _main;
};

TEST_F(PhotoAlbumTest, MoviesGetNewNamesInTheAlbumAndNothingIsOverwritten) {
    const std::string movie = _root.file("FrontCardData0.mov");
    const std::string album = _root.file("Album/Nested");
    const std::string names[] = {"FrontCardData0.mov", "FrontCardData0-1.mov", "FrontCardData0-2.mov"};
    for (size_t i = 0; i < 3; ++i) {
        fs::remove(movie);
        ASSERT_EQ(recordPattern(movie, kBGRA, 16, 16, static_cast<int>(2 + i)), AVAssetWriterStatusCompleted);
        std::string saved;
        EXPECT_FALSE(saveVideo(movie, &saved));
        EXPECT_EQ(saved, album + "/" + names[i]);
        // The same file system: the album's file is the movie itself, under a second name.
        EXPECT_TRUE(fs::equivalent(movie, saved));
    }
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(readAll(album + "/" + names[i], kBGRA).size(), 2 + i);
    }
    EXPECT_EQ(kptest::fileCount(album), 3U);
}

TEST_F(PhotoAlbumTest, FailuresNameTheCauseAndLeaveTheAlbumAsItWas) {
    ASSERT_EQ(recordPattern(_root.file("a.mov"), kBGRA, 16, 16, 2), AVAssetWriterStatusCompleted);
    std::ofstream(_root.file("empty.mov")).flush();
    std::ofstream(_root.file("blocked")) << "x";
    const std::string album = _root.file("Album/Nested");
    // A failed writer's empty file, a folder or a missing file never reach the album; an album that is a regular
    // file cannot take anything, whoever runs the test.
    const std::tuple<std::string, std::string, std::vector<std::string>> cases[] = {
        {_root.file("missing.mov"), album, {"missing.mov", "No such file"}},
        {_root.file("empty.mov"), album, {"empty.mov", "not a movie"}},
        {_root.path(), album, {"not a movie file"}},
        {_root.file("a.mov"), _root.file("blocked"), {"blocked", "Not a directory"}},
    };
    for (const auto& [movie, folder, said] : cases) {
        setSavedPhotosAlbumDirectory(folder);
        std::string saved = "unset";
        const auto error = saveVideo(movie, &saved);
        ASSERT_TRUE(error) << movie;
        for (const auto& part : said) {
            EXPECT_NE(error->localizedDescription().find(part), std::string::npos)
                << error->localizedDescription() << " lacks " << part;
        }
        EXPECT_EQ(saved, "");
    }
    EXPECT_EQ(kptest::fileCount(album), 0U);
    EXPECT_EQ(fs::file_size(_root.file("blocked")), 1U);
}

TEST_F(PhotoAlbumTest, ImagesAreStoredAsPngOrJpegInTheUsersPicturesFolderByDefault) {
    struct Target : UIPhotoAlbumSaveTarget {
        int images = 0;
        NSErrorRef last;
        void image(const UIImage&, const NSErrorRef& error, void*) override {
            ++images;
            last = error;
        }
    };
    auto target = std::make_shared<Target>();
    const auto picture = kptest::grayImage(24, 16, [](size_t x, size_t y) { return x * 9 + y * 3; });
    UIImageWriteToSavedPhotosAlbum(picture, target, nullptr);
    setSavedPhotosAlbumImageFormat(UIPhotoAlbumImageFormat::JPEG);
    UIImageWriteToSavedPhotosAlbum(picture, target, nullptr);
    UIImageWriteToSavedPhotosAlbum(UIImage::imageWithoutBitmap({4, 4}), target, nullptr);
    ASSERT_TRUE(_main.drainUntil([&] { return target->images == 3; }));
    ASSERT_TRUE(target->last) << "an image without a bitmap cannot be saved";
    std::set<std::string> extensions;
    for (const auto& e : fs::directory_iterator(_root.file("Album/Nested"))) {
        extensions.insert(e.path().extension().string());
        const auto back = UIImage::imageWithContentsOfFile(e.path().string());
        ASSERT_TRUE(back) << e.path();
        EXPECT_EQ(back->size().width, 24);
        EXPECT_EQ(e.path().filename().string().rfind("IMG_", 0), 0U);
    }
    EXPECT_EQ(extensions, (std::set<std::string>{".png", ".jpg"}));

    // The default album is in the user's pictures folder, which the user's folder settings may move.
    setSavedPhotosAlbumDirectory("");
    std::optional<std::string> old[2];
    for (int i = 0; i < 2; ++i) {
        const char* name = i == 0 ? "HOME" : "XDG_CONFIG_HOME";
        old[i] = std::getenv(name) ? std::optional<std::string>(std::getenv(name)) : std::nullopt;
        setenv(name, i == 0 ? _root.path().c_str() : _root.file("config").c_str(), 1);
    }
    EXPECT_EQ(savedPhotosAlbumDirectory(), _root.file("Pictures/KPImage"));
    fs::create_directories(_root.file("config"));
    std::ofstream(_root.file("config/user-dirs.dirs")) << "XDG_PICTURES_DIR=\"$HOME/Bilder\"\n";
    EXPECT_EQ(savedPhotosAlbumDirectory(), _root.file("Bilder/KPImage"));
    for (int i = 0; i < 2; ++i) {
        const char* name = i == 0 ? "HOME" : "XDG_CONFIG_HOME";
        old[i] ? setenv(name, old[i]->c_str(), 1) : unsetenv(name);
    }
}

} // namespace
