// SPDX-License-Identifier: MIT
// The movie writer's states, refusals, back-pressure and failures; a recording killed mid-way.
#include "MovieRecording.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;
using kptest::patternFrame;

constexpr kp::OSType kBGRA = kp::kCVPixelFormatType_32BGRA;

struct Writer {
    std::shared_ptr<kp::AVAssetWriter> writer;
    std::shared_ptr<kp::AVAssetWriterInput> input;
};

Writer makeWriter(const std::string& path, std::optional<kp::AVOutputSettings> settings = std::nullopt) {
    Writer w;
    kp::NSErrorRef error;
    w.writer =
        kp::AVAssetWriter::assetWriterWithURL(kp::NSURL::fileURLWithPath(path), kp::AVFileTypeQuickTimeMovie, &error);
    EXPECT_TRUE(w.writer) << (error ? error->localizedDescription() : "");
    w.input = kp::AVAssetWriterInput::assetWriterInputWithMediaType(kp::AVMediaTypeVideo, std::move(settings));
    return w;
}

TEST(MovieWriterStates, CreationAndStartRefuseWhatTheyCannotWrite) {
    kptest::ScratchFolder folder("writer-create");
    kp::NSErrorRef error;
    EXPECT_FALSE(kp::AVAssetWriter::assetWriterWithURL(nullptr, kp::AVFileTypeQuickTimeMovie, &error));
    EXPECT_TRUE(error);
    EXPECT_FALSE(kp::AVAssetWriter::assetWriterWithURL(kp::NSURL::fileURLWithPath(folder.file("a.mp4")),
                                                       "public.mpeg-4", &error));
    // A file already there, or a regular file where the folder should be (which stops root as well): the writer
    // is made, its start fails naming the cause, and a finish still completes.
    std::ofstream(folder.file("taken.mov")) << "keep me";
    for (const auto& [path, cause] : {std::pair<std::string, std::string>{folder.file("taken.mov"), "taken.mov"},
                                      {folder.file("taken.mov") + "/movie.mov", "Not a directory"}}) {
        SCOPED_TRACE(path);
        auto [writer, input] = makeWriter(path);
        ASSERT_TRUE(writer);
        writer->addInput(input);
        EXPECT_FALSE(writer->startWriting());
        EXPECT_EQ(writer->status(), kp::AVAssetWriterStatusFailed);
        ASSERT_TRUE(writer->error());
        EXPECT_NE(writer->error()->localizedDescription().find(cause), std::string::npos);
        EXPECT_FALSE(input->appendSampleBuffer(patternFrame(kBGRA, 16, 16, 0, kp::kCMTimeZero)));
        kptest::FinishWait finished;
        writer->finishWritingWithCompletionHandler(finished.handler());
        EXPECT_TRUE(finished.wait());
    }
    std::ifstream kept(folder.file("taken.mov"));
    std::string text;
    std::getline(kept, text);
    EXPECT_EQ(text, "keep me");
}

