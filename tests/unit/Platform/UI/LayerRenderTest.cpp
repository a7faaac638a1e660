// SPDX-License-Identifier: MIT
// The layer renderer: backgrounds, borders, z-order, clipping, hidden layers, transforms, shape layers
// and animations, checked by probing pixels of rendered trees.
#include "KPImage/Platform/CABasicAnimation.h"
#include "KPImage/Platform/CALayer.h"
#include "KPImage/Platform/CARenderer.h"
#include "KPImage/Platform/CAShapeLayer.h"
#include "KPImage/Platform/CGPath.h"
#include "support/ManualMainQueue.h"
#include "support/PixelProbe.h"

#include <gtest/gtest.h>

#include <numbers>

using namespace kp;
using kptest::pixelAt;
using kptest::Rgba;

namespace {

const Rgba kWhite{255, 255, 255, 255};
const Rgba kRed{255, 0, 0, 255};
const Rgba kGreen{0, 255, 0, 255};
const Rgba kBlue{0, 0, 255, 255};
const Rgba kYellow{255, 255, 0, 255};

std::shared_ptr<CALayer> solid(CGRect frame, UIColor color) {
    auto layer = CALayer::layer();
    layer->setFrame(frame);
    layer->setBackgroundColor(color.CGColor());
    return layer;
}

std::shared_ptr<CALayer> whiteRoot() { return solid(CGRectMake(0, 0, 100, 100), UIColor::whiteColor()); }

Rgba probe(const std::shared_ptr<CALayer>& root, size_t x, size_t y) {
    auto image = CARenderLayerToImage(root, root->bounds().size, 1);
    return image ? pixelAt(*image, x, y).value_or(Rgba{}) : Rgba{};
}

#define EXPECT_PIXEL(root, x, y, expected) EXPECT_TRUE(kptest::near(probe(root, x, y), expected, 2)) << probe(root, x, y)

} // namespace

TEST(LayerRender, BackgroundsBordersAndSublayerOrder) {
    kptest::ManualMainQueue main;
    auto root = whiteRoot();
    auto a = solid(CGRectMake(10, 10, 50, 50), UIColor::redColor());
    a->setBorderWidth(4);
    a->setBorderColor(UIColor::greenColor().CGColor());
    auto b = solid(CGRectMake(40, 40, 50, 50), UIColor::blueColor());
    root->addSublayer(a);
    root->addSublayer(b);
    EXPECT_PIXEL(root, 5, 5, kWhite);
    EXPECT_PIXEL(root, 11, 30, kGreen); // the border lies inside the bounds
    EXPECT_PIXEL(root, 14, 30, kRed);
    EXPECT_PIXEL(root, 45, 45, kBlue); // later sublayers are on top
    // The default border colour is opaque black.
    EXPECT_EQ(CALayer::layer()->borderColor(), (CGColor{0, 0, 0, 1}));

    // Inserted at index 0: below the others, above the root's own background.
    auto under = solid(CGRectMake(0, 0, 100, 100), UIColor::yellowColor());
    root->insertSublayer(under, 0);
    EXPECT_PIXEL(root, 5, 5, kYellow);
    EXPECT_PIXEL(root, 30, 30, kRed);
    // Adding a layer again moves it to the top, out of its old place.
    root->addSublayer(a);
    EXPECT_PIXEL(root, 45, 45, kRed);
    a->removeFromSuperlayer();
    EXPECT_PIXEL(root, 30, 30, kYellow);
    // A layer cannot become its own ancestor.
    root->addSublayer(a);
    a->addSublayer(root);
    EXPECT_EQ(root->superlayer(), nullptr);
    a->addSublayer(a);
    EXPECT_TRUE(a->sublayers().empty());
    EXPECT_FALSE(CARenderLayerToImage(root, CGSizeMake(0, 10), 1));
    EXPECT_FALSE(CARenderLayerToImage(nullptr, CGSizeMake(10, 10), 1));
}

TEST(LayerRender, MasksToBoundsClipsSublayersAndHiddenLayersVanish) {
    kptest::ManualMainQueue main;
    auto root = whiteRoot();
    auto parent = solid(CGRectMake(20, 20, 40, 40), UIColor::blueColor());
    auto child = solid(CGRectMake(30, 30, 40, 40), UIColor::redColor()); // reaches 90, 90 in the root
    parent->addSublayer(child);
    root->addSublayer(parent);
    EXPECT_PIXEL(root, 85, 85, kRed);
    parent->setMasksToBounds(true);
    EXPECT_PIXEL(root, 85, 85, kWhite);
    EXPECT_PIXEL(root, 58, 58, kRed);
    child->setHidden(true);
    EXPECT_PIXEL(root, 58, 58, kBlue);
}

TEST(LayerRender, TransformsTurnAboutTheCentreAndProjectThreeDimensionalRotations) {
    kptest::ManualMainQueue main;
    auto root = whiteRoot();
    auto bar = solid(CGRectMake(20, 40, 60, 20), UIColor::redColor()); // centred on (50, 50)
    root->addSublayer(bar);
    EXPECT_PIXEL(root, 25, 50, kRed);

    bar->setTransform(CATransform3DMakeRotation(std::numbers::pi / 2, 0, 0, 1));
    EXPECT_PIXEL(root, 25, 50, kWhite);
    EXPECT_PIXEL(root, 50, 25, kRed);
    // The frame follows the transform; the bounds do not.
    EXPECT_NEAR(bar->frame().origin.x, 40, 1e-9);
    EXPECT_EQ(bar->bounds().size.width, 60);

    // A quarter turn about the vertical axis shows the layer edge-on: nothing.
    bar->setTransform(CATransform3DMakeRotation(std::numbers::pi / 2, 0, 1, 0));
    EXPECT_PIXEL(root, 50, 50, kWhite);
    // An eighth of a turn narrows it to cos 45 of its width: 42.4 points about the centre.
    bar->setTransform(CATransform3DMakeRotation(std::numbers::pi / 4, 0, 1, 0));
    EXPECT_PIXEL(root, 31, 50, kRed);
    EXPECT_PIXEL(root, 27, 50, kWhite);
}

