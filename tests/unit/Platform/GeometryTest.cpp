// SPDX-License-Identifier: MIT
// Geometry: standardised rectangles, null/empty rules, containment, integral rects and affine transforms.
#include "KPImage/Platform/Geometry.h"

#include <gtest/gtest.h>

#include <numbers>

using namespace kp;

TEST(Geometry, RectanglesFollowNullAndEmptyRules) {
    EXPECT_EQ(CGRectStandardize(CGRectMake(10, 10, -4, -6)), CGRectMake(6, 4, 4, 6));
    EXPECT_TRUE(CGRectIsNull(CGRectIntersection(CGRectMake(0, 0, 1, 1), CGRectMake(2, 2, 1, 1))));
    EXPECT_FALSE(CGRectIsNull(CGRectZero));
    // Touching edges meet in an empty, not null, rectangle.
    EXPECT_EQ(CGRectIntersection(CGRectMake(0, 0, 1, 1), CGRectMake(1, 0, 1, 1)), CGRectMake(1, 0, 0, 1));
    EXPECT_EQ(CGRectUnion(CGRectNull, CGRectMake(1, 2, 3, 4)), CGRectMake(1, 2, 3, 4));
    EXPECT_FALSE(CGRectContainsRect(CGRectNull, CGRectZero));
    EXPECT_FALSE(CGRectContainsPoint(CGRectMake(0, 0, 2, 2), {2, 1}));
    EXPECT_EQ(CGRectIntegral(CGRectMake(0.5, 1.2, 2, 2.1)), CGRectMake(0, 1, 3, 3));
    EXPECT_TRUE(CGRectIsNull(CGRectInset(CGRectMake(0, 0, 10, 10), 6, 0)));
    EXPECT_DOUBLE_EQ(CGRectGetMidX(CGRectMake(10, 20, -4, 8)), 8);
}

TEST(Geometry, AffineTransformsComposeInPlatformOrder) {
    // translate(scale(1, -1), 0, -H) maps (x, y) to (x, H - y): the detector flip.
    const CGAffineTransform flip = CGAffineTransformTranslate(CGAffineTransformMakeScale(1, -1), 0, -480);
    EXPECT_EQ(CGRectApplyAffineTransform(CGRectMake(10, 20, 100, 120), flip), CGRectMake(10, 340, 100, 120));
    // 45 degrees of a 100 x 100 rect has a bounding box 141.42 wide.
    const CGRect diagonal =
        CGRectApplyAffineTransform(CGRectMake(0, 0, 100, 100), CGAffineTransformMakeRotation(std::numbers::pi / 4));
    EXPECT_NEAR(diagonal.size.width, 141.4213562, 1e-6);
}
