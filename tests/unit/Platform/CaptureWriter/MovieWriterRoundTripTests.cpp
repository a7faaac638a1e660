// SPDX-License-Identifier: MIT
// Movies written by the movie writer read back with FFmpeg: frame count, size, pixel format, time stamps and pixels.
#include "MovieRecording.h"

#include <gtest/gtest.h>

namespace {

using kptest::patternFrame;
using kptest::readAll;
using kptest::recordPattern;

struct RawCase {
    kp::OSType format;
    size_t width;
    size_t height;
    const char* tag;
    const char* pixelFormat;
};

TEST(MovieWriterRoundTrip, RawFramesAreStoredAsDeliveredWithTheirTimeStamps) {
    // 50 pixels wide: the pixel buffers' rows are padded, the movie's rows are not.
    const RawCase cases[] = {{kp::kCVPixelFormatType_32BGRA, 64, 48, "BGRA", "bgra"},
                             {kp::kCVPixelFormatType_32BGRA, 50, 30, "BGRA", "bgra"},
                             {kp::kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, 64, 48, "NV12", "nv12"},
                             {kp::kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, 50, 30, "NV12", "nv12"}};
    kptest::ScratchFolder folder("raw");
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.tag) + " " + std::to_string(c.width));
        const std::string path = folder.file(std::string(c.tag) + std::to_string(c.width) + ".mov");
        // A session that starts at 100 s of host time: the movie starts at 0.
        const kp::CMTime start = kp::CMTimeMake(3000, 30);
        ASSERT_EQ(recordPattern(path, c.format, c.width, c.height, 45, std::nullopt, start),
                  kp::AVAssetWriterStatusCompleted);
        kp::AVAssetVideoTrackInfo info;
        const auto frames = readAll(path, c.format, &info);
        EXPECT_EQ(info.codec, "rawvideo");
        EXPECT_EQ(info.codecTag, c.tag);
        EXPECT_EQ(info.pixelFormat, c.pixelFormat);
        EXPECT_EQ(info.width, static_cast<int32_t>(c.width));
        EXPECT_EQ(info.height, static_cast<int32_t>(c.height));
        EXPECT_EQ(info.frames, 45);
        EXPECT_DOUBLE_EQ(info.startTime, 0.0);
        EXPECT_NEAR(info.duration, 1.5, 1e-9);
        ASSERT_EQ(frames.size(), 45U);
        for (size_t i = 0; i < frames.size(); ++i) {
            const auto expected = patternFrame(c.format, c.width, c.height, static_cast<int>(i), kp::kCMTimeZero);
            EXPECT_TRUE(kptest::samePixels(kp::CMSampleBufferGetImageBuffer(frames[i]),
                                           kp::CMSampleBufferGetImageBuffer(expected)))
                << "frame " << i;
            EXPECT_EQ(kp::CMTimeCompare(kp::CMSampleBufferGetPresentationTimeStamp(frames[i]),
                                        kp::CMTimeMake(static_cast<int64_t>(i), 30)),
                      0)
                << "frame " << i;
        }
    }
}

TEST(MovieWriterRoundTrip, EncodedMoviesKeepFramesAndTimes) {
    struct EncodedCase {
        const char* codec;
        kp::OSType format;
        const char* name;
        double maxDifference; // 0: lossless
    };
    const EncodedCase cases[] = {
        {kp::AVVideoCodecTypeFFV1, kp::kCVPixelFormatType_32BGRA, "ffv1", 0},
        {kp::AVVideoCodecTypeFFV1, kp::kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, "ffv1", 0},
        {kp::AVVideoCodecTypeH264, kp::kCVPixelFormatType_32BGRA, "h264", 6},
        {kp::AVVideoCodecTypeH264, kp::kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, "h264", 6},
        {kp::AVVideoCodecTypeHEVC, kp::kCVPixelFormatType_32BGRA, "hevc", 6},
    };
    kptest::ScratchFolder folder("encoded");
    int index = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.name) + (c.format == kp::kCVPixelFormatType_32BGRA ? " BGRA" : " 420f"));
        if (!kp::AVVideoCodecTypeIsAvailable(c.codec)) {
            std::cout << "[ SKIPPED  ] " << c.name << ": this FFmpeg has no encoder for it\n";
            continue;
        }
        const std::string path = folder.file("movie" + std::to_string(index++) + ".mov");
        kp::AVOutputSettings settings{{kp::AVVideoCodecKey, std::string(c.codec)},
                                      {kp::AVVideoQualityKey, 0.9}};
        ASSERT_EQ(recordPattern(path, c.format, 64, 48, 40, settings), kp::AVAssetWriterStatusCompleted);
        kp::AVAssetVideoTrackInfo info;
        const auto frames = readAll(path, c.format, &info);
        EXPECT_EQ(info.codec, c.name);
        EXPECT_EQ(info.width, 64);
        EXPECT_EQ(info.height, 48);
        EXPECT_EQ(info.frames, 40);
        ASSERT_EQ(frames.size(), 40U);
        double worst = 0;
        for (size_t i = 0; i < frames.size(); ++i) {
            const auto expected = patternFrame(c.format, 64, 48, static_cast<int>(i), kp::kCMTimeZero);
            worst = std::max(worst, kptest::meanDifference(kp::CMSampleBufferGetImageBuffer(frames[i]),
                                                           kp::CMSampleBufferGetImageBuffer(expected)));
            EXPECT_EQ(kp::CMTimeCompare(kp::CMSampleBufferGetPresentationTimeStamp(frames[i]),
                                        kp::CMTimeMake(static_cast<int64_t>(i), 30)),
                      0)
                << "frame " << i;
        }
        if (c.maxDifference == 0) {
            EXPECT_EQ(worst, 0.0);
        } else {
            EXPECT_LT(worst, c.maxDifference);
        }
    }
}

TEST(MovieWriterRoundTrip, OutputSizeScalesTheFrames) {
    kptest::ScratchFolder folder("scaled");
    const std::string path = folder.file("small.mov");
    kp::AVOutputSettings settings{{kp::AVVideoCodecKey, std::string(kp::AVVideoCodecTypeH264)},
                                  {kp::AVVideoWidthKey, int64_t{32}},
                                  {kp::AVVideoHeightKey, int64_t{24}},
                                  {kp::AVVideoAverageBitRateKey, int64_t{200000}}};
    ASSERT_EQ(recordPattern(path, kp::kCVPixelFormatType_32BGRA, 64, 48, 10, settings),
              kp::AVAssetWriterStatusCompleted);
    kp::AVAssetVideoTrackInfo info;
    EXPECT_EQ(readAll(path, kp::kCVPixelFormatType_32BGRA, &info).size(), 10U);
    EXPECT_EQ(info.width, 32);
    EXPECT_EQ(info.height, 24);
}

} // namespace
