// SPDX-License-Identifier: MIT
// Pixel buffers and their pools, and media time arithmetic.
#include "KPImage/Platform/CMSampleBuffer.h"
#include "KPImage/Platform/CMTime.h"
#include "KPImage/Platform/CVPixelBuffer.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

using namespace kp;

TEST(CaptureMedia, PixelBufferLayoutsLocksAndRefusals) {
    // '420f' with odd sizes: chroma covers the last row and column and follows the luma plane.
    CVPixelBufferRef nv12;
    ASSERT_EQ(CVPixelBufferCreate(5, 3, kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, &nv12), kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferGetWidthOfPlane(nv12, 1), 3U);
    EXPECT_EQ(CVPixelBufferGetHeightOfPlane(nv12, 1), 2U);
    EXPECT_EQ(CVPixelBufferGetBaseAddressOfPlane(nv12, 0), nullptr) << "no address before the lock";
    ASSERT_EQ(CVPixelBufferLockBaseAddress(nv12, kCVPixelBufferLock_ReadOnly), kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferGetBaseAddressOfPlane(nv12, 1),
              static_cast<uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(nv12, 0)) +
                  CVPixelBufferGetBytesPerRowOfPlane(nv12, 0) * 3);
    // Bad sizes and formats are refused before anything is allocated.
    CVPixelBufferRef none = nv12;
    EXPECT_EQ(CVPixelBufferCreate(0, 5, kCVPixelFormatType_32BGRA, &none), kCVReturnInvalidSize);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(CVPixelBufferCreate(SIZE_MAX, SIZE_MAX, kCVPixelFormatType_32BGRA, &none), kCVReturnInvalidSize);
    EXPECT_EQ(CVPixelBufferCreate(16385, 1, kCVPixelFormatType_32BGRA, &none), kCVReturnInvalidSize);
    EXPECT_EQ(CVPixelBufferCreate(4, 4, 0x79757679 /* 'yuvy' */, &none), kCVReturnInvalidPixelFormat);
}

TEST(CaptureMedia, TimeArithmeticRoundsAwayFromZeroAndRefusesOverflow) {
    struct Case {
        int64_t value;
        int32_t from, to;
        int64_t expected;
    };
    for (const Case& c : {Case{1, 3, 1000, 333}, Case{-1, 3, 1000, -333}, Case{1, 2, 1, 1}, Case{-1, 2, 1, -1},
                          Case{-3, 4, 2, -2}, Case{3003, 90000, 30000, 1001}}) {
        SCOPED_TRACE(std::to_string(c.value) + "/" + std::to_string(c.from));
        const CMTime t = CMTimeConvertScale(CMTimeMake(c.value, c.from), c.to);
        EXPECT_EQ(t.value, c.expected);
        EXPECT_EQ(t.timescale, c.to);
    }
    const CMTime sum = CMTimeAdd(CMTimeMake(1, 3), CMTimeMake(1, 6));
    EXPECT_EQ(CMTimeCompare(sum, CMTimeMake(1, 2)), 0);
    EXPECT_EQ(CMTimeSubtract(CMTimeMake(1, 1), CMTimeMake(1, 4)).value, 3);
    EXPECT_TRUE(CMTIME_IS_INVALID(CMTimeAdd(CMTimeMake(INT64_MAX, 1), CMTimeMake(1, 1)))) << "overflow, not wrap";
    EXPECT_TRUE(CMTIME_IS_INVALID(CMTimeMake(1, 0)));
    EXPECT_TRUE(CMTIME_IS_INVALID(CMTimeMakeWithSeconds(std::numeric_limits<double>::infinity(), 600)));
    EXPECT_EQ(CMTimeCompare(kCMTimeInvalid, kCMTimeZero), -1);
}

TEST(CaptureMedia, PixelBufferPoolReusesTheMemoryOfBuffersLetGo) {
    CVPixelBufferPoolRef pool;
    EXPECT_EQ(CVPixelBufferPoolCreate(0, 8, kCVPixelFormatType_32BGRA, 2, &pool), kCVReturnInvalidSize);
    EXPECT_EQ(CVPixelBufferPoolCreate(8, 8, 0x79757679, 2, &pool), kCVReturnInvalidPixelFormat);
    ASSERT_EQ(CVPixelBufferPoolCreate(5, 3, kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, 2, &pool),
              kCVReturnSuccess);
    const size_t liveBefore = CVPixelBufferGetLiveCount();
    CVPixelBufferRef buffers[4];
    for (auto& b : buffers) {
        ASSERT_EQ(CVPixelBufferPoolCreatePixelBuffer(pool, &b), kCVReturnSuccess);
    }
    EXPECT_EQ(CVPixelBufferGetWidthOfPlane(buffers[0], 1), 3U) << "the layout is CVPixelBufferCreate's";
    const uint8_t* first = buffers[0]->bytes();
    CVPixelBufferLockBaseAddress(buffers[0], 0); // a lock does not travel with the memory
    buffers[0].reset();
    EXPECT_EQ(CVPixelBufferGetLiveCount(), liveBefore + 3) << "free memory in the pool is no live buffer";
    ASSERT_EQ(CVPixelBufferPoolCreatePixelBuffer(pool, &buffers[0]), kCVReturnSuccess);
    EXPECT_EQ(buffers[0]->bytes(), first);
    EXPECT_FALSE(buffers[0]->isLocked());
    // At most two free buffers are kept; the rest is freed. A buffer outlives its pool.
    for (auto& b : buffers) {
        b.reset();
    }
    EXPECT_EQ(pool->freeCount(), 2U);
    EXPECT_EQ(CVPixelBufferGetLiveCount(), liveBefore);
    ASSERT_EQ(CVPixelBufferPoolCreatePixelBuffer(pool, &buffers[0]), kCVReturnSuccess);
    EXPECT_EQ(pool->freeCount(), 1U);
    pool.reset();
    buffers[0]->bytes()[0] = 7;
    buffers[0].reset();
    EXPECT_EQ(CVPixelBufferGetLiveCount(), liveBefore);
}
