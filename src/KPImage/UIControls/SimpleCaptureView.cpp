// SPDX-License-Identifier: MIT
// The capture view: engine set-up, the preview subview, video on and off, the focus timer, the camera switch and
// the one-shot still-picture callback.
#include "KPImage/SimpleCaptureView.h"

#include "KPImage/Platform/AVCaptureTypes.h"
#include "KPImage/Platform/AVCaptureVideoPreviewLayer.h"
#include "KPImage/Platform/CVPixelBuffer.h"
#include "KPImage/Platform/UIColor.h"

#include <utility>

namespace kp {

namespace {
// The focus timer's interval in seconds.
constexpr double kFocusInterval = 3.0;
} // namespace

std::shared_ptr<SimpleCaptureView> SimpleCaptureView::initWithFrame(CGRect frame) {
    auto view = std::make_shared<SimpleCaptureView>(frame);
    view->initDefaults();
    // A view made with a size shows the preview as one sized later does.
    if (!CGRectIsEmpty(view->bounds())) {
        view->initPreview();
    }
    return view;
}

SimpleCaptureView::SimpleCaptureView(CGRect frame) : UIView(frame) {}

SimpleCaptureView::~SimpleCaptureView() = default;

void SimpleCaptureView::initDefaults() {
    _videoHelper = KPVideoHelper::initWithAVCaptureSessionPreset(0, AVCaptureDevicePositionBack,
                                                                 AVLayerVideoGravityResizeAspectFill,
                                                                 kCVPixelFormatType_32BGRA);
    if (!_videoHelper) {
        return;
    }
    _videoHelper->setDelegate(std::static_pointer_cast<SimpleCaptureView>(shared_from_this()));
    _videoHelper->setShowBarcodeBoundingBox(false);
    _videoHelper->setAutoFocusRange(AVCaptureAutoFocusRangeRestrictionNear);
    _backCameraActive.store(true, std::memory_order_relaxed);
    _videoHelper->setShowFaceBoundingBox(!backCameraActive());
    _videoHelper->setShowCenterBox(!backCameraActive());
}

void SimpleCaptureView::initPreview() {
    if (_vwPreview) {
        _vwPreview->removeFromSuperview();
    }
    _vwPreview = UIView::initWithFrame(bounds());
    addSubview(_vwPreview);
}

void SimpleCaptureView::setBounds(CGRect newBounds) {
    const CGSize old = bounds().size;
    UIView::setBounds(newBounds);
    remakePreviewIfResized(old);
}

void SimpleCaptureView::setFrame(CGRect newFrame) {
    const CGSize old = bounds().size;
    UIView::setFrame(newFrame);
    remakePreviewIfResized(old);
}

void SimpleCaptureView::remakePreviewIfResized(CGSize old) {
    const CGSize now = bounds().size;
    if (old.width != now.width || old.height != now.height) {
        initPreview();
    }
}

void SimpleCaptureView::drawRect(CGRect) {}

void SimpleCaptureView::setVideoRunning(bool running) {
    if (running == videoRunning()) {
        return;
    }
    _videoRunning.store(running, std::memory_order_relaxed);
    if (!_videoHelper) {
        return;
    }
    const auto& preview = _videoHelper->previewLayer();
    if (running) {
        _videoHelper->startVideoCapture();
        if (_vwPreview) {
            _vwPreview->layer()->setMasksToBounds(false);
        }
        if (preview) {
            preview->setBackgroundColor(UIColor::blackColor().CGColor());
            // Without vwPreview (no size change yet) there is nothing to show the picture in.
            preview->setFrame(_vwPreview ? _vwPreview->layer()->bounds() : CGRectZero);
            if (_vwPreview) {
                _vwPreview->layer()->insertSublayer(preview, 0);
            }
        }
    } else {
        if (preview) {
            preview->removeFromSuperlayer();
        }
        _videoHelper->stopVideoCapture();
    }
}

void SimpleCaptureView::startTimers() {
    if (_focusTimer) {
        return;
    }
    // The run loop holds the timer, and the timer the view, until stopTimers.
    auto self = std::static_pointer_cast<SimpleCaptureView>(shared_from_this());
    _focusTimer = NSTimer::scheduledTimerWithTimeInterval(kFocusInterval, true,
                                                          [self](NSTimer&) { self->focusTimer_Tick(); });
}

void SimpleCaptureView::stopTimers() {
    if (_focusTimer) {
        _focusTimer->invalidate();
        _focusTimer.reset();
    }
}

void SimpleCaptureView::focusTimer_Tick() {
    if (_videoHelper) {
        _videoHelper->autoFocusCamera();
    }
}

void SimpleCaptureView::startVideo() {
    startTimers();
    setVideoRunning(true);
}

void SimpleCaptureView::stopVideo() {
    stopTimers();
    setVideoRunning(false);
}

void SimpleCaptureView::toggleCameraWithAnimation(bool animate) {
    if (_videoHelper) {
        _videoHelper->toggleCameraWithAnimation(animate);
    }
    _backCameraActive.store(!backCameraActive(), std::memory_order_relaxed);
    if (_videoHelper) {
        _videoHelper->setShowFaceBoundingBox(!backCameraActive());
        _videoHelper->setShowCenterBox(!backCameraActive());
    }
}

void SimpleCaptureView::captureImage(CaptureCallback callback) {
    if (!videoRunning()) {
        if (callback) {
            callback(std::nullopt, NSError::errorWithDomain(kVideoNotStartedErrorDomain, kVideoNotStartedErrorCode));
        }
        return;
    }
    std::shared_ptr<const CaptureCallback> block =
        callback ? std::make_shared<const CaptureCallback>(std::move(callback)) : nullptr;
    {
        std::lock_guard lock(_callbackMutex);
        _callbackBlock.swap(block);
    }
    block.reset(); // the dropped callback goes outside the lock
    if (_videoHelper) {
        _videoHelper->takeStillPicture();
    }
}

bool SimpleCaptureView::respondsToSelector(Selector selector) const {
    return selector == Selector::getNewStillImage;
}

void SimpleCaptureView::getNewStillImage(const std::optional<UIImage>& image) {
    std::shared_ptr<const CaptureCallback> block;
    {
        // Taken out (cleared) before the call, so that a callback stored meanwhile on the main thread waits for
        // the next picture instead of being cleared unseen, and no block can run twice.
        std::lock_guard lock(_callbackMutex);
        block = std::exchange(_callbackBlock, nullptr);
    }
    if (block) {
        (*block)(image, nullptr);
    }
}

std::shared_ptr<const SimpleCaptureView::CaptureCallback> SimpleCaptureView::callbackBlock() const {
    std::lock_guard lock(_callbackMutex);
    return _callbackBlock;
}

} // namespace kp
