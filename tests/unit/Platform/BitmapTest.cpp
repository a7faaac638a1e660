// SPDX-License-Identifier: MIT
// Bitmaps and the drawing context: layout validation, size limits, cutting, layout conversion and drawing.
#include "KPImage/Platform/CGContext.h"
#include "KPImage/Platform/UIGraphics.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <limits>

using namespace kp;

TEST(Bitmap, CreationRefusesInconsistentOrOversizedLayoutsAndCutsClip) {
    const auto rgb = CGColorSpaceCreateDeviceRGB(), grey = CGColorSpaceCreateDeviceGray();
    const auto bytes = CGDataProviderCreateWithData(std::vector<uint8_t>(400));
    const size_t huge = std::numeric_limits<size_t>::max() / 2;
    EXPECT_TRUE(CGImageCreate(10, 10, 8, 32, 40, rgb, kKPBitmapInfoBGRA, bytes));
    EXPECT_FALSE(CGImageCreate(10, 10, 8, 24, 40, rgb, kKPBitmapInfoBGRA, bytes)); // alpha needs 32 bits
    EXPECT_FALSE(CGImageCreate(10, 10, 8, 32, 39, rgb, kKPBitmapInfoBGRA, bytes)); // row too short
    EXPECT_FALSE(CGImageCreate(10, 11, 8, 32, 40, rgb, kKPBitmapInfoBGRA, bytes)); // provider too small
    EXPECT_FALSE(CGImageCreate(0, 10, 8, 8, 10, grey, 0, bytes));
    EXPECT_FALSE(CGImageCreate(10, 10, 8, 8, 10, nullptr, 0, bytes));
    // The last row needs only its own pixels, not a whole bytes-per-row.
    EXPECT_TRUE(CGImageCreate(10, 10, 8, 8, 40, grey, 0, CGDataProviderCreateWithData(std::vector<uint8_t>(370))));
    // Products that overflow 64 bits or exceed the pixel limit are refused before anything is read.
    EXPECT_FALSE(CGImageCreate(huge, huge, 8, 8, huge, grey, 0, bytes));
    EXPECT_FALSE(CGImageCreate(size_t{1} << 16, (size_t{1} << 14) + 1, 8, 8, size_t{1} << 16, grey, 0, bytes));
    EXPECT_FALSE(CGBitmapContextCreate(nullptr, huge, 2, 8, 0, grey, 0));
    EXPECT_FALSE(CGBitmapContextCreate(nullptr, 4, 4, 8, 3, grey, 0));
    EXPECT_FALSE(CGBitmapContextCreate(nullptr, 4, 4, 8, 0, CGColorSpaceCreateWithModel(kCGColorSpaceModelCMYK), 0));

    std::vector<uint8_t> px(6 * 4);
    for (size_t i = 0; i < px.size(); ++i) {
        px[i] = static_cast<uint8_t>(i);
    }
    const auto image = kptest::makeGray(6, 4, px);
    const auto cut = CGImageCreateWithImageInRect(image, CGRectMake(4, 2, 10, 10));
    ASSERT_TRUE(cut && cut->height() == 2u);
    EXPECT_EQ(std::vector<uint8_t>(cut->bytes(), cut->bytes() + 4), (std::vector<uint8_t>{16, 17, 22, 23}));
    EXPECT_FALSE(CGImageCreateWithImageInRect(image, CGRectMake(6, 0, 3, 3)));
    EXPECT_FALSE(CGImageCreateWithImageInRect(nullptr, CGRectMake(0, 0, 1, 1)));
}

