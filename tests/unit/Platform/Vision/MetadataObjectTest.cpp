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
    const CGPoint p{0.25, -3.5};
    const CGPointDictionary d = CGPointCreateDictionaryRepresentation(p);
    EXPECT_EQ(d.size(), 2u);
    CGPoint back{9, 9};
    EXPECT_TRUE(CGPointMakeWithDictionaryRepresentation(d, &back));
    EXPECT_EQ(back.x, 0.25);
    EXPECT_EQ(back.y, -3.5);
    // Extra keys do not matter; a missing coordinate makes no point and leaves (0, 0).
    CGPointDictionary extra = d;
    extra["Z"] = 1;
    EXPECT_TRUE(CGPointMakeWithDictionaryRepresentation(extra, &back));
    for (const CGPointDictionary& bad : {CGPointDictionary{}, CGPointDictionary{{"X", 1.0}},
                                         CGPointDictionary{{"Y", 1.0}}, CGPointDictionary{{"x", 1.0}, {"y", 2.0}}}) {
        CGPoint q{7, 7};
        EXPECT_FALSE(CGPointMakeWithDictionaryRepresentation(bad, &q));
        EXPECT_EQ(q.x, 0.0);
        EXPECT_EQ(q.y, 0.0);
    }
    EXPECT_FALSE(CGPointMakeWithDictionaryRepresentation(d, nullptr));
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
        EXPECT_GE(p.x, b.origin.x - 1e-9);
        EXPECT_LE(p.x, b.origin.x + b.size.width + 1e-9);
        EXPECT_GE(p.y, b.origin.y - 1e-9);
        EXPECT_LE(p.y, b.origin.y + b.size.height + 1e-9);
    }
    // A copy is the same kind of object with the same fields; new geometry leaves the original alone.
    const auto copy = code->copy();
    EXPECT_NE(dynamic_cast<const AVMetadataMachineReadableCodeObject*>(copy.get()), nullptr);
    const auto moved = code->withGeometry(CGRectMake(1, 2, 3, 4), {});
    EXPECT_TRUE(moved->corners().empty());
    EXPECT_EQ(code->corners().size(), 4u);
}
