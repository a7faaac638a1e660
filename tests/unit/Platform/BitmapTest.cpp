// SPDX-License-Identifier: MIT
// Geometry, bitmaps and the drawing context: rectangle rules, layout validation, size limits, cutting, layout
// conversion, drawing and text.
#include "KPImage/Platform/CGContext.h"
#include "KPImage/Platform/NSStringDrawing.h"
#include "KPImage/Platform/UIGraphics.h"
#include "support/PixelProbe.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <limits>
#include <numbers>

using namespace kp;
using kptest::Rgba;

TEST(Geometry, RectanglesFollowNullAndEmptyRulesAndTransformsComposeInPlatformOrder) {
    EXPECT_EQ(CGRectStandardize(CGRectMake(10, 10, -4, -6)), CGRectMake(6, 4, 4, 6));
    EXPECT_TRUE(CGRectIsNull(CGRectIntersection(CGRectMake(0, 0, 1, 1), CGRectMake(2, 2, 1, 1))));
    // Touching edges meet in an empty, not null, rectangle.
    EXPECT_EQ(CGRectIntersection(CGRectMake(0, 0, 1, 1), CGRectMake(1, 0, 1, 1)), CGRectMake(1, 0, 0, 1));
    EXPECT_EQ(CGRectUnion(CGRectNull, CGRectMake(1, 2, 3, 4)), CGRectMake(1, 2, 3, 4));
    EXPECT_FALSE(CGRectContainsRect(CGRectNull, CGRectZero) || CGRectContainsPoint(CGRectMake(0, 0, 2, 2), {2, 1}));
    EXPECT_EQ(CGRectIntegral(CGRectMake(0.5, 1.2, 2, 2.1)), CGRectMake(0, 1, 3, 3));
    EXPECT_TRUE(CGRectIsNull(CGRectInset(CGRectMake(0, 0, 10, 10), 6, 0)) && !CGRectIsNull(CGRectZero));
    EXPECT_DOUBLE_EQ(CGRectGetMidX(CGRectMake(10, 20, -4, 8)), 8);
    // translate(scale(1, -1), 0, -H) maps (x, y) to (x, H - y): the detector flip. 45 degrees of a 100 x 100
    // rectangle has a bounding box 141.42 wide.
    const CGAffineTransform flip = CGAffineTransformTranslate(CGAffineTransformMakeScale(1, -1), 0, -480);
    EXPECT_EQ(CGRectApplyAffineTransform(CGRectMake(10, 20, 100, 120), flip), CGRectMake(10, 340, 100, 120));
    EXPECT_NEAR(
        CGRectApplyAffineTransform(CGRectMake(0, 0, 100, 100), CGAffineTransformMakeRotation(std::numbers::pi / 4))
            .size.width,
        141.4213562, 1e-6);
}

TEST(Bitmap, CreationRefusesInconsistentOrOversizedLayouts) {
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
}

TEST(Bitmap, ContextsConvertEveryLayout) {
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
}

TEST(Bitmap, ImageContextsScaleAndNest) {
    UIGraphicsBeginImageContextWithOptions({10, 5}, false, 2.0);
    UIColor::redColor().set();
    UIGraphicsGetCurrentContext()->fillRect(CGRectMake(0, 0, 5, 5));
    UIGraphicsBeginImageContext({0, 0}); // fails, but keeps Begin/End balanced
    EXPECT_FALSE(UIGraphicsGetCurrentContext());
    EXPECT_FALSE(UIGraphicsGetImageFromCurrentImageContext());
    UIGraphicsEndImageContext();
    const auto image = UIGraphicsGetImageFromCurrentImageContext();
    UIGraphicsEndImageContext();
    ASSERT_TRUE(image && image->CGImage());
    EXPECT_EQ(image->CGImage()->width(), 20u);
    EXPECT_EQ(image->size(), CGSizeMake(10, 5));
    const uint8_t* px = image->CGImage()->bytes();
    EXPECT_EQ(std::vector<uint8_t>(px + 9 * 4, px + 10 * 4), (std::vector<uint8_t>{0, 0, 255, 255}));
    EXPECT_EQ(px[10 * 4 + 3], 0); // transparent beyond the fill
}

TEST(NSStringDrawing, InkIsBlackUnlessAForegroundColourIsGiven) {
    NSStringAttributes attributes;
    attributes.font = UIFont::boldSystemFontOfSize(24);
    for (const auto& [colour, ink] : {std::pair{std::optional<UIColor>{}, Rgba{0, 0, 0, 255}},
                                      std::pair{std::optional{UIColor::blueColor()}, Rgba{0, 0, 255, 255}}}) {
        // Text drawn over white with red set as fill and stroke colour: the darkest pixel is the ink.
        attributes.foregroundColor = colour;
        UIGraphicsBeginImageContextWithOptions(CGSizeMake(120, 40), false, 1.0);
        UIColor::whiteColor().setFill();
        CGContextFillRect(UIGraphicsGetCurrentContext(), CGRectMake(0, 0, 120, 40));
        UIColor::redColor().set();
        NSStringDrawInRect("HHHH", CGRectMake(4, 4, 112, 32), attributes);
        const auto image = UIGraphicsGetImageFromCurrentImageContext();
        UIGraphicsEndImageContext();
        Rgba darkest{255, 255, 255, 255};
        for (size_t i = 0; i < 120 * 40; ++i) {
            const Rgba p = *kptest::pixelAt(*image, i % 120, i / 120);
            darkest = p.r + p.g + p.b < darkest.r + darkest.g + darkest.b ? p : darkest;
        }
        EXPECT_EQ(darkest, ink);
    }
}
