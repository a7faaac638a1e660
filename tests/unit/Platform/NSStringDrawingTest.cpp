// SPDX-License-Identifier: MIT
// Text drawing: the ink colour comes from the attributes alone, black when none is given.
#include "KPImage/Platform/NSStringDrawing.h"

#include "KPImage/Platform/UIGraphics.h"
#include "support/PixelProbe.h"

#include <gtest/gtest.h>

namespace {

using kptest::Rgba;

TEST(NSStringDrawing, InkIsBlackUnlessAForegroundColourIsGiven) {
    kp::NSStringAttributes attributes;
    attributes.font = kp::UIFont::boldSystemFontOfSize(24);
    for (const auto& [colour, ink] : {std::pair{std::optional<kp::UIColor>{}, Rgba{0, 0, 0, 255}},
                                      std::pair{std::optional{kp::UIColor::blueColor()}, Rgba{0, 0, 255, 255}}}) {
        // Text drawn over white with red set as fill and stroke colour: the darkest pixel is the ink.
        attributes.foregroundColor = colour;
        kp::UIGraphicsBeginImageContextWithOptions(kp::CGSizeMake(120, 40), false, 1.0);
        kp::UIColor::whiteColor().setFill();
        kp::CGContextFillRect(kp::UIGraphicsGetCurrentContext(), kp::CGRectMake(0, 0, 120, 40));
        kp::UIColor::redColor().set();
        kp::NSStringDrawInRect("HHHH", kp::CGRectMake(4, 4, 112, 32), attributes);
        const auto image = kp::UIGraphicsGetImageFromCurrentImageContext();
        kp::UIGraphicsEndImageContext();
        Rgba darkest{255, 255, 255, 255};
        for (size_t i = 0; i < 120 * 40; ++i) {
            const Rgba p = *kptest::pixelAt(*image, i % 120, i / 120);
            darkest = p.r + p.g + p.b < darkest.r + darkest.g + darkest.b ? p : darkest;
        }
        EXPECT_EQ(darkest, ink);
    }
}

} // namespace
