// SPDX-License-Identifier: MIT
// The progress circle view: clamps, geometry, the drawn ring (probed pixels) and the step worker on the global
// queue with its redraws on the main queue, paced by a stepped clock.
#include "KPImage/KPProgressCircleView.h"
#include "support/ManualMainQueue.h"
#include "support/PixelProbe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <numbers>

using namespace kp;
using kptest::Rgba;

namespace {

// The worker's pauses count steps instead of sleeping.
class SteppedCircle : public KPProgressCircleView {
public:
    using KPProgressCircleView::KPProgressCircleView;
    static std::shared_ptr<SteppedCircle> make(CGRect frame) {
        auto view = std::make_shared<SteppedCircle>(frame);
        view->baseInit();
        return view;
    }
    std::atomic<int> turns{0}; // how often endless mode turned the ring over
    std::atomic<CGFloat> counterAtTurn{-1};

protected:
    void sleepBetweenSteps(double) override {
        if (invert() != _invertSeen) {
            _invertSeen = invert();
            turns.fetch_add(1);
            counterAtTurn.store(counterValue());
        }
    }

private:
    bool _invertSeen = false; // the worker's own
};

bool settle(kptest::ManualMainQueue& main, const std::shared_ptr<KPProgressCircleView>& view) {
    const bool done = main.drainUntil([&] { return !view->animating(); });
    main.drain();
    return done;
}

// The pixel at radius r and clock angle deg (0 at the top, clockwise) about the centre of a 100 x 100 view.
std::optional<Rgba> at(const std::shared_ptr<KPProgressCircleView>& view, double r, double deg) {
    const double a = (deg - 90) * std::numbers::pi / 180;
    auto image = UIViewRenderToImage(view, view->bounds().size, 1);
    return image ? kptest::pixelAt(*image, size_t(50 + r * std::cos(a)), size_t(50 + r * std::sin(a))) : std::nullopt;
}

class ProgressCircleView : public ::testing::Test {
protected:
    kptest::ManualMainQueue main;
    std::shared_ptr<SteppedCircle> view = SteppedCircle::make(CGRectMake(0, 0, 100, 100));
    void TearDown() override { EXPECT_TRUE(settle(main, view)); }
};

const Rgba kTrack{0, 255, 0, 255};
const Rgba kClear{0, 0, 0, 0};

} // namespace

TEST_F(ProgressCircleView, ValuesClampInSinglePrecisionAndAnglesStartAtTheTop) {
    for (const auto& [set, stored] : {std::pair{150.0, 100.0}, {-5.0, 0.0}, {0.1, double(0.1f)}}) {
        view->setValue(set);
        EXPECT_EQ(view->value(), stored) << set;
    }
    view->setMaximumValue(0.5);
    EXPECT_EQ(view->maximumValue(), 1);
    view->setCenterSize(10); // not above the inner margin, 0
    EXPECT_EQ(view->centerSize(), 0);
    view->setMaximumValue(100);

    for (const auto& [value, angle] : {std::pair{0.0, -0.5}, {25.0, 0.0}, {50.0, 0.5}, {100.0, 1.5}}) {
        EXPECT_NEAR(view->convertToAngle(value), angle * std::numbers::pi, 1e-15) << value;
    }
    EXPECT_EQ(view->calculateDrawRectFromRect(CGRectMake(0, 0, 200, 100), 5), CGRectMake(55, 5, 90, 90));
    EXPECT_EQ(view->calculateDrawRectFromRect(CGRectMake(10, 0, 40, 100), 0), CGRectMake(10, 30, 40, 40));
}

TEST_F(ProgressCircleView, DrawsTheSectorFromTheTopClockwiseOrItsComplement) {
    view->setBorderSize(2);
    view->setBorderOffsetMargin(3); // the sector's outer radius: 50 - 5 = 45
    view->setInterierOffsetMargin(20);
    view->setValue(25);
    ASSERT_TRUE(settle(main, view));
    // Inside the quarter from 12 to 3 o'clock, past it, before it, inside the inner radius, and the outline.
    EXPECT_EQ(at(view, 35, 45), kTrack);
    EXPECT_EQ(at(view, 35, 135), kClear);
    EXPECT_EQ(at(view, 35, 315), kClear);
    EXPECT_EQ(at(view, 10, 45), kClear);
    EXPECT_TRUE(kptest::near(*at(view, 48, 200), kTrack, 10));
    // Inverted, with a tint behind everything and a centre disc of the track colour.
    view->setInvert(true);
    view->setTintColor(UIColor::blueColor());
    view->setTrackColor(UIColor::redColor());
    view->setCenterSize(6);
    view->setNeedsDisplay();
    main.drain();
    EXPECT_EQ(at(view, 35, 45), (Rgba{0, 0, 255, 255}));
    EXPECT_EQ(at(view, 35, 135), (Rgba{255, 0, 0, 255}));
    EXPECT_EQ(at(view, 0, 0), (Rgba{255, 0, 0, 255}));

    // An inner margin beyond the outer radius less 1 is lowered by the drawing, for good.
    view->setInterierOffsetMargin(80);
    view->setNeedsDisplay();
    main.drain();
    EXPECT_EQ(view->interierOffsetMargin(), 44);
}

TEST_F(ProgressCircleView, EndlessModeTogglesTheRingAndStoppingFreezesIt) {
    view->setValue(30);
    view->setHidden(true);
    view->startAnimating(); // waits for the worker moving to 30 to end
    EXPECT_TRUE(!view->isHidden() && view->value() == 100);
    view->setValue(10); // ignored while endless
    EXPECT_EQ(view->value(), 100);
    // Each time the ring is full it starts again from empty, drawing the other part.
    ASSERT_TRUE(main.drainUntil([&] { return view->turns.load() >= 2; }));
    EXPECT_NEAR(view->counterAtTurn.load(), 100.0 / 360.0, 1e-9) << "a turn restarts from 0, one step taken";
    view->setHideWhenAnimationStops(1);
    view->stopAnimating();
    EXPECT_TRUE(view->isHidden());
    ASSERT_TRUE(settle(main, view));
    const CGFloat frozen = view->counterValue();
    main.drain();
    EXPECT_EQ(view->counterValue(), frozen);

    // Stopping while idle swallows the next move only.
    view->stopAnimating();
    view->setValue(40);
    ASSERT_TRUE(settle(main, view));
    EXPECT_EQ(view->counterValue(), frozen) << "the worker ended at once";
    view->setValue(40);
    ASSERT_TRUE(settle(main, view));
    EXPECT_EQ(view->counterValue(), 40);
}
