// SPDX-License-Identifier: MIT
// The camera-data recorder through the real movie writer and photo album, in scratch folders.
#include "KPImage/KPCameraRollHelper.h"
#include "KPImage/Platform/AVAssetReader.h"
#include "KPImage/Platform/Dispatch.h"
#include "KPImage/Platform/NSSearchPath.h"
#include "support/ManualMainQueue.h"
#include "support/MovieFrames.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;
using kp::KPCameraRollHelper;

class CameraRollTest : public ::testing::Test {
protected:
    void SetUp() override {
        kp::setDocumentsDirectory(_root.file("Documents"));
        fs::create_directories(_root.file("Documents"));
        kp::setSavedPhotosAlbumDirectory(_root.file("Album"));
        _recorder = KPCameraRollHelper::create();
    }
    void TearDown() override {
        kp::setDocumentsDirectory("");
        kp::setSavedPhotosAlbumDirectory("");
    }
    std::string folder() const { return _root.file("Documents") + "//SavedCameraData"; }
    std::string album() const { return _root.file("Album"); }
    // A small BGRA frame stamped at 7 s plus index / 30.
    static kp::CMSampleBufferRef frame(int index, bool ready = true) {
        return kptest::patternFrame(kp::kCVPixelFormatType_32BGRA, 32, 24, index, kp::CMTimeMake(210 + index, 30),
                                    ready);
    }
    // Stops and waits for the album callback to have counted the save.
    void stopAndWaitForSave(uint32_t counter) {
        ASSERT_TRUE(_recorder->stopSavingCameraData());
        ASSERT_TRUE(
            _main.drainUntil([&] { return !_recorder->isRecording() && _recorder->cameraDataCounter() == counter; }));
    }

    kptest::ScratchFolder _root{"recorder"};
    kptest::ManualMainQueue _main;
    kptest::LogCapture _log;
    std::shared_ptr<KPCameraRollHelper> _recorder;
};

TEST_F(CameraRollTest, FolderAndFilePathsKeepTheDoubledSeparatorAndTheCache) {
    EXPECT_EQ(_recorder->getCameraDataFolderPath(), folder());
    kp::setDocumentsDirectory(_root.file("Elsewhere"));
    EXPECT_EQ(_recorder->getCameraDataFolderPath(), folder()) << "cached after the first success";
    EXPECT_EQ(_recorder->getCameraDataFilePath()->path(), folder() + "/FrontCardData0.mov");
    _recorder->setCameraDataCounter(0xFFFFFFFFU);
    EXPECT_EQ(_recorder->getCameraDataFilePath()->path(), folder() + "/FrontCardData-1.mov");
    _recorder->video("", nullptr, nullptr);
    EXPECT_EQ(_recorder->cameraDataCounter(), 0U) << "the counter wraps";
}

TEST_F(CameraRollTest, RecordsFromTheFirstFrameAndHandsTheMovieToTheAlbum) {
    EXPECT_FALSE(_recorder->stopSavingCameraData()) << "idle";
    ASSERT_TRUE(_recorder->startSavingCameraData());
    const auto writer = _recorder->outputWriter();
    EXPECT_FALSE(_recorder->startSavingCameraData());
    EXPECT_TRUE(fs::is_directory(folder()));
    // Stopped while armed: stays armed, nothing saved, the same writer takes the next frame.
    EXPECT_TRUE(_recorder->stopSavingCameraData());
    EXPECT_TRUE(_recorder->isRecording());
    EXPECT_FALSE(_recorder->appendCameraData(frame(0, false))) << "data not ready";
    EXPECT_EQ(writer->status(), kp::AVAssetWriterStatusUnknown) << "a skipped frame does not start the writer";
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(_recorder->appendCameraData(frame(i)));
    }
    EXPECT_EQ(_recorder->outputWriter(), writer);
    stopAndWaitForSave(1);
    EXPECT_EQ(kptest::fileCount(folder()), 0U) << "the callback empties the working folder";
    EXPECT_EQ(_recorder->lastCameraDataSave()->albumPath, album() + "/FrontCardData0.mov");
    // The session starts at the first frame's time stamp, 7 s.
    auto reader =
        kp::AVAssetReader::assetReaderWithURL(kp::NSURL::fileURLWithPath(album() + "/FrontCardData0.mov"), nullptr);
    ASSERT_TRUE(reader);
    EXPECT_EQ(reader->videoTrack().frames, 10);
    EXPECT_DOUBLE_EQ(reader->videoTrack().startTime, 0.0);
    EXPECT_NEAR(reader->videoTrack().duration, 10.0 / 30.0, 1e-9);
}

