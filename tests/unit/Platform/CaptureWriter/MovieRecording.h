// SPDX-License-Identifier: MIT
// Records frames of known content through the movie writer and reads movies back, for the writer's tests.
#pragma once

#include "KPImage/Platform/AVAssetReader.h"
#include "KPImage/Platform/AVAssetWriter.h"
#include "KPImage/Platform/NSThread.h"
#include "support/MovieFrames.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <vector>

namespace kptest {

/// Waits for a writer's finish handler.
class FinishWait {
public:
    std::function<void()> handler() {
        return [this] {
            std::lock_guard lock(_mutex);
            _done = true;
            _cv.notify_all();
        };
    }
    bool wait(double seconds = 20) {
        std::unique_lock lock(_mutex);
        return _cv.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return _done; });
    }

private:
    std::mutex _mutex;
    std::condition_variable _cv;
    bool _done = false;
};

/// Appends once the input is ready (up to 10 s); the append's result.
inline bool appendWhenReady(kp::AVAssetWriterInput& input, const kp::CMSampleBufferRef& frame) {
    for (int i = 0; i < 10000 && !input.isReadyForMoreMediaData(); ++i) {
        kp::NSThread::sleepForTimeInterval(0.001);
    }
    return input.appendSampleBuffer(frame);
}

/// Records count frames (pattern frames at 30 fps from firstTime) to path and waits for the finish.
inline kp::AVAssetWriterStatus recordPattern(const std::string& path, kp::OSType format, size_t width, size_t height,
                                             int count, std::optional<kp::AVOutputSettings> settings = std::nullopt,
                                             kp::CMTime firstTime = kp::CMTimeMake(0, 30)) {
    auto writer = kp::AVAssetWriter::assetWriterWithURL(kp::NSURL::fileURLWithPath(path),
                                                        kp::AVFileTypeQuickTimeMovie, nullptr);
    auto input = kp::AVAssetWriterInput::assetWriterInputWithMediaType(kp::AVMediaTypeVideo, std::move(settings));
    if (!writer) {
        return kp::AVAssetWriterStatusFailed;
    }
    writer->addInput(input);
    EXPECT_TRUE(writer->startWriting());
    writer->startSessionAtSourceTime(firstTime);
    for (int i = 0; i < count; ++i) {
        const kp::CMTime t = kp::CMTimeAdd(firstTime, kp::CMTimeMake(i, 30));
        EXPECT_TRUE(appendWhenReady(*input, patternFrame(format, width, height, i, t))) << "frame " << i;
    }
    input->markAsFinished();
    FinishWait done;
    writer->finishWritingWithCompletionHandler(done.handler());
    EXPECT_TRUE(done.wait());
    return writer->status();
}

/// Every frame of a movie in the given format (nil reader: empty).
inline std::vector<kp::CMSampleBufferRef> readAll(const std::string& path, kp::OSType format,
                                                  kp::AVAssetVideoTrackInfo* info = nullptr) {
    kp::NSErrorRef error;
    auto reader = kp::AVAssetReader::assetReaderWithURL(kp::NSURL::fileURLWithPath(path), &error);
    EXPECT_TRUE(reader) << (error ? error->localizedDescription() : "");
    std::vector<kp::CMSampleBufferRef> frames;
    if (!reader) {
        return frames;
    }
    if (info != nullptr) {
        *info = reader->videoTrack();
    }
    while (auto frame = reader->copyNextSampleBuffer(format)) {
        frames.push_back(frame);
    }
    return frames;
}

} // namespace kptest
