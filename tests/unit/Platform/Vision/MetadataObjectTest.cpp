// SPDX-License-Identifier: MIT
// Metadata objects as values: point dictionaries, copies, and the geometry a preview layer's transform replaces.
#include "KPImage/Platform/AVMetadataObject.h"

#include "Platform/Vision/MetadataDetector.h"
#include "support/CodePictures.h"

#include "KPImage/Platform/CIDetector.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace kp;

TEST(MetadataObjects, PointDictionariesRoundTripAndRejectWhatIsNoPoint) {
    CGPoint back{9, 9};
    EXPECT_TRUE(CGPointMakeWithDictionaryRepresentation(CGPointCreateDictionaryRepresentation({0.25, -3.5}), &back));
    EXPECT_EQ(back, CGPointMake(0.25, -3.5));
    // Extra keys do not matter; a missing coordinate makes no point and leaves (0, 0).
    const std::pair<CGPointDictionary, bool> cases[] = {{{{"X", 1.0}, {"Y", 2.0}, {"Z", 1.0}}, true},
                                                        {{}, false},
                                                        {{{"X", 1.0}}, false},
                                                        {{{"Y", 1.0}}, false},
                                                        {{{"x", 1.0}, {"y", 2.0}}, false}};
    for (const auto& [dict, valid] : cases) {
        CGPoint q{7, 7};
        EXPECT_EQ(CGPointMakeWithDictionaryRepresentation(dict, &q), valid);
        EXPECT_EQ(q, valid ? CGPointMake(1, 2) : CGPointZero);
    }
    EXPECT_FALSE(CGPointMakeWithDictionaryRepresentation(CGPointCreateDictionaryRepresentation({1, 2}), nullptr));
}

TEST(MetadataObjects, DetectorReportsCodesInNormalisedGeometry) {
    // A QR code in a 640 x 480 picture: corners and bounds in 0..1, the bounds enclosing the corners.
    const auto pic = kptest::renderCode(kptest::CodeKind::QR, "NORMALISED", 640, 480, {200, 300, 180, 5});
    MetadataDetector detector({AVMetadataObjectTypeQRCode, AVMetadataObjectTypeFace},
                              CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Picture);
    const CMTime time = CMTimeMake(42, 30);
    const auto objects = detector.detect(pic.image, time, CMTimeMake(1, 30));
    ASSERT_EQ(objects.size(), 1u);
    const auto* code = dynamic_cast<const AVMetadataMachineReadableCodeObject*>(objects[0].get());
    ASSERT_NE(code, nullptr);
    EXPECT_EQ(CMTimeCompare(code->time(), time), 0);
    EXPECT_EQ(code->stringValue(), std::string("NORMALISED"));
    const CGRect b = code->bounds();
    for (size_t i = 0; i < 4; ++i) {
        CGPoint p;
        ASSERT_TRUE(CGPointMakeWithDictionaryRepresentation(code->corners()[i], &p));
        EXPECT_NEAR(p.x, pic.corners[i].x / 640, 0.02);
        EXPECT_NEAR(p.y, pic.corners[i].y / 480, 0.02);
        EXPECT_TRUE(CGRectContainsPoint(CGRectInset(b, -1e-9, -1e-9), p));
    }
    // A copy is the same kind of object with the same fields; new geometry leaves the original alone.
    const auto copy = code->copy();
    EXPECT_NE(dynamic_cast<const AVMetadataMachineReadableCodeObject*>(copy.get()), nullptr);
    const auto moved = code->withGeometry(CGRectMake(1, 2, 3, 4), {});
    EXPECT_TRUE(moved->corners().empty());
    EXPECT_EQ(code->corners().size(), 4u);
}