TEST_F(CameraRollTest, FailedRecordingsAndSavesStillEndCountAndEmptyTheFolder) {
    // Something else takes the movie's name before the first frame: the writer never overwrites it.
    ASSERT_TRUE(_recorder->startSavingCameraData());
    std::ofstream(folder() + "/FrontCardData0.mov") << "someone else's";
    EXPECT_FALSE(_recorder->appendCameraData(frame(0)));
    EXPECT_EQ(_recorder->outputWriter()->status(), kp::AVAssetWriterStatusFailed);
    stopAndWaitForSave(1);
    ASSERT_TRUE(_recorder->lastCameraDataSave()->error) << "what the album was handed is not a movie";
    EXPECT_EQ(kptest::fileCount(album()), 0U);

    // The working folder deleted while recording: the writer fails clearly; the callback makes it again.
    ASSERT_TRUE(_recorder->startSavingCameraData());
    EXPECT_EQ(_recorder->videoFilePath()->path(), folder() + "/FrontCardData1.mov");
    for (int i = 0; i < 90; ++i) {
        if (i == 10) {
            fs::remove_all(folder());
        }
        _recorder->appendCameraData(frame(i));
    }
    ASSERT_TRUE(_recorder->outputWriter()->error());
    EXPECT_NE(_recorder->outputWriter()->error()->localizedDescription().find("was removed"), std::string::npos);
    stopAndWaitForSave(2);
    EXPECT_TRUE(fs::is_directory(folder()));
}

TEST_F(CameraRollTest, ImagesGoToTheAlbumAsPngAndDoNotCount) {
    _recorder->saveImageToCameraRoll(std::nullopt, nullptr);
    _recorder->saveImageToCameraRoll(kptest::grayImage(40, 30, [](size_t x, size_t y) { return x * 5 + y; }),
                                     std::make_shared<std::string>("front of card"));
    ASSERT_TRUE(_main.drainUntil([&] { return kptest::fileCount(album()) == 1; }));
    _main.drain();
    const auto entry = *fs::directory_iterator(album());
    EXPECT_EQ(kp::UIImage::imageWithContentsOfFile(entry.path().string())->size().width, 40);
    EXPECT_EQ(entry.path().extension(), ".png");
    EXPECT_EQ(_recorder->cameraDataCounter(), 0U);
}

TEST_F(CameraRollTest, FrameQueueAppendsWhileTheMainThreadStops) {
    ASSERT_TRUE(_recorder->startSavingCameraData());
    auto queue = kp::dispatch_queue_create("VideoDataOutputQueue", kp::DISPATCH_QUEUE_SERIAL);
    std::atomic<int> delivered{0};
    std::atomic<bool> running{true};
    std::function<void()> deliver = [&, recorder = _recorder] {
        const int i = delivered.fetch_add(1);
        recorder->appendCameraData(frame(i));
        if (running.load() && i < 2000) {
            kp::dispatch_async(queue, deliver);
        }
    };
    kp::dispatch_async(queue, deliver);
    ASSERT_TRUE(_main.drainUntil([&] { return delivered.load() > 15; }));
    stopAndWaitForSave(1);
    running = false;
    kp::dispatch_sync(queue, [] {});
    EXPECT_GE(kptest::fileCount(album()), 1U);
}

} // namespace
