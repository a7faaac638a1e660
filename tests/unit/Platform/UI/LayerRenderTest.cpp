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
using kptest::Rgba;

namespace {

const Rgba W{255, 255, 255, 255}, R{255, 0, 0, 255}, G{0, 255, 0, 255}, B{0, 0, 255, 255}, Y{255, 255, 0, 255},
    K{0, 0, 0, 255};

std::shared_ptr<CALayer> solid(CGRect frame, UIColor color) {
    auto layer = CALayer::layer();
    layer->setFrame(frame);
    layer->setBackgroundColor(color.CGColor());
    return layer;
}

// Each probe (x, y) of the rendered tree has the colour given.
void expectPixels(const std::shared_ptr<CALayer>& root,
                  std::initializer_list<std::tuple<size_t, size_t, Rgba>> probes) {
    auto image = CARenderLayerToImage(root, root->bounds().size, 1);
    ASSERT_TRUE(image);
    for (const auto& [x, y, colour] : probes) {
        const Rgba got = kptest::pixelAt(*image, x, y).value_or(Rgba{});
        EXPECT_TRUE(kptest::near(got, colour, 2)) << x << ", " << y << ": " << got;
    }
}

} // namespace

TEST(LayerRender, BackgroundsBordersOrderClippingAndHiding) {
    kptest::ManualMainQueue main;
    auto root = solid(CGRectMake(0, 0, 100, 100), UIColor::whiteColor());
    auto a = solid(CGRectMake(10, 10, 50, 50), UIColor::redColor());
    a->setBorderWidth(4);
    a->setBorderColor(UIColor::greenColor().CGColor());
    auto b = solid(CGRectMake(40, 40, 50, 50), UIColor::blueColor());
    root->addSublayer(a);
    root->addSublayer(b);
    // The border lies inside the bounds; later sublayers are on top.
    expectPixels(root, {{5, 5, W}, {11, 30, G}, {14, 30, R}, {45, 45, B}});
    // Inserted at index 0: below the others, above the root's own background. Adding again moves to the top.
    root->insertSublayer(solid(CGRectMake(0, 0, 100, 100), UIColor::yellowColor()), 0);
    root->addSublayer(a);
    expectPixels(root, {{5, 5, Y}, {30, 30, R}, {45, 45, R}});
    a->removeFromSuperlayer();
    expectPixels(root, {{30, 30, Y}});
    // A layer cannot become its own ancestor.
    root->addSublayer(a);
    a->addSublayer(root);
    a->addSublayer(a);
    EXPECT_EQ(root->superlayer(), nullptr);
    EXPECT_TRUE(a->sublayers().empty());
    EXPECT_FALSE(CARenderLayerToImage(root, CGSizeMake(0, 10), 1));
    EXPECT_FALSE(CARenderLayerToImage(nullptr, CGSizeMake(10, 10), 1));

    auto child = solid(CGRectMake(30, 30, 40, 40), UIColor::redColor()); // reaches 90, 90 in the root
    b->setFrame(CGRectMake(20, 20, 40, 40));
    b->addSublayer(child);
    a->removeFromSuperlayer();
    expectPixels(root, {{85, 85, R}});
    b->setMasksToBounds(true);
    expectPixels(root, {{85, 85, Y}, {58, 58, R}});
    child->setHidden(true);
    expectPixels(root, {{58, 58, B}});
}

