// SPDX-License-Identifier: MIT
// Pixel buffers and their pools, sample buffers and media time.
#include "KPImage/Platform/CMSampleBuffer.h"
#include "KPImage/Platform/CMTime.h"
#include "KPImage/Platform/CVPixelBuffer.h"
#include "KPImage/Platform/NSError.h"
#include "Platform/Media/PixelConverter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

using namespace kp;

TEST(CaptureMedia, PixelBufferLayoutsAndLock) {
    CVPixelBufferRef bgra;
    ASSERT_EQ(CVPixelBufferCreate(33, 7, kCVPixelFormatType_32BGRA, &bgra), kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferGetPixelFormatType(bgra), 0x42475241U);
    EXPECT_EQ(CVPixelBufferGetWidth(bgra), 33U);
    EXPECT_EQ(CVPixelBufferGetHeight(bgra), 7U);
    EXPECT_EQ(CVPixelBufferGetPlaneCount(bgra), 0U);
    EXPECT_FALSE(CVPixelBufferIsPlanar(bgra));
    EXPECT_GE(CVPixelBufferGetBytesPerRow(bgra), 33U * 4);
    EXPECT_EQ(CVPixelBufferGetBytesPerRow(bgra) % 64, 0U);
    EXPECT_EQ(CVPixelBufferGetBaseAddress(bgra), nullptr) << "no address before the lock";
    ASSERT_EQ(CVPixelBufferLockBaseAddress(bgra, 0), kCVReturnSuccess);
    EXPECT_NE(CVPixelBufferGetBaseAddressOfPlane(bgra, 0), nullptr);
    EXPECT_EQ(CVPixelBufferGetBaseAddressOfPlane(bgra, 1), nullptr);
    EXPECT_EQ(CVPixelBufferUnlockBaseAddress(bgra, 0), kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferUnlockBaseAddress(bgra, 0), kCVReturnError);
    EXPECT_EQ(CVPixelBufferGetBaseAddress(bgra), nullptr);

    // '420f' with odd sizes: chroma covers the last row and column.
    CVPixelBufferRef nv12;
    ASSERT_EQ(CVPixelBufferCreate(5, 3, kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, &nv12), kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferGetPlaneCount(nv12), 2U);
    EXPECT_EQ(CVPixelBufferGetWidthOfPlane(nv12, 1), 3U);
    EXPECT_EQ(CVPixelBufferGetHeightOfPlane(nv12, 1), 2U);
    EXPECT_GE(CVPixelBufferGetBytesPerRowOfPlane(nv12, 1), 6U);
    EXPECT_EQ(CVPixelBufferGetWidthOfPlane(nv12, 2), 0U);
    CVPixelBufferLockBaseAddress(nv12, kCVPixelBufferLock_ReadOnly);
    auto* y = static_cast<uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(nv12, 0));
    auto* c = static_cast<uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(nv12, 1));
    ASSERT_NE(y, nullptr);
    EXPECT_EQ(c, y + CVPixelBufferGetBytesPerRowOfPlane(nv12, 0) * 3);
    EXPECT_EQ(CVPixelBufferGetDataSize(nv12),
              CVPixelBufferGetBytesPerRowOfPlane(nv12, 0) * 3 + CVPixelBufferGetBytesPerRowOfPlane(nv12, 1) * 2);
    CVPixelBufferUnlockBaseAddress(nv12, kCVPixelBufferLock_ReadOnly);

    // Bad sizes and formats are refused before anything is allocated.
    CVPixelBufferRef none = bgra;
    EXPECT_EQ(CVPixelBufferCreate(0, 5, kCVPixelFormatType_32BGRA, &none), kCVReturnInvalidSize);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(CVPixelBufferCreate(SIZE_MAX, SIZE_MAX, kCVPixelFormatType_32BGRA, &none), kCVReturnInvalidSize);
    EXPECT_EQ(CVPixelBufferCreate(16385, 1, kCVPixelFormatType_32BGRA, &none), kCVReturnInvalidSize);
    EXPECT_EQ(CVPixelBufferCreate(4, 4, 0x79757679 /* 'yuvy' */, &none), kCVReturnInvalidPixelFormat);
    EXPECT_EQ(CVPixelBufferCreate(4, 4, kCVPixelFormatType_32BGRA, nullptr), kCVReturnInvalidArgument);
    EXPECT_EQ(CVPixelBufferGetWidth(nullptr), 0U);
    EXPECT_EQ(CVPixelBufferLockBaseAddress(nullptr, 0), kCVReturnInvalidArgument);

    const size_t live = CVPixelBufferGetLiveCount();
    bgra.reset();
    EXPECT_EQ(CVPixelBufferGetLiveCount(), live - 1);
}

