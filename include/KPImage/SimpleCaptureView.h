// SPDX-License-Identifier: MIT
// The capture view: a ready-made view around a capture engine that shows the camera picture, refocuses every
// three seconds while video runs, switches cameras and takes single still pictures through a one-shot callback.
#pragma once

#include "KPImage/KPVideoHelper.h"
#include "KPImage/Platform/Geometry.h"
#include "KPImage/Platform/NSError.h"
#include "KPImage/Platform/NSTimer.h"
#include "KPImage/Platform/UIImage.h"
#include "KPImage/Platform/UIView.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace kp {

/// The capture view. It is also its engine's delegate and implements only getNewStillImage: it receives no
/// frames. Everything except getNewStillImage is for the main thread.
///
/// Make it with initWithFrame (the view's initialiser, then initDefaults). The platform's second initialiser,
/// initWithCoder (a view unarchived from an interface file), has no counterpart on Linux, where there are no
/// archived interfaces: a view is always made from a frame, with the same defaults.
///
/// The preview appears once the view has a size (from initWithFrame, or a later setFrame or setBounds with a new
/// size) and video has been started. A view whose video was started holds itself through its focus timer until
/// stopVideo; it neither stops the timer nor the engine when it goes away.
///
/// Example:
///     auto view = kp::SimpleCaptureView::initWithFrame(kp::CGRectMake(0, 0, 640, 480));
///     view->startVideo();
///     view->captureImage([](const std::optional<kp::UIImage>& picture, const kp::NSErrorRef& error) {
///         // on "VideoDataOutputQueue" (or at once, with the error, when video is not running)
///     });
///     // ...
///     view->stopVideo();
class SimpleCaptureView : public UIView, public libVideoDelegate {
public:
    /// The one-shot still-picture callback: the picture and no error, or no picture and the error.
    using CaptureCallback = std::function<void(const std::optional<UIImage>& image, const NSErrorRef& error)>;

    /// The domain of the error handed to captureImage's callback while video is not running.
    static constexpr const char* kVideoNotStartedErrorDomain = "Video not started";
    /// The code of that error.
    static constexpr int64_t kVideoNotStartedErrorCode = 101;

    /// A new view of the frame: the view's initialiser, then initDefaults, then initPreview when the frame is not
    /// empty.
    static std::shared_ptr<SimpleCaptureView> initWithFrame(CGRect frame);

    /// The view's initialiser alone; initWithFrame runs initDefaults after it (the engine needs the view as a
    /// shared object to hold it as its delegate).
    explicit SimpleCaptureView(CGRect frame);
    ~SimpleCaptureView() override;

    /// Creates the engine (preset 0, the back camera, aspect-fill preview, 32-bit BGRA frames) with the view as
    /// its delegate (held weakly), no barcode outline, the near auto-focus range, backCameraActive YES, and the
    /// face box and centre box off (they show exactly while the front camera is active).
    void initDefaults();
    /// Replaces vwPreview with a new empty subview filling the bounds. The preview layer is not moved into it.
    void initPreview();

    /// Passes the bounds on, then runs initPreview when the width or the height changed.
    void setBounds(CGRect bounds) override;
    /// Passes the frame on, then runs initPreview when the width or the height changed.
    void setFrame(CGRect frame) override;
    /// Draws nothing.
    void drawRect(CGRect rect) override;

protected:
    /// False: the view draws nothing, so it needs no bitmap.
    bool drawsContent() const override { return false; }

public:

    bool videoRunning() const { return _videoRunning.load(std::memory_order_relaxed); }
    /// Nothing when unchanged. YES: starts the engine, then puts the preview layer (black behind the picture,
    /// framed to vwPreview's bounds now) beneath everything in vwPreview, which does not clip. NO: takes the
    /// preview layer out, then stops the engine. The focus timer is left alone.
    void setVideoRunning(bool videoRunning);

    /// Schedules the repeating 3-second focus timer on the main run loop unless one exists.
    void startTimers();
    /// Invalidates and drops the focus timer, if any.
    void stopTimers();
    /// One focus run of the camera (the engine's autoFocusCamera).
    void focusTimer_Tick();

    /// startTimers, then setVideoRunning YES.
    void startVideo();
    /// stopTimers, then setVideoRunning NO.
    void stopVideo();

    /// Switches the engine's camera (flipping the preview when animate), flips backCameraActive whatever the
    /// engine achieved, then shows the face box and the centre box exactly when the front camera is now active.
    void toggleCameraWithAnimation(bool animate);

    /// Takes one still picture for the callback. While video is not running the callback runs at once with no
    /// picture and the error "Video not started", code 101, and is not kept. Otherwise it is kept, replacing (and
    /// dropping uncalled) a pending one, and the engine takes a picture: the callback then runs once, on
    /// "VideoDataOutputQueue", with the next picture that arrives. A picture that fails reaches nobody, so the
    /// callback stays pending until the next one. An empty callback is never called: while video is not running
    /// nothing happens; while it runs, a pending callback is dropped and the picture is taken for nobody.
    void captureImage(CaptureCallback callback);

    /// libVideoDelegate: yes for getNewStillImage, no for getLastSampleBuffer.
    bool respondsToSelector(Selector selector) const override;
    /// libVideoDelegate, on "VideoDataOutputQueue": hands the picture to the pending callback, if any, with no
    /// error. The callback is taken out before it runs, so it runs at most once.
    void getNewStillImage(const std::optional<UIImage>& image) override;

    // Accessors.

    /// The subview whose layer holds the preview layer while video runs; nil while the view has had no size.
    const std::shared_ptr<UIView>& vwPreview() const { return _vwPreview; }
    /// The engine.
    const std::shared_ptr<KPVideoHelper>& videoHelper() const { return _videoHelper; }
    /// The focus timer while it is scheduled; nil otherwise.
    const std::shared_ptr<NSTimer>& focusTimer() const { return _focusTimer; }
    /// The pending still-picture callback; nil when no picture is pending. Any thread.
    std::shared_ptr<const CaptureCallback> callbackBlock() const;
    /// Whether the back camera is the one in use, as far as the view knows (read-only).
    bool backCameraActive() const { return _backCameraActive.load(std::memory_order_relaxed); }

private:
    /// initPreview when the bounds' size differs from old.
    void remakePreviewIfResized(CGSize old);

    std::shared_ptr<UIView> _vwPreview;
    std::shared_ptr<KPVideoHelper> _videoHelper;
    std::shared_ptr<NSTimer> _focusTimer;
    std::atomic<bool> _videoRunning{false};
    std::atomic<bool> _backCameraActive{false};
    // Written on the main thread, taken on "VideoDataOutputQueue": every access is one whole load, store or
    // exchange under the mutex.
    mutable std::mutex _callbackMutex;
    std::shared_ptr<const CaptureCallback> _callbackBlock;
};

} // namespace kp
