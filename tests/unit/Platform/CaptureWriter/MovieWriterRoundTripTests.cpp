// SPDX-License-Identifier: MIT
// Movies written by the movie writer read back with FFmpeg: frame count, size, pixel format, time stamps and pixels.
#include "MovieRecording.h"

#include <gtest/gtest.h>

#include <algorithm>

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
    const RawCase cases[] = {{kp::kCVPixelFormatType_32BGRA, 50, 30, "BGRA", "bgra"},
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
        {kp::AVVideoCodecTypeFFV1, kp::kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, "ffv1", 0},
        {kp::AVVideoCodecTypeH264, kp::kCVPixelFormatType_32BGRA, "h264", 6},
        {kp::AVVideoCodecTypeHEVC, kp::kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, "hevc", 6},
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
        kp::AVOutputSettings settings{{kp::AVVideoCodecKey, std::string(c.codec)}, {kp::AVVideoQualityKey, 0.9}};
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

// A grey frame of another camera: level inside the centre box (cx, cy, cw, ch), white around it.
kp::CMSampleBufferRef boxedFrame(kp::OSType format, size_t width, size_t height, size_t cx, size_t cy, size_t cw,
                                 size_t ch, uint8_t level, int64_t tick) {
    kp::CVPixelBufferRef pixels;
    EXPECT_EQ(kp::CVPixelBufferCreate(width, height, format, &pixels), kp::kCVReturnSuccess);
    const bool bgra = format == kp::kCVPixelFormatType_32BGRA;
    for (size_t y = 0; y < height; ++y) {
        uint8_t* row = pixels->bytes() + pixels->plane(0).offset + y * pixels->plane(0).bytesPerRow;
        for (size_t x = 0; x < width; ++x) {
            const uint8_t v = x >= cx && x < cx + cw && y >= cy && y < cy + ch ? level : 255;
            if (bgra) {
                row[x * 4] = row[x * 4 + 1] = row[x * 4 + 2] = v;
                row[x * 4 + 3] = 255;
            } else {
                row[x] = v;
            }
        }
    }
    if (!bgra) {
        const auto& chroma = pixels->plane(1);
        for (size_t y = 0; y < chroma.height; ++y) {
            std::fill_n(pixels->bytes() + chroma.offset + y * chroma.bytesPerRow, chroma.width * 2, uint8_t{128});
        }
    }
    kp::CMSampleTimingInfo timing;
    timing.presentationTimeStamp = kp::CMTimeMake(tick, 30);
    timing.duration = kp::CMTimeMake(1, 30);
    kp::CMSampleBufferRef sample;
    kp::CMSampleBufferCreateForImageBuffer(pixels, true, timing, &sample);
    return sample;
}

TEST(MovieWriterRoundTrip, ACameraOfAnotherSizeOrFormatJoinsTheMovieAtItsSize) {
    constexpr kp::OSType kBGRA = kp::kCVPixelFormatType_32BGRA;
    constexpr kp::OSType kNV12 = kp::kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
    struct Case {
        kp::OSType movie;
        kp::OSType other;
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
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        const std::string path = folder.file("switch" + std::to_string(c.width) + ".mov");
        auto writer = kp::AVAssetWriter::assetWriterWithURL(kp::NSURL::fileURLWithPath(path),
                                                            kp::AVFileTypeQuickTimeMovie, nullptr);
        auto input = kp::AVAssetWriterInput::assetWriterInputWithMediaType(kp::AVMediaTypeVideo, std::nullopt);
        writer->addInput(input);
        ASSERT_TRUE(writer->startWriting());
        writer->startSessionAtSourceTime(kp::kCMTimeZero);
        for (int i = 0; i < 6; ++i) {
            EXPECT_TRUE(kptest::appendWhenReady(
                *input, i < 3 ? patternFrame(c.movie, 32, 24, i, kp::CMTimeMake(i, 30))
                              : boxedFrame(c.other, c.width, c.height, c.cx, c.cy, c.cw, c.ch, 60, i)))
                << "frame " << i;
        }
        input->markAsFinished();
        kptest::FinishWait done;
        writer->finishWritingWithCompletionHandler(done.handler());
        ASSERT_TRUE(done.wait());
        ASSERT_EQ(writer->status(), kp::AVAssetWriterStatusCompleted);
        kp::AVAssetVideoTrackInfo info;
        const auto frames = readAll(path, kBGRA, &info);
        ASSERT_EQ(frames.size(), 6U);
        EXPECT_EQ(info.width, 32);
        EXPECT_EQ(info.height, 24);
        // The other camera's frames keep only their centre, grey 60 (within the RGB / YUV conversions' rounding);
        // none of the white around it, which would move the mean by about 100.
        const auto grey = boxedFrame(kBGRA, 32, 24, 0, 0, 32, 24, 60, 0);
        for (size_t i = 3; i < 6; ++i) {
            EXPECT_LT(kptest::meanDifference(kp::CMSampleBufferGetImageBuffer(frames[i]),
                                             kp::CMSampleBufferGetImageBuffer(grey)),
                      12.0)
                << "frame " << i;
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