TEST(MovieWriterStates, EveryOperationBeforeDuringAndAfterWriting) {
    kptest::ScratchFolder folder("writer-states");
    auto [writer, input] = makeWriter(folder.file("states.mov"));
    const auto frame = [](int i) { return patternFrame(kBGRA, 16, 16, i, kp::CMTimeMake(100 + i, 30)); };

    // Unknown: nothing is taken, nothing is on disk.
    EXPECT_EQ(writer->status(), kp::AVAssetWriterStatusUnknown);
    EXPECT_FALSE(input->isReadyForMoreMediaData());
    EXPECT_FALSE(input->appendSampleBuffer(frame(0)));
    EXPECT_FALSE(writer->canAddInput(kp::AVAssetWriterInput::assetWriterInputWithMediaType(kp::AVMediaTypeAudio, {})));
    EXPECT_TRUE(writer->canAddInput(input));
    writer->addInput(input);
    EXPECT_FALSE(writer->canAddInput(input));
    EXPECT_FALSE(writer->canAddInput(kp::AVAssetWriterInput::assetWriterInputWithMediaType(kp::AVMediaTypeVideo, {})))
        << "one video track";
    EXPECT_FALSE(fs::exists(folder.file("states.mov")));

    // Writing: frames need a session, readiness, data, and a valid later time stamp.
    ASSERT_TRUE(writer->startWriting());
    EXPECT_FALSE(writer->startWriting());
    EXPECT_EQ(writer->status(), kp::AVAssetWriterStatusWriting);
    EXPECT_FALSE(input->appendSampleBuffer(frame(0))) << "no session yet";
    writer->startSessionAtSourceTime(kp::CMTimeMake(100, 30));
    EXPECT_TRUE(input->isReadyForMoreMediaData());
    EXPECT_FALSE(input->appendSampleBuffer(patternFrame(kBGRA, 16, 16, 0, kp::CMTimeMake(99, 30)))) << "before start";
    EXPECT_FALSE(input->appendSampleBuffer(patternFrame(kBGRA, 16, 16, 0, kp::CMTimeMake(100, 30), false)));
    EXPECT_FALSE(input->appendSampleBuffer(patternFrame(kBGRA, 16, 16, 0, kp::kCMTimeInvalid)));
    EXPECT_FALSE(input->appendSampleBuffer(nullptr));
    EXPECT_TRUE(input->appendSampleBuffer(frame(0)));
    EXPECT_FALSE(input->appendSampleBuffer(frame(0))) << "same time stamp";
    EXPECT_TRUE(kptest::appendWhenReady(*input, frame(1)));
    input->markAsFinished();
    EXPECT_FALSE(input->isReadyForMoreMediaData());
    EXPECT_FALSE(input->appendSampleBuffer(frame(2)));

    // Completed: the handler runs on the writer's own queue, the movie has the two frames.
    kptest::FinishWait done;
    writer->finishWritingWithCompletionHandler(done.handler());
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(writer->status(), kp::AVAssetWriterStatusCompleted);
    EXPECT_FALSE(writer->error());
    writer->cancelWriting();
    EXPECT_EQ(writer->status(), kp::AVAssetWriterStatusCompleted) << "cancel after completion does nothing";
    EXPECT_EQ(kptest::readAll(folder.file("states.mov"), kBGRA).size(), 2U);
    kptest::FinishWait again;
    writer->finishWritingWithCompletionHandler(again.handler());
    EXPECT_TRUE(again.wait()) << "a finish when not writing still calls back";
}

TEST(MovieWriterStates, CancelDeletesThePartialMovieAndFinishWithoutFramesFails) {
    kptest::ScratchFolder folder("writer-cancel");
    auto [writer, input] = makeWriter(folder.file("cancelled.mov"));
    writer->addInput(input);
    ASSERT_TRUE(writer->startWriting());
    writer->startSessionAtSourceTime(kp::kCMTimeZero);
    EXPECT_TRUE(input->appendSampleBuffer(patternFrame(kBGRA, 16, 16, 0, kp::kCMTimeZero)));
    writer->cancelWriting();
    EXPECT_EQ(writer->status(), kp::AVAssetWriterStatusCancelled);
    EXPECT_FALSE(fs::exists(folder.file("cancelled.mov")));
    EXPECT_FALSE(input->isReadyForMoreMediaData());

    auto empty = makeWriter(folder.file("empty.mov"));
    empty.writer->addInput(empty.input);
    ASSERT_TRUE(empty.writer->startWriting());
    kptest::FinishWait done;
    empty.writer->finishWritingWithCompletionHandler(done.handler());
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(empty.writer->status(), kp::AVAssetWriterStatusFailed);
    EXPECT_EQ(empty.writer->error()->code(), kp::AVErrorNoDataCaptured);
}