TEST(LayerRender, ShapeLayersFillAndStrokeTheirPath) {
    kptest::ManualMainQueue main;
    auto root = whiteRoot();
    auto shape = CAShapeLayer::layer();
    shape->setFrame(CGRectMake(0, 0, 100, 100));
    root->addSublayer(shape);
    // Defaults: fill opaque black, no stroke.
    EXPECT_EQ(shape->fillColor(), (CGColor{0, 0, 0, 1}));
    EXPECT_FALSE(shape->strokeColor());
    auto path = CGPathCreateMutable();
    CGPathAddRect(path, nullptr, CGRectMake(10, 10, 30, 30));
    shape->setPath(path);
    EXPECT_PIXEL(root, 25, 25, (Rgba{0, 0, 0, 255}));

    // An open line stroked: butt caps end at the end point, square caps half a width further.
    auto line = CGPathCreateMutable();
    CGPathMoveToPoint(line, nullptr, 20, 70);
    CGPathAddLineToPoint(line, nullptr, 80, 70);
    shape->setPath(line);
    shape->setFillColor(std::nullopt);
    shape->setStrokeColor(UIColor::greenColor().CGColor());
    shape->setLineWidth(10);
    EXPECT_PIXEL(root, 50, 66, kGreen);
    EXPECT_PIXEL(root, 83, 70, kWhite);
    shape->setLineCap(kCALineCapSquare);
    EXPECT_PIXEL(root, 83, 70, kGreen);
    shape->setLineCap("bevel"); // unknown names are ignored
    EXPECT_EQ(shape->lineCap(), kCALineCapSquare);

    // Four separate two-point subpaths joined with CGPathAddPath draw as four lines, not one polygon.
    auto outline = CGPathCreateMutable();
    CGPathMoveToPoint(outline, nullptr, 10, 10);
    CGPathAddLineToPoint(outline, nullptr, 90, 10);
    auto side = CGPathCreateMutable();
    CGPathMoveToPoint(side, nullptr, 90, 10);
    CGPathAddLineToPoint(side, nullptr, 90, 90);
    CGPathAddPath(outline, nullptr, side);
    shape->setPath(outline);
    shape->setLineWidth(3);
    EXPECT_PIXEL(root, 50, 10, kGreen);
    EXPECT_PIXEL(root, 90, 50, kGreen);
    EXPECT_PIXEL(root, 50, 50, kWhite);
}

TEST(LayerRender, PathsTakeTransformsAndIgnoreNonFinitePoints) {
    const CGAffineTransform shift = CGAffineTransformMakeTranslation(5, 0);
    auto rect = CGPathCreateMutable();
    CGPathAddRect(rect, &shift, CGRectMake(0, 0, 10, 10));
    CGPathAddLineToPoint(rect, nullptr, NAN, 3);
    EXPECT_EQ(CGPathGetBoundingBox(rect).origin.x, 5);
    EXPECT_EQ(rect->elements().size(), 5u);
    CGPathAddPath(rect, nullptr, rect); // adding a path to itself doubles it
    EXPECT_EQ(rect->elements().size(), 10u);
    EXPECT_TRUE(CGRectIsNull(CGPathGetBoundingBox(CGPathCreateMutable())));
}

TEST(LayerAnimation, PresentationFollowsTheRunLoopClockAndTheModelStays) {
    kptest::ManualMainQueue main;
    auto root = whiteRoot();
    auto bar = solid(CGRectMake(20, 40, 60, 20), UIColor::redColor());
    root->addSublayer(bar);

    // The camera-switch flip: a quarter turn about y, 0.1 s, reversed.
    auto flip = CABasicAnimation::animationWithKeyPath("transform");
    flip->setDuration(0.1);
    flip->setToValue(NSValue::valueWithCATransform3D(CATransform3DMakeRotation(std::numbers::pi / 2, 0, 1, 0)));
    flip->setAutoreverses(true);
    bar->addAnimation(flip, "transform");
    flip->setDuration(5); // the layer runs its own copy
    EXPECT_TRUE(root->hasRunningAnimationsInTree());
    EXPECT_PIXEL(root, 25, 50, kRed);

    main.advance(0.05); // halfway up: an eighth of a turn
    EXPECT_NEAR(bar->presentationTransform().m11, std::cos(std::numbers::pi / 4), 1e-9);
    EXPECT_PIXEL(root, 31, 50, kRed);
    main.advance(0.05); // edge-on
    EXPECT_PIXEL(root, 50, 50, kWhite);
    EXPECT_TRUE(CATransform3DIsIdentity(bar->transform()));
    main.advance(0.11); // back and over: the model value shows again and the animation is gone
    EXPECT_PIXEL(root, 25, 50, kRed);
    EXPECT_TRUE(bar->animationKeys().empty());
    EXPECT_FALSE(root->hasRunningAnimationsInTree());

}
