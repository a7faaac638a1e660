// SPDX-License-Identifier: MIT
// Views: the view tree over the layer tree, coalesced drawRect on the main queue, and the drawing calls views
// use, checked on rendered pixels.
#include "KPImage/Platform/UIView.h"
#include "KPImage/Platform/CGContextPath.h"
#include "KPImage/Platform/UIGraphics.h"
#include "support/ManualMainQueue.h"
#include "support/PixelProbe.h"

#include <gtest/gtest.h>

using namespace kp;
using kptest::pixelAt;
using kptest::Rgba;

namespace {

// Draws a red disc with a blue outline and a green polyline, counting its drawings.
class DiscView : public UIView {
public:
    using UIView::UIView;
    int draws = 0;
    void drawRect(CGRect rect) override {
        ++draws;
        CGContextRef context = UIGraphicsGetCurrentContext();
        UIColor::redColor().setFill();
        UIColor::blueColor().setStroke();
        CGContextSetLineWidth(context, 4);
        CGContextAddEllipseInRect(context, CGRectInset(rect, 10, 10));
        CGContextDrawPath(context, kCGPathFillStroke);
        UIColor::greenColor().set();
        CGContextSetLineWidth(context, 2);
        const CGPoint points[3] = {{0, 2}, {50, 2}, {50, 8}};
        CGContextAddLines(context, points, 3);
        CGContextStrokePath(context);
    }
};

} // namespace

TEST(UIView, SetNeedsDisplayCoalescesIntoOneDrawingOnTheMainQueue) {
    kptest::ManualMainQueue main;
    auto view = std::make_shared<DiscView>(CGRectMake(0, 0, 60, 60));
    view->setNeedsDisplay();
    view->setNeedsDisplay();
    EXPECT_EQ(view->draws, 0);
    main.drain();
    EXPECT_EQ(view->draws, 1);
    // The renderer draws the contents made on the main queue; nothing is redrawn without a request.
    auto image = UIViewRenderToImage(view, CGSizeMake(60, 60), 1);
    ASSERT_TRUE(image);
    EXPECT_EQ(view->draws, 1);
    EXPECT_EQ(pixelAt(*image, 30, 30), (Rgba{255, 0, 0, 255}));
    EXPECT_EQ(pixelAt(*image, 30, 11), (Rgba{0, 0, 255, 255})); // the outline over the fill's edge
    EXPECT_EQ(pixelAt(*image, 5, 30), (Rgba{0, 0, 0, 0}));      // a view has no fill of its own
    EXPECT_EQ(pixelAt(*image, 50, 6), (Rgba{0, 255, 0, 255}));
    // A view that asked for drawing and was rendered before the queue ran is drawn by the renderer, once.
    view->setNeedsDisplay();
    ASSERT_TRUE(UIViewRenderToImage(view, CGSizeMake(60, 60), 1));
    main.drain();
    EXPECT_EQ(view->draws, 2);

    // The layer outlives its view without calling back: the queued display finds no view to draw.
    std::shared_ptr<CALayer> layer;
    {
        auto gone = std::make_shared<DiscView>(CGRectMake(0, 0, 10, 10));
        layer = gone->layer();
        gone->setNeedsDisplay();
    }
    EXPECT_EQ(layer->delegate(), nullptr);
    main.drain();
    EXPECT_FALSE(layer->contents());
}

TEST(UIView, SubviewsFollowTheLayerTreeAndSizeChangesGoThroughSetBounds) {
    kptest::ManualMainQueue main;
    auto root = UIView::initWithFrame(CGRectMake(0, 0, 100, 100));
    root->setBackgroundColor(UIColor::whiteColor());
    auto child = std::make_shared<DiscView>(CGRectMake(20, 20, 60, 60));
    root->addSubview(child);
    child->setNeedsDisplay();
    EXPECT_EQ(child->layer()->superlayer(), root->layer());
    auto image = UIViewRenderToImage(root, CGSizeMake(100, 100), 1);
    ASSERT_TRUE(image);
    EXPECT_EQ(pixelAt(*image, 50, 50), (Rgba{255, 0, 0, 255}));
    EXPECT_EQ(pixelAt(*image, 10, 50), (Rgba{255, 255, 255, 255}));

    // A size change through setBounds keeps the centre and redraws a view that draws.
    const int before = child->draws;
    child->setBounds(CGRectMake(0, 0, 80, 80));
    EXPECT_EQ(child->frame().origin.x, 10);
    main.drain();
    EXPECT_EQ(child->draws, before + 1);
    EXPECT_EQ(child->layer()->contents()->width(), 80u);

    child->removeFromSuperview();
    EXPECT_EQ(child->superview(), nullptr);
    EXPECT_TRUE(root->layer()->sublayers().empty());
    root->addSubview(root); // a view cannot contain itself
    EXPECT_TRUE(root->subviews().empty());
}