TEST(CaptureMedia, SampleBuffersAndTime) {
    CVPixelBufferRef pixels;
    ASSERT_EQ(CVPixelBufferCreate(4, 4, kCVPixelFormatType_32BGRA, &pixels), kCVReturnSuccess);
    CMSampleTimingInfo timing;
    timing.presentationTimeStamp = CMTimeMake(3003, 90000);
    CMSampleBufferRef sample;
    ASSERT_EQ(CMSampleBufferCreateForImageBuffer(pixels, false, timing, &sample), noErr);
    EXPECT_EQ(CMSampleBufferGetImageBuffer(sample), pixels);
    EXPECT_FALSE(CMSampleBufferDataIsReady(sample));
    EXPECT_EQ(CMSampleBufferMakeDataReady(sample), noErr);
    EXPECT_TRUE(CMSampleBufferDataIsReady(sample));
    EXPECT_EQ(CMTimeCompare(CMSampleBufferGetPresentationTimeStamp(sample), CMTimeMake(1001, 30000)), 0);
    EXPECT_EQ(CMSampleBufferCreateForImageBuffer(nullptr, true, timing, &sample),
              kCMSampleBufferError_RequiredParameterMissing);
    EXPECT_EQ(sample, nullptr);
    EXPECT_EQ(CMSampleBufferGetImageBuffer(nullptr), nullptr);
    EXPECT_FALSE(CMSampleBufferDataIsReady(nullptr));
    EXPECT_TRUE(CMTIME_IS_INVALID(CMSampleBufferGetPresentationTimeStamp(nullptr)));

    EXPECT_DOUBLE_EQ(CMTimeGetSeconds(CMTimeMake(3, 2)), 1.5);
    EXPECT_TRUE(std::isnan(CMTimeGetSeconds(kCMTimeInvalid)));
    EXPECT_TRUE(CMTIME_IS_INVALID(CMTimeMake(1, 0)));
    const CMTime sum = CMTimeAdd(CMTimeMake(1, 3), CMTimeMake(1, 6));
    EXPECT_EQ(sum.timescale, 6);
    EXPECT_EQ(sum.value, 3);
    EXPECT_EQ(CMTimeSubtract(CMTimeMake(1, 1), CMTimeMake(1, 4)).value, 3);
    EXPECT_TRUE(CMTIME_IS_INVALID(CMTimeAdd(CMTimeMake(INT64_MAX, 1), CMTimeMake(1, 1)))) << "overflow, not wrap";
    EXPECT_EQ(CMTimeCompare(kCMTimeInvalid, kCMTimeZero), -1);
    EXPECT_EQ(CMTimeConvertScale(CMTimeMake(1, 3), 1000).value, 333);
    EXPECT_TRUE(CMTimeConvertScale(CMTimeMake(1, 3), 1000).flags & kCMTimeFlags_HasBeenRounded);
    EXPECT_TRUE(CMTIME_IS_INVALID(CMTimeMakeWithSeconds(std::numeric_limits<double>::infinity(), 600)));
    const CMTime earlier = CMClockGetHostTimeNow();
    const CMTime later = CMClockGetHostTimeNow();
    EXPECT_LE(CMTimeCompare(earlier, later), 0);

    auto error = NSError::errorWithDomain("Video not started", 101);
    EXPECT_EQ(error->domain(), "Video not started");
    EXPECT_EQ(error->code(), 101);
    EXPECT_TRUE(error->userInfo().empty());
    EXPECT_EQ(NSError::errorWithDescription("D", 1, "text")->localizedDescription(), "text");
}