TEST(LayerRender, TransformsTurnAboutTheCentreAndProjectAndAnimationsFollowTheClock) {
    kptest::ManualMainQueue main;
    auto root = solid(CGRectMake(0, 0, 100, 100), UIColor::whiteColor());
    auto bar = solid(CGRectMake(20, 40, 60, 20), UIColor::redColor()); // centred on (50, 50)
    root->addSublayer(bar);
    bar->setTransform(CATransform3DMakeRotation(std::numbers::pi / 2, 0, 0, 1));
    expectPixels(root, {{25, 50, W}, {50, 25, R}});
    EXPECT_NEAR(bar->frame().origin.x, 40, 1e-9); // the frame follows the transform; the bounds do not
    EXPECT_EQ(bar->bounds().size.width, 60);
    bar->setTransform(CATransform3DIdentity);

    // The camera-switch flip: a quarter turn about y, 0.1 s, reversed.
    auto flip = CABasicAnimation::animationWithKeyPath("transform");
    flip->setDuration(0.1);
    flip->setToValue(NSValue::valueWithCATransform3D(CATransform3DMakeRotation(std::numbers::pi / 2, 0, 1, 0)));
    flip->setAutoreverses(true);
    bar->addAnimation(flip, "transform");
    flip->setDuration(5); // the layer runs its own copy
    EXPECT_TRUE(root->hasRunningAnimationsInTree());
    expectPixels(root, {{25, 50, R}});
    main.advance(0.05); // halfway up: an eighth of a turn narrows the bar to cos 45 of its width
    EXPECT_NEAR(bar->presentationTransform().m11, std::cos(std::numbers::pi / 4), 1e-9);
    expectPixels(root, {{31, 50, R}, {27, 50, W}});
    main.advance(0.05); // edge-on: nothing shows
    expectPixels(root, {{50, 50, W}});
    EXPECT_TRUE(CATransform3DIsIdentity(bar->transform()));
    main.advance(0.11); // back and over: the model value shows again and the animation is gone
    expectPixels(root, {{25, 50, R}});
    EXPECT_TRUE(bar->animationKeys().empty());
    EXPECT_FALSE(root->hasRunningAnimationsInTree());
}

TEST(LayerRender, ShapeLayersFillAndStrokeTheirPath) {
    kptest::ManualMainQueue main;
    auto root = solid(CGRectMake(0, 0, 100, 100), UIColor::whiteColor());
    auto shape = CAShapeLayer::layer();
    shape->setFrame(CGRectMake(0, 0, 100, 100));
    root->addSublayer(shape);
    auto path = CGPathCreateMutable(); // filled opaque black by default, no stroke
    CGPathAddRect(path, nullptr, CGRectMake(10, 10, 30, 30));
    shape->setPath(path);
    expectPixels(root, {{25, 25, K}, {45, 25, W}});

    // An open line stroked: butt caps end at the end point, square caps half a width further.
    auto line = CGPathCreateMutable();
    CGPathMoveToPoint(line, nullptr, 20, 70);
    CGPathAddLineToPoint(line, nullptr, 80, 70);
    shape->setPath(line);
    shape->setFillColor(std::nullopt);
    shape->setStrokeColor(UIColor::greenColor().CGColor());
    shape->setLineWidth(10);
    expectPixels(root, {{50, 66, G}, {83, 70, W}});
    shape->setLineCap(kCALineCapSquare);
    shape->setLineCap("bevel"); // unknown names are ignored
    expectPixels(root, {{83, 70, G}});

    // Separate two-point subpaths joined with CGPathAddPath draw as lines, not one polygon.
    auto outline = CGPathCreateMutable();
    CGPathMoveToPoint(outline, nullptr, 10, 10);
    CGPathAddLineToPoint(outline, nullptr, 90, 10);
    auto side = CGPathCreateMutable();
    CGPathMoveToPoint(side, nullptr, 90, 10);
    CGPathAddLineToPoint(side, nullptr, 90, 90);
    CGPathAddPath(outline, nullptr, side);
    shape->setPath(outline);
    shape->setLineWidth(3);
    expectPixels(root, {{50, 10, G}, {90, 50, G}, {50, 50, W}});

    const CGAffineTransform shift = CGAffineTransformMakeTranslation(5, 0);
    auto rect = CGPathCreateMutable();
    CGPathAddRect(rect, &shift, CGRectMake(0, 0, 10, 10));
    CGPathAddLineToPoint(rect, nullptr, NAN, 3); // non-finite points are ignored
    CGPathAddPath(rect, nullptr, rect);          // adding a path to itself doubles it
    EXPECT_EQ(CGPathGetBoundingBox(rect).origin.x, 5);
    EXPECT_EQ(rect->elements().size(), 10u);
    EXPECT_TRUE(CGRectIsNull(CGPathGetBoundingBox(CGPathCreateMutable())));
}