TEST(MovieWriterStates, AFullQueueRefusesFramesAtOnceAndKeepsEveryAcceptedOne) {
    kptest::ScratchFolder folder("writer-pressure");
    auto [writer, input] = makeWriter(folder.file("pressure.mov"));
    writer->addInput(input);
    ASSERT_TRUE(writer->startWriting());
    writer->startSessionAtSourceTime(kp::kCMTimeZero);
    // Large frames handed over far faster than they are written.
    std::vector<kp::CMSampleBufferRef> frames;
    for (int i = 0; i < 40; ++i) {
        frames.push_back(patternFrame(kBGRA, 1280, 720, i, kp::CMTimeMake(i, 30)));
    }
    int accepted = 0;
    bool sawNotReady = false;
    for (const auto& f : frames) {
        sawNotReady |= !input->isReadyForMoreMediaData();
        accepted += input->appendSampleBuffer(f) ? 1 : 0;
    }
    EXPECT_TRUE(sawNotReady);
    EXPECT_LT(accepted, 40);
    EXPECT_GE(accepted, static_cast<int>(kp::AVAssetWriterInput::kQueueCapacity));
    frames.clear();
    input->markAsFinished();
    kptest::FinishWait done;
    writer->finishWritingWithCompletionHandler(done.handler());
    ASSERT_TRUE(done.wait());
    auto reader =
        kp::AVAssetReader::assetReaderWithURL(kp::NSURL::fileURLWithPath(folder.file("pressure.mov")), nullptr);
    ASSERT_TRUE(reader);
    EXPECT_EQ(reader->videoTrack().frames, accepted);
}

// Run as a child by the kill test: records until killed.
TEST(MovieWriterKilled, ChildRecordsUntilKilled) {
    const char* path = std::getenv("KPIMAGE_KILL_TEST_MOVIE");
    const char* ready = std::getenv("KPIMAGE_KILL_TEST_READY");
    if (path == nullptr || ready == nullptr) {
        GTEST_SKIP() << "runs only as the child of MovieWriterKilled.LeavesAMovieOfAllButTheLastSecond";
    }
    auto [writer, input] = makeWriter(path);
    writer->addInput(input);
    ASSERT_TRUE(writer->startWriting());
    writer->startSessionAtSourceTime(kp::kCMTimeZero);
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(kptest::appendWhenReady(*input, patternFrame(kBGRA, 64, 48, i, kp::CMTimeMake(i, 30))));
    }
    // Let the queue drain, then tell the parent; it kills this process during the fourth second.
    for (int i = 0; i < 1000 && !input->isReadyForMoreMediaData(); ++i) {
        kp::NSThread::sleepForTimeInterval(0.001);
    }
    kp::NSThread::sleepForTimeInterval(0.2);
    std::ofstream(ready) << "ready";
    for (int i = 100;; ++i) {
        kptest::appendWhenReady(*input, patternFrame(kBGRA, 64, 48, i, kp::CMTimeMake(i, 30)));
        kp::NSThread::sleepForTimeInterval(1.0);
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
    bool childReady = false;
    for (int i = 0; i < 3000 && !childReady; ++i) {
        childReady = fs::exists(ready);
        kp::NSThread::sleepForTimeInterval(0.01);
    }
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(childReady) << "the child did not record";
    EXPECT_TRUE(WIFSIGNALED(status));
    // 100 frames were handed over; every whole second of them (90) must read back, exactly.
    kp::AVAssetVideoTrackInfo info;
    const auto frames = kptest::readAll(movie, kBGRA, &info);
    EXPECT_GE(frames.size(), 70U);
    EXPECT_EQ(static_cast<int64_t>(frames.size()), info.frames);
    for (size_t i = 0; i < frames.size(); ++i) {
        const auto expected = patternFrame(kBGRA, 64, 48, static_cast<int>(i), kp::kCMTimeZero);
        ASSERT_TRUE(
            kptest::samePixels(kp::CMSampleBufferGetImageBuffer(frames[i]), kp::CMSampleBufferGetImageBuffer(expected)))
            << "frame " << i;
    }
}

} // namespace
