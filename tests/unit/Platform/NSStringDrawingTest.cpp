// SPDX-License-Identifier: MIT
// Text drawing: the ink colour comes from the attributes alone, black when none is given.
#include "KPImage/Platform/NSStringDrawing.h"

#include "KPImage/Platform/UIGraphics.h"
#include "support/PixelProbe.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

using kptest::Rgba;

// Text drawn over white with red set as fill and stroke colour; the darkest pixel and the number of inked
// pixels (those that differ from white).
struct Ink {
    Rgba darkest{255, 255, 255, 255};
    size_t count = 0;
};

Ink drawOverWhite(const kp::NSStringAttributes& attributes) {
    kp::UIGraphicsBeginImageContextWithOptions(kp::CGSizeMake(120, 40), false, 1.0);
    const kp::CGContextRef context = kp::UIGraphicsGetCurrentContext();
    kp::UIColor::whiteColor().setFill();
    kp::CGContextFillRect(context, kp::CGRectMake(0, 0, 120, 40));
    kp::UIColor::redColor().set();
    kp::NSStringDrawInRect("HHHH", kp::CGRectMake(4, 4, 112, 32), attributes);
    const auto image = kp::UIGraphicsGetImageFromCurrentImageContext();
    kp::UIGraphicsEndImageContext();
    Ink ink;
    for (size_t y = 0; y < 40; ++y) {
        for (size_t x = 0; x < 120; ++x) {
            const Rgba p = *kptest::pixelAt(*image, x, y);
            if (p != Rgba{255, 255, 255, 255}) {
                ++ink.count;
                if (p.r + p.g + p.b < ink.darkest.r + ink.darkest.g + ink.darkest.b) {
                    ink.darkest = p;
                }
            }
        }
    }
    return ink;
}

TEST(NSStringDrawing, InkIsBlackUnlessAForegroundColourIsGiven) {
    kp::NSStringAttributes attributes;
    attributes.font = kp::UIFont::boldSystemFontOfSize(24);
    const Ink plain = drawOverWhite(attributes);
    EXPECT_GT(plain.count, 100u);
    EXPECT_EQ(plain.darkest, (Rgba{0, 0, 0, 255}));

    attributes.foregroundColor = kp::UIColor::blueColor();
    const Ink blue = drawOverWhite(attributes);
    EXPECT_GT(blue.count, 100u);
    EXPECT_EQ(blue.darkest, (Rgba{0, 0, 255, 255}));
}

} // namespace
