// SPDX-License-Identifier: MIT
// Text drawing: the ink colour comes from the attributes alone, black when none is given.
#include "KPImage/Platform/NSStringDrawing.h"

#include "KPImage/Platform/UIGraphics.h"
#include "support/PixelProbe.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

using kptest::Rgba;

// Text drawn over white with red set as fill and stroke colour: the darkest pixel.
Rgba darkestOverWhite(const kp::NSStringAttributes& attributes) {
    kp::UIGraphicsBeginImageContextWithOptions(kp::CGSizeMake(120, 40), false, 1.0);
    const kp::CGContextRef context = kp::UIGraphicsGetCurrentContext();
    kp::UIColor::whiteColor().setFill();
    kp::CGContextFillRect(context, kp::CGRectMake(0, 0, 120, 40));
    kp::UIColor::redColor().set();
    kp::NSStringDrawInRect("HHHH", kp::CGRectMake(4, 4, 112, 32), attributes);
    const auto image = kp::UIGraphicsGetImageFromCurrentImageContext();
    kp::UIGraphicsEndImageContext();
    Rgba darkest{255, 255, 255, 255};
    for (size_t y = 0; y < 40; ++y) {
        for (size_t x = 0; x < 120; ++x) {
            const Rgba p = *kptest::pixelAt(*image, x, y);
            if (p.r + p.g + p.b < darkest.r + darkest.g + darkest.b) {
                darkest = p;
            }
        }
    }
    return darkest;
}

TEST(NSStringDrawing, InkIsBlackUnlessAForegroundColourIsGiven) {
    kp::NSStringAttributes attributes;
    attributes.font = kp::UIFont::boldSystemFontOfSize(24);
    EXPECT_EQ(darkestOverWhite(attributes), (Rgba{0, 0, 0, 255}));
    attributes.foregroundColor = kp::UIColor::blueColor();
    EXPECT_EQ(darkestOverWhite(attributes), (Rgba{0, 0, 255, 255}));
}

} // namespace