TEST(Bitmap, ContextsConvertEveryLayoutAndStrokeOneUnitWide) {
    struct Case {
        const char* name;
        CGColorSpaceRef space;
        CGBitmapInfo info;
        std::vector<uint8_t> red; // a fully opaque pure red pixel in that layout
    };
    const auto rgb = CGColorSpaceCreateDeviceRGB();
    const Case cases[] = {
        {"grey", CGColorSpaceCreateDeviceGray(), kCGImageAlphaNone, {77}},
        {"rgb", rgb, kCGImageAlphaNone, {255, 0, 0}},
        {"rgba", rgb, kCGImageAlphaLast, {255, 0, 0, 255}},
        {"rgbx", rgb, kCGImageAlphaNoneSkipLast, {255, 0, 0, 255}},
        {"argb", rgb, kCGImageAlphaPremultipliedFirst, {255, 255, 0, 0}},
        {"bgra", rgb, kKPBitmapInfoBGRA, {0, 0, 255, 255}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const size_t bpp = c.red.size();
        CGContextRef ctx = CGBitmapContextCreate(nullptr, 3, 2, 8, 0, c.space, c.info);
        ASSERT_TRUE(ctx);
        ctx->setFillColor({1, 0, 0, 1});
        ctx->fillRect(CGRectMake(1, 0, 1, 2));
        const auto* data = static_cast<const uint8_t*>(ctx->data());
        EXPECT_EQ(std::vector<uint8_t>(data + bpp, data + 2 * bpp), c.red);
        EXPECT_EQ(data[0], 0); // untouched pixels stay zero
        // Drawn into a BGRA context: red again (or its grey).
        CGContextRef out = CGBitmapContextCreate(nullptr, 3, 2, 8, 0, rgb, kKPBitmapInfoBGRA);
        out->drawImage(CGRectMake(0, 0, 3, 2), ctx->createImage());
        const auto* o = static_cast<const uint8_t*>(out->data());
        EXPECT_EQ(std::vector<uint8_t>(o + 4, o + 8),
                  bpp == 1 ? (std::vector<uint8_t>{77, 77, 77, 255}) : (std::vector<uint8_t>{0, 0, 255, 255}));
    }

    CGContextRef ctx = CGBitmapContextCreate(nullptr, 11, 10, 8, 0, CGColorSpaceCreateDeviceGray(), kCGImageAlphaNone);
    ctx->setStrokeColor({1, 1, 1, 1});
    ctx->moveToPoint(5.5, 0);
    ctx->addLineToPoint(5.5, 10);
    ctx->strokePath();
    const auto* row = static_cast<const uint8_t*>(ctx->data()) + 4 * ctx->bytesPerRow();
    EXPECT_EQ(std::vector<uint8_t>(row + 4, row + 7), (std::vector<uint8_t>{0, 255, 0}));
}

TEST(Bitmap, ImageContextsScaleNestAndDrawOrientedImagesUpright) {
    UIGraphicsBeginImageContextWithOptions({10, 5}, false, 2.0);
    UIColor::redColor().set();
    UIGraphicsGetCurrentContext()->fillRect(CGRectMake(0, 0, 5, 5));
    UIGraphicsBeginImageContext({0, 0}); // fails, but keeps Begin/End balanced
    EXPECT_FALSE(UIGraphicsGetCurrentContext());
    EXPECT_FALSE(UIGraphicsGetImageFromCurrentImageContext());
    UIGraphicsEndImageContext();
    // A 2 x 1 bitmap (black, white) stored "right": shown as 1 x 2 with black on top.
    const UIImage right = UIImage::imageWithCGImage(kptest::makeGray(2, 1, {0, 255}), 1.0, UIImageOrientationRight);
    EXPECT_EQ(right.size(), CGSizeMake(1, 2));
    right.drawAtPoint({6, 0});
    const auto image = UIGraphicsGetImageFromCurrentImageContext();
    UIGraphicsEndImageContext();
    ASSERT_TRUE(image && image->CGImage());
    EXPECT_EQ(image->CGImage()->width(), 20u);
    EXPECT_EQ(image->size(), CGSizeMake(10, 5));
    const uint8_t* px = image->CGImage()->bytes();
    const size_t row = image->CGImage()->bytesPerRow();
    EXPECT_EQ(std::vector<uint8_t>(px + 9 * 4, px + 10 * 4), (std::vector<uint8_t>{0, 0, 255, 255}));
    EXPECT_EQ(px[10 * 4 + 3], 0); // transparent beyond the fill
    EXPECT_EQ(std::vector<uint8_t>(px + 12 * 4, px + 13 * 4), (std::vector<uint8_t>{0, 0, 0, 255})); // top: black
    EXPECT_EQ(px[3 * row + 12 * 4], 255);                                                            // bottom: white
}

TEST(Bitmap, ImagesTooWideToShowFailTheContext) {
    // 40000 x 2 is a valid bitmap, but wider than Cairo can show.
    for (const auto& wide : {kptest::makeBGRA(40000, 2, std::vector<uint8_t>(40000 * 2 * 4, 255)),
                             kptest::makeGray(40000, 2, std::vector<uint8_t>(40000 * 2, 255))}) {
        ASSERT_TRUE(wide);
        const CGContextRef context =
            CGBitmapContextCreate(nullptr, 16, 16, 8, 0, CGColorSpaceCreateDeviceRGB(), kKPBitmapInfoBGRA);
        EXPECT_FALSE(context->failed());
        CGContextDrawImage(context, CGRectMake(0, 0, 16, 16), wide);
        EXPECT_TRUE(context->failed());
        CGContextFillRect(context, CGRectMake(0, 0, 4, 4)); // later drawing neither crashes nor brings images back
        EXPECT_FALSE(CGBitmapContextCreateImage(context));
        UIGraphicsBeginImageContext({8, 8});
        UIImage::imageWithCGImage(wide).drawInRect(CGRectMake(0, 0, 8, 8));
        EXPECT_FALSE(UIGraphicsGetImageFromCurrentImageContext());
        UIGraphicsEndImageContext();
    }
}