TEST(CaptureMedia, PixelBufferPoolReusesTheMemoryOfBuffersLetGo) {
    CVPixelBufferPoolRef pool;
    EXPECT_EQ(CVPixelBufferPoolCreate(0, 8, kCVPixelFormatType_32BGRA, 2, &pool), kCVReturnInvalidSize);
    EXPECT_EQ(CVPixelBufferPoolCreate(8, 8, 0x79757679, 2, &pool), kCVReturnInvalidPixelFormat);
    EXPECT_FALSE(pool);
    CVPixelBufferRef none;
    EXPECT_EQ(CVPixelBufferPoolCreatePixelBuffer(nullptr, &none), kCVReturnInvalidArgument);
    ASSERT_EQ(CVPixelBufferPoolCreate(5, 3, kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, 2, &pool),
              kCVReturnSuccess);

    const size_t liveBefore = CVPixelBufferGetLiveCount();
    CVPixelBufferRef a, b, c;
    ASSERT_EQ(CVPixelBufferPoolCreatePixelBuffer(pool, &a), kCVReturnSuccess);
    ASSERT_EQ(CVPixelBufferPoolCreatePixelBuffer(pool, &b), kCVReturnSuccess);
    ASSERT_EQ(CVPixelBufferPoolCreatePixelBuffer(pool, &c), kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferGetLiveCount(), liveBefore + 3);
    // The layout is CVPixelBufferCreate's.
    EXPECT_EQ(CVPixelBufferGetPlaneCount(a), 2U);
    EXPECT_EQ(CVPixelBufferGetWidthOfPlane(a, 1), 3U);
    EXPECT_EQ(CVPixelBufferGetBytesPerRowOfPlane(a, 0) % 64, 0U);
    EXPECT_NE(a->bytes(), b->bytes());
    const uint8_t* memoryA = a->bytes();
    const uint8_t* memoryB = b->bytes();
    const uint8_t* memoryC = c->bytes();
    CVPixelBufferLockBaseAddress(a, 0); // a lock does not travel with the memory
    a.reset();
    EXPECT_EQ(pool->freeCount(), 1U);
    EXPECT_EQ(CVPixelBufferGetLiveCount(), liveBefore + 2) << "free memory in the pool is no live buffer";
    CVPixelBufferRef d;
    ASSERT_EQ(CVPixelBufferPoolCreatePixelBuffer(pool, &d), kCVReturnSuccess);
    EXPECT_EQ(d->bytes(), memoryA);
    EXPECT_FALSE(d->isLocked());
    // At most two free buffers are kept; the rest is freed.
    b.reset();
    c.reset();
    d.reset();
    EXPECT_EQ(pool->freeCount(), 2U);
    EXPECT_EQ(CVPixelBufferGetLiveCount(), liveBefore);
    ASSERT_EQ(CVPixelBufferPoolCreatePixelBuffer(pool, &a), kCVReturnSuccess);
    EXPECT_EQ(pool->freeCount(), 1U);
    EXPECT_TRUE(a->bytes() == memoryB || a->bytes() == memoryC) << "the third buffer let go was freed, not kept";
    // A buffer outlives its pool.
    pool.reset();
    a->bytes()[0] = 7;
    a.reset();
    EXPECT_EQ(CVPixelBufferGetLiveCount(), liveBefore);
}

TEST(CaptureMedia, ConverterFramesReuseTheMemoryOfFramesLetGo) {
    CVPixelBufferRef source;
    ASSERT_EQ(CVPixelBufferCreate(320, 240, kCVPixelFormatType_32BGRA, &source), kCVReturnSuccess);
    PixelConverter converter;
    auto first = converter.convert(source, kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, 320, 240);
    ASSERT_TRUE(first);
    const uint8_t* memory = first->bytes();
    const size_t size = first->dataSize();
    first.reset();
    // Memory the allocator would hand out again goes elsewhere while the converter keeps its own.
    std::vector<uint8_t> elsewhere(size, 1);
    auto second = converter.convert(source, kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, 320, 240);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->bytes(), memory);
    // Another size gets buffers of its own.
    auto small = converter.convert(source, kCVPixelFormatType_32BGRA, 160, 120);
    ASSERT_TRUE(small);
    EXPECT_EQ(CVPixelBufferGetWidth(small), 160U);
    EXPECT_NE(small->bytes(), memory);
    EXPECT_EQ(elsewhere[0], 1);
}
