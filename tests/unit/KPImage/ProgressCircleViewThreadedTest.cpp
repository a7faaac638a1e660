// SPDX-License-Identifier: MIT
// The progress circle view: clamps, geometry, the drawn ring (probed pixels) and the step worker on the global
// queue with its redraws on the main queue, paced by a stepped clock.
#include "KPImage/KPProgressCircleView.h"
#include "support/ManualMainQueue.h"
#include "support/PixelProbe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <numbers>
#include <set>
#include <thread>

using namespace kp;
using kptest::pixelAt;
using kptest::Rgba;

namespace {

// The worker's pauses advance a clock of its own instead of sleeping; a gate can hold the worker at a pause.
class SteppedCircle : public KPProgressCircleView {
public:
    using KPProgressCircleView::KPProgressCircleView;
    static std::shared_ptr<SteppedCircle> make(CGRect frame) {
        auto view = std::make_shared<SteppedCircle>(frame);
        view->baseInit();
        return view;
    }
    std::atomic<double> lastPause{0};
    std::atomic<int> steps{0};
    // Endless mode: how often the worker turned the ring over, and the counter at the step of the last turn.
    std::atomic<int> turns{0};
    std::atomic<CGFloat> counterAtTurn{-1};
    void hold() {
        std::lock_guard lock(_mutex);
        _held = true;
    }
    void release() {
        {
            std::lock_guard lock(_mutex);
            _held = false;
        }
        _cv.notify_all();
    }
    bool waitUntilHeld() {
        std::unique_lock lock(_mutex);
        return _cv.wait_for(lock, std::chrono::seconds(10), [&] { return _waiting; });
    }
    size_t workerThreads() {
        std::lock_guard lock(_mutex);
        return _threads.size();
    }

protected:
    void sleepBetweenSteps(double seconds) override {
        lastPause.store(seconds, std::memory_order_relaxed);
        steps.fetch_add(1, std::memory_order_relaxed);
        if (invert() != _invertSeen) {
            _invertSeen = invert();
            turns.fetch_add(1, std::memory_order_relaxed);
            counterAtTurn.store(counterValue(), std::memory_order_relaxed);
        }
        std::unique_lock lock(_mutex);
        _threads.insert(std::this_thread::get_id());
        _waiting = _held;
        _cv.notify_all();
        _cv.wait(lock, [&] { return !_held; });
        _waiting = false;
    }

private:
    std::mutex _mutex;
    std::condition_variable _cv;
    bool _held = false;
    bool _waiting = false;
    bool _invertSeen = false; // the worker's own
    std::set<std::thread::id> _threads;
};

bool settle(kptest::ManualMainQueue& main, const std::shared_ptr<KPProgressCircleView>& view) {
    const bool done = main.drainUntil([&] { return !view->animating(); });
    main.drain();
    return done;
}

std::optional<Rgba> probe(const std::shared_ptr<KPProgressCircleView>& view, CGFloat x, CGFloat y) {
    auto image = UIViewRenderToImage(view, view->bounds().size, 1);
    if (!image) {
        return std::nullopt;
    }
    return pixelAt(*image, static_cast<size_t>(x), static_cast<size_t>(y));
}

// The pixel at radius r and clock angle deg (0 at the top, growing clockwise) about the centre of a 100 x 100 view.
std::optional<Rgba> at(const std::shared_ptr<KPProgressCircleView>& view, double r, double deg) {
    const double a = (deg - 90) * std::numbers::pi / 180;
    return probe(view, 50 + r * std::cos(a), 50 + r * std::sin(a));
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

TEST_F(ProgressCircleView, ValuesAreClampedInSinglePrecision) {
    EXPECT_EQ(view->maximumValue(), 100);
    view->setValue(150);
    EXPECT_EQ(view->value(), 100);
    view->setValue(-5);
    EXPECT_EQ(view->value(), 0);
    view->setValue(0.1);
    EXPECT_EQ(view->value(), static_cast<double>(0.1f));
    EXPECT_NE(view->value(), 0.1);
    view->setMaximumValue(0.5);
    EXPECT_EQ(view->maximumValue(), 1);
    EXPECT_EQ(view->value(), static_cast<double>(0.1f));
    view->setValue(7);
    EXPECT_EQ(view->value(), 1);
    view->setMaximumValue(1e40); // beyond single precision: infinite
    EXPECT_TRUE(std::isinf(view->maximumValue()));

    // Unanimated: stored as given in value and counter, no clamp, invert left alone.
    view->setMaximumValue(100);
    ASSERT_TRUE(settle(main, view));
    view->setInvert(true);
    view->setValue(150, false);
    EXPECT_EQ(view->value(), 150);
    EXPECT_EQ(view->counterValue(), 150);
    EXPECT_TRUE(view->invert());
    EXPECT_GT(view->convertToAngle(150), 3 * std::numbers::pi / 2);
    view->setValue(10);
    EXPECT_FALSE(view->invert());
}

TEST_F(ProgressCircleView, CentreSizeMarginsAnglesAndTheDrawingSquare) {
    view->setCenterSize(10);
    EXPECT_EQ(view->centerSize(), 0);
    view->setInterierOffsetMargin(20);
    view->setCenterSize(10);
    EXPECT_EQ(view->centerSize(), 10);
    view->setCenterSize(-4); // the raw argument wins the second step
    EXPECT_EQ(view->centerSize(), -4);
    view->setBorderSize(-3);
    EXPECT_EQ(view->borderSize(), 0);
    view->setInterierOffsetMargin(-1);
    EXPECT_EQ(view->interierOffsetMargin(), 0);

    EXPECT_NEAR(view->convertToAngle(0), -std::numbers::pi / 2, 1e-15);
    EXPECT_EQ(view->convertToAngle(25), 0);
    EXPECT_NEAR(view->convertToAngle(50), std::numbers::pi / 2, 1e-15);
    EXPECT_NEAR(view->convertToAngle(100), 3 * std::numbers::pi / 2, 1e-15);
    const CGRect r = view->calculateDrawRectFromRect(CGRectMake(0, 0, 200, 100), 5);
    EXPECT_TRUE(CGRectEqualToRect(r, CGRectMake(55, 5, 90, 90)));
    EXPECT_TRUE(CGRectEqualToRect(view->calculateDrawRectFromRect(CGRectMake(10, 0, 40, 100), 0),
                                  CGRectMake(10, 30, 40, 40)));
}

TEST_F(ProgressCircleView, DrawsTheSectorFromTheTopClockwiseOrItsComplement) {
    view->setBorderSize(2);
    view->setBorderOffsetMargin(3); // the sector's outer radius: 50 - 5 = 45
    view->setInterierOffsetMargin(20);
    view->setValue(25);
    ASSERT_TRUE(settle(main, view));
    EXPECT_EQ(view->counterValue(), 25);
    EXPECT_EQ(at(view, 35, 45), kTrack);  // inside the quarter from 12 to 3 o'clock
    EXPECT_EQ(at(view, 35, 135), kClear); // past it
    EXPECT_EQ(at(view, 35, 315), kClear);
    EXPECT_EQ(at(view, 10, 45), kClear);  // inside the inner radius
    EXPECT_TRUE(kptest::near(*at(view, 48, 200), kTrack, 10)); // the outline (border colour green, width 2 on the 2-point inset circle)

    view->setInvert(true);
    view->setNeedsDisplay();
    main.drain();
    EXPECT_EQ(at(view, 35, 45), kClear);
    EXPECT_EQ(at(view, 35, 135), kTrack);
    EXPECT_EQ(at(view, 35, 315), kTrack);
    EXPECT_EQ(at(view, 10, 135), kClear);

    // Colours, a tint behind everything and a centre disc of the track colour.
    view->setTintColor(UIColor::blueColor());
    view->setTrackColor(UIColor::redColor());
    view->setCenterSize(6);
    view->setValue(50);
    ASSERT_TRUE(settle(main, view));
    EXPECT_EQ(at(view, 35, 90), (Rgba{255, 0, 0, 255}));
    EXPECT_EQ(at(view, 35, 270), (Rgba{0, 0, 255, 255}));
    EXPECT_EQ(at(view, 0, 0), (Rgba{255, 0, 0, 255}));
    EXPECT_EQ(at(view, 12, 270), (Rgba{0, 0, 255, 255}));
}

TEST_F(ProgressCircleView, ValueZeroDrawsAVerticalLineAndDrawingLowersTheInnerMargin) {
    view->setInterierOffsetMargin(20);
    view->setNeedsDisplay();
    ASSERT_TRUE(settle(main, view));
    // A 1-point line on x = 50 covers half of columns 49 and 50, from y = 0 (no border) down to 50 - 20.
    auto line = probe(view, 50, 10);
    ASSERT_TRUE(line);
    EXPECT_EQ(line->g, 255);
    EXPECT_NEAR(line->a, 128, 3);
    EXPECT_EQ(probe(view, 50, 40), kClear);
    EXPECT_EQ(probe(view, 53, 10), kClear);

    // An inner margin beyond the outer radius less 1 is lowered by the drawing, for good.
    view->setInterierOffsetMargin(80);
    view->setNeedsDisplay();
    EXPECT_EQ(view->interierOffsetMargin(), 80);
    main.drain(); // the drawing runs on the main queue
    EXPECT_EQ(view->interierOffsetMargin(), 49);
}

TEST_F(ProgressCircleView, AFullSweepTakesThreeHundredSixtyStepsWithTwoMillisecondPauses) {
    for (CGFloat maximum : {100.0, 7.0}) {
        auto circle = SteppedCircle::make(CGRectMake(0, 0, 100, 100));
        circle->setMaximumValue(maximum);
        ASSERT_TRUE(settle(main, circle));
        const int before = circle->steps.load();
        circle->setValue(maximum);
        ASSERT_TRUE(settle(main, circle));
        // One step per degree; the float sum of 360 steps may fall a hair short of the maximum, and then one
        // more step snaps onto it.
        const int sweep = circle->steps.load() - before;
        EXPECT_GE(sweep, 360) << maximum;
        EXPECT_LE(sweep, 361) << maximum;
        EXPECT_EQ(circle->lastPause.load(), 0.002) << maximum;
        EXPECT_EQ(circle->counterValue(), circle->value());
        // Half-way back down: 180 steps.
        circle->setValue(maximum / 2);
        ASSERT_TRUE(settle(main, circle));
        const int back = circle->steps.load() - before - sweep;
        EXPECT_GE(back, 180) << maximum;
        EXPECT_LE(back, 181) << maximum;
    }
}

TEST_F(ProgressCircleView, OneWorkerAtMostPicksUpNewValues) {
    ASSERT_TRUE(settle(main, view));
    view->hold();
    view->setValue(50);
    ASSERT_TRUE(view->waitUntilHeld());
    EXPECT_TRUE(view->animating());
    view->setValue(20); // the running worker turns towards the new value
    view->doAnmiation();
    view->release();
    ASSERT_TRUE(settle(main, view));
    EXPECT_EQ(view->counterValue(), 20);
    EXPECT_EQ(view->workerThreads(), 1u);
}

TEST_F(ProgressCircleView, EndlessModeTogglesTheRingAndStoppingFreezesIt) {
    view->setValue(30);
    view->setHidden(true);
    view->startAnimating(); // waits for the worker moving to 30 to end
    EXPECT_FALSE(view->isHidden());
    EXPECT_TRUE(view->continousAnimation());
    EXPECT_EQ(view->value(), 100);
    view->setValue(10); // ignored while endless
    view->setMaximumValue(10);
    EXPECT_EQ(view->value(), 100);
    EXPECT_EQ(view->maximumValue(), 100);
    // Each time the ring is full it starts again from empty, drawing the other part: 360 steps a turn, the first
    // from 30 taking 252.
    ASSERT_TRUE(main.drainUntil([&] { return view->turns.load() >= 2; }));
    EXPECT_NEAR(view->counterAtTurn.load(), 100.0 / 360.0, 1e-9) << "a turn restarts from 0, one step taken";
    view->setHideWhenAnimationStops(1);
    view->stopAnimating();
    EXPECT_TRUE(view->isHidden());
    EXPECT_FALSE(view->continousAnimation());
    ASSERT_TRUE(settle(main, view));
    EXPECT_FALSE(view->stopAnimationCalled());
    // The value is the counter as stopAnimating saw it; a step the worker was taking then may still land.
    EXPECT_NEAR(view->value(), view->counterValue(), view->maximumValue() / 360.0 + 1e-9);
    const CGFloat frozen = view->counterValue();
    const int steps = view->steps.load();
    main.drain();
    EXPECT_EQ(view->counterValue(), frozen);
    EXPECT_EQ(view->steps.load(), steps);
}

TEST_F(ProgressCircleView, StoppingWhileIdleSwallowsTheNextMoveOnly) {
    ASSERT_TRUE(settle(main, view));
    view->stopAnimating(); // no worker to stop: the request waits for the next one
    EXPECT_TRUE(view->stopAnimationCalled());
    view->setValue(40);
    ASSERT_TRUE(settle(main, view));
    EXPECT_EQ(view->value(), 40);
    EXPECT_EQ(view->counterValue(), 0) << "the worker ended at once";
    EXPECT_FALSE(view->stopAnimationCalled());
    view->setValue(40);
    ASSERT_TRUE(settle(main, view));
    EXPECT_EQ(view->counterValue(), 40);
}

TEST_F(ProgressCircleView, AViewMadeWithoutASizeDrawsOnceItGetsOne) {
    auto circle = SteppedCircle::make(CGRectZero);
    circle->setValue(25);
    ASSERT_TRUE(settle(main, circle));
    ASSERT_FALSE(circle->layer()->contents());
    circle->setFrame(CGRectMake(0, 0, 100, 100));
    main.drain();
    ASSERT_TRUE(circle->layer()->contents()) << "drawn without any setter asking";
    EXPECT_EQ(at(circle, 35, 45), kTrack);
}
