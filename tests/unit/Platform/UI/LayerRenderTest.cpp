// SPDX-License-Identifier: MIT
// The layer renderer and the views over it: backgrounds, borders, z-order, clipping, hidden layers, transforms,
// shape layers, and views drawn on the main queue, checked by probing pixels of rendered trees.
#include "KPImage/Platform/CALayer.h"
#include "KPImage/Platform/CARenderer.h"
#include "KPImage/Platform/CAShapeLayer.h"
#include "KPImage/Platform/CGContextPath.h"
#include "KPImage/Platform/CGPath.h"
#include "KPImage/Platform/UIGraphics.h"
#include "KPImage/Platform/UIView.h"
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

using Probes = std::initializer_list<std::tuple<size_t, size_t, Rgba>>;

// Each probe (x, y) of the rendered picture has the colour given.
void expectPixels(const std::optional<UIImage>& image, Probes probes) {
    ASSERT_TRUE(image);
    for (const auto& [x, y, colour] : probes) {
        const Rgba got = kptest::pixelAt(*image, x, y).value_or(Rgba{});
        EXPECT_TRUE(kptest::near(got, colour, 2)) << x << ", " << y << ": " << got;
    }
}

void expectPixels(const std::shared_ptr<CALayer>& root, Probes probes) {
    expectPixels(CARenderLayerToImage(root, root->bounds().size, 1), probes);
}

// Draws a red disc, counting its drawings.
class DiscView : public UIView {
public:
    using UIView::UIView;
    int draws = 0;
    void drawRect(CGRect rect) override {
        ++draws;
        UIColor::redColor().setFill();
        CGContextAddEllipseInRect(UIGraphicsGetCurrentContext(), CGRectInset(rect, 10, 10));
        CGContextDrawPath(UIGraphicsGetCurrentContext(), kCGPathFill);
    }
};

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
    EXPECT_FALSE(CARenderLayerToImage(nullptr, CGSizeMake(10, 10), 1));

    auto child = solid(CGRectMake(30, 30, 40, 40), UIColor::redColor()); // reaches 90, 90 in the root
    b->setFrame(CGRectMake(20, 20, 40, 40));
    b->addSublayer(child);
    expectPixels(root, {{85, 85, R}});
    b->setMasksToBounds(true);
    expectPixels(root, {{85, 85, Y}, {58, 58, R}});
    child->setHidden(true);
    expectPixels(root, {{58, 58, B}});
}

TEST(LayerRender, TransformsTurnAboutTheCentreAndProject) {
    kptest::ManualMainQueue main;
    auto root = solid(CGRectMake(0, 0, 100, 100), UIColor::whiteColor());
    auto bar = solid(CGRectMake(20, 40, 60, 20), UIColor::redColor()); // centred on (50, 50)
    root->addSublayer(bar);
    bar->setTransform(CATransform3DMakeRotation(std::numbers::pi / 2, 0, 0, 1));
    expectPixels(root, {{25, 50, W}, {50, 25, R}});
    // The camera switch's flip: an eighth of a turn about y narrows the bar to cos 45 of its width, a quarter turn
    // shows it edge-on.
    bar->setTransform(CATransform3DMakeRotation(std::numbers::pi / 4, 0, 1, 0));
    expectPixels(root, {{31, 50, R}, {27, 50, W}});
    bar->setTransform(CATransform3DMakeRotation(std::numbers::pi / 2, 0, 1, 0));
    expectPixels(root, {{50, 50, W}});
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

    // Separate two-point subpaths joined with CGPathAddPath draw as lines, not one polygon.
    auto outline = CGPathCreateMutable();
    CGPathMoveToPoint(outline, nullptr, 10, 10);
    CGPathAddLineToPoint(outline, nullptr, 90, 10);
    auto side = CGPathCreateMutable();
    CGPathMoveToPoint(side, nullptr, 90, 10);
    CGPathAddLineToPoint(side, nullptr, 90, 90);
    CGPathAddPath(outline, nullptr, side);
    shape->setPath(outline);
    shape->setFillColor(std::nullopt);
    shape->setStrokeColor(UIColor::greenColor().CGColor());
    shape->setLineWidth(3);
    expectPixels(root, {{50, 10, G}, {90, 50, G}, {50, 50, W}});
}

TEST(UIView, DrawingIsCoalescedOnTheMainQueueAndSubviewsFollowTheLayerTree) {
    kptest::ManualMainQueue main;
    auto root = UIView::initWithFrame(CGRectMake(0, 0, 100, 100));
    root->setBackgroundColor(UIColor::whiteColor());
    auto view = std::make_shared<DiscView>(CGRectMake(0, 0, 60, 60));
    view->setNeedsDisplay();
    view->setNeedsDisplay();
    main.drain();
    EXPECT_EQ(view->draws, 1);
    // The renderer draws the contents made on the main queue; a view has no fill of its own.
    expectPixels(UIViewRenderToImage(view, CGSizeMake(60, 60), 1), {{30, 30, R}, {5, 30, Rgba{0, 0, 0, 0}}});
    // A view that asked for drawing and was rendered before the queue ran is drawn by the renderer, once.
    view->setNeedsDisplay();
    root->addSubview(view);
    view->setFrame(CGRectMake(20, 20, 60, 60));
    expectPixels(UIViewRenderToImage(root, CGSizeMake(100, 100), 1), {{50, 50, R}, {10, 50, W}});
    main.drain();
    EXPECT_EQ(view->draws, 2);

    // A size change through setBounds keeps the centre and redraws a view that draws.
    view->setBounds(CGRectMake(0, 0, 80, 80));
    EXPECT_EQ(view->frame().origin.x, 10);
    main.drain();
    EXPECT_EQ(view->draws, 3);
    EXPECT_EQ(view->layer()->contents()->width(), 80u);
    view->removeFromSuperview();
    EXPECT_TRUE(root->layer()->sublayers().empty());

    // The layer outlives its view without calling back: the queued display finds no view to draw.
    view = std::make_shared<DiscView>(CGRectMake(0, 0, 10, 10));
    const std::shared_ptr<CALayer> layer = view->layer();
    view->setNeedsDisplay();
    view.reset();
    main.drain();
    EXPECT_FALSE(layer->contents());
}
