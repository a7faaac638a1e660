// SPDX-License-Identifier: MIT
// The preview layer: the newest frame of a session drawn with its gravity and mirroring, and the mapping of
// normalised frame geometry into layer points that matches the picture.
#include "KPImage/Platform/AVCaptureVideoPreviewLayer.h"

#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/Dispatch.h"
#include "Platform/Media/PixelConverter.h"
#include "Platform/UI/CairoImageSource.h"

#include <cairo.h>

#include <algorithm>
#include <cmath>

namespace kp {

// The newest frame of a layer, and its redraw requests: one per burst of frames, on the main queue.
class AVCaptureVideoPreviewLayer::FrameSlot : public std::enable_shared_from_this<FrameSlot> {
public:
    void receive(const CMSampleBufferRef& frame) {
        if (!frame || !frame->imageBuffer()) {
            return;
        }
        {
            std::lock_guard lock(_mutex);
            _frame = frame;
        }
        // Frames arriving before the main queue runs share one request.
        if (!_redrawQueued.exchange(true, std::memory_order_acq_rel)) {
            dispatch_async(dispatch_get_main_queue(), [self = shared_from_this()] {
                self->_redrawQueued.store(false, std::memory_order_release);
                CALayer::requestRender();
            });
        }
    }

    CMSampleBufferRef newest() const {
        std::lock_guard lock(_mutex);
        return _frame;
    }

private:
    mutable std::mutex _mutex;
    CMSampleBufferRef _frame;
    std::atomic<bool> _redrawQueued{false};
};

// The layer's feed from the session: hands frames to the layer's slot on the camera's thread.
class AVCaptureVideoPreviewLayer::FrameOutput final : public AVCaptureOutput {
public:
    explicit FrameOutput(std::shared_ptr<FrameSlot> slot) : AVCaptureOutput(AVMediaTypeVideo), _slot(std::move(slot)) {}
    Kind kind() const override { return Kind::PreviewLayer; }
    std::shared_ptr<AVCaptureConnection> liveConnection() const { return connectionWithMediaType(AVMediaTypeVideo); }

protected:
    void sessionDidCaptureFrame(const CMSampleBufferRef& frame) override { _slot->receive(frame); }

private:
    const std::shared_ptr<FrameSlot> _slot;
};

std::shared_ptr<AVCaptureVideoPreviewLayer>
AVCaptureVideoPreviewLayer::layerWithSession(const std::shared_ptr<AVCaptureSession>& session) {
    auto layer = std::make_shared<AVCaptureVideoPreviewLayer>();
    layer->setSession(session);
    return layer;
}

AVCaptureVideoPreviewLayer::AVCaptureVideoPreviewLayer() : _slot(std::make_shared<FrameSlot>()) {}

AVCaptureVideoPreviewLayer::~AVCaptureVideoPreviewLayer() { detach(); }

std::shared_ptr<AVCaptureSession> AVCaptureVideoPreviewLayer::session() const { return _session; }

void AVCaptureVideoPreviewLayer::setSession(const std::shared_ptr<AVCaptureSession>& session) {
    checkMainThread("setSession:");
    if (session == this->session()) {
        return;
    }
    detach();
    if (session) {
        attach(session);
    }
}

void AVCaptureVideoPreviewLayer::attach(const std::shared_ptr<AVCaptureSession>& session) {
    auto output = std::make_shared<FrameOutput>(_slot);
    session->addOutput(output);
    if (output->session() == session) {
        _output = std::move(output);
        _session = session;
    }
}

void AVCaptureVideoPreviewLayer::detach() {
    if (_output) {
        if (auto session = _output->session()) {
            session->removeOutput(_output);
        }
        _output.reset();
    }
    _session.reset();
}

std::shared_ptr<AVCaptureConnection> AVCaptureVideoPreviewLayer::connection() const {
    return _output ? _output->liveConnection() : nullptr;
}

void AVCaptureVideoPreviewLayer::setVideoGravity(const AVLayerVideoGravity& gravity) {
    checkMainThread("setVideoGravity:");
    if (gravity == AVLayerVideoGravityResizeAspect || gravity == AVLayerVideoGravityResizeAspectFill ||
        gravity == AVLayerVideoGravityResize) {
        _gravity = gravity;
        didChange();
    }
}

void AVCaptureVideoPreviewLayer::setAutomaticallyAdjustsVideoMirroring(bool automatic) {
    checkMainThread("setAutomaticallyAdjustsVideoMirroring:");
    _autoMirroring = automatic;
    didChange();
}

bool AVCaptureVideoPreviewLayer::isVideoMirrored() const {
    if (!_autoMirroring) {
        return _mirrored;
    }
    auto s = session();
    if (!s) {
        return false;
    }
    const auto inputs = s->inputs();
    return !inputs.empty() && inputs.front()->device() &&
           inputs.front()->device()->position() == AVCaptureDevicePositionFront;
}

void AVCaptureVideoPreviewLayer::setVideoMirrored(bool mirrored) {
    checkMainThread("setVideoMirrored:");
    _mirrored = mirrored;
    didChange();
}

void AVCaptureVideoPreviewLayer::enqueueSampleBuffer(const CMSampleBufferRef& frame) { _slot->receive(frame); }

CMSampleBufferRef AVCaptureVideoPreviewLayer::newestSampleBuffer() const {
    return _slot->newest();
}

std::optional<CGSize> AVCaptureVideoPreviewLayer::frameSize() const {
    const CMSampleBufferRef frame = newestSampleBuffer();
    if (!frame || !frame->imageBuffer()) {
        return std::nullopt;
    }
    const auto& buffer = frame->imageBuffer();
    if (buffer->width() == 0 || buffer->height() == 0) {
        return std::nullopt;
    }
    return CGSizeMake(static_cast<CGFloat>(buffer->width()), static_cast<CGFloat>(buffer->height()));
}

std::optional<CGRect> AVCaptureVideoPreviewLayer::videoRect() const {
    const auto size = frameSize();
    if (!size) {
        return std::nullopt;
    }
    const CGRect b = bounds();
    if (_gravity == AVLayerVideoGravityResize) {
        return b;
    }
    const CGFloat sx = b.size.width / size->width, sy = b.size.height / size->height;
    const CGFloat s = _gravity == AVLayerVideoGravityResizeAspectFill ? std::max(sx, sy) : std::min(sx, sy);
    const CGFloat w = size->width * s, h = size->height * s;
    return CGRectMake(b.origin.x + (b.size.width - w) / 2, b.origin.y + (b.size.height - h) / 2, w, h);
}

CGPoint AVCaptureVideoPreviewLayer::mapToLayer(CGPoint p, const CGRect& video, bool mirrored) const {
    const CGFloat nx = mirrored ? 1 - p.x : p.x;
    return CGPointMake(video.origin.x + nx * video.size.width, video.origin.y + p.y * video.size.height);
}

std::shared_ptr<AVMetadataObject> AVCaptureVideoPreviewLayer::transformedMetadataObjectForMetadataObject(
    const std::shared_ptr<AVMetadataObject>& object) const {
    const auto video = videoRect();
    if (!object || !video) {
        return nullptr;
    }
    const bool mirrored = isVideoMirrored();
    auto map = [&](CGPoint p) { return mapToLayer(p, *video, mirrored); };
    // Mapping is a scale and a shift per axis (a flip when mirrored), so the box maps through two corners.
    const CGRect b = CGRectStandardize(object->bounds());
    const CGPoint p0 = map(CGPointMake(CGRectGetMinX(b), CGRectGetMinY(b)));
    const CGPoint p1 = map(CGPointMake(CGRectGetMaxX(b), CGRectGetMaxY(b)));
    const CGRect bounds = CGRectStandardize(CGRectMake(p0.x, p0.y, p1.x - p0.x, p1.y - p0.y));
    if (const auto* face = dynamic_cast<const AVMetadataFaceObject*>(object.get())) {
        if (!mirrored) {
            return face->withBounds(bounds);
        }
        // Seen in a mirror, a head tilted or turned one way is tilted or turned the other way.
        const auto mirrorAngle = [](double a) { return std::fmod(360.0 - std::fmod(a, 360.0), 360.0); };
        return face->withGeometry(bounds, mirrorAngle(face->rollAngle()), mirrorAngle(face->yawAngle()));
    }
    if (const auto* code = dynamic_cast<const AVMetadataMachineReadableCodeObject*>(object.get())) {
        std::vector<CGPointDictionary> corners;
        for (const auto& dict : code->corners()) {
            CGPoint p;
            // A dictionary that is no point stays as it is.
            corners.push_back(CGPointMakeWithDictionaryRepresentation(dict, &p)
                                  ? CGPointCreateDictionaryRepresentation(map(p))
                                  : dict);
        }
        return code->withGeometry(bounds, std::move(corners));
    }
    return object->copy(); // a type of the host's own: its geometry is its own business
}

CGPoint AVCaptureVideoPreviewLayer::captureDevicePointOfInterestForPoint(CGPoint layerPoint) const {
    const auto video = videoRect();
    if (!video || video->size.width <= 0 || video->size.height <= 0) {
        return CGPointMake(0.5, 0.5);
    }
    CGFloat nx = (layerPoint.x - video->origin.x) / video->size.width;
    const CGFloat ny = (layerPoint.y - video->origin.y) / video->size.height;
    if (isVideoMirrored()) {
        nx = 1 - nx;
    }
    return CGPointMake(nx, ny);
}

CGPoint AVCaptureVideoPreviewLayer::pointForCaptureDevicePointOfInterest(CGPoint devicePoint) const {
    const auto video = videoRect();
    return video ? mapToLayer(devicePoint, *video, isVideoMirrored()) : devicePoint;
}

bool AVCaptureVideoPreviewLayer::contentsCoverBoundsOpaquely() const {
    const auto video = videoRect();
    if (!video) {
        return false;
    }
    const CGRect b = bounds();
    return CGRectGetMinX(*video) <= CGRectGetMinX(b) && CGRectGetMinY(*video) <= CGRectGetMinY(b) &&
           CGRectGetMaxX(*video) >= CGRectGetMaxX(b) && CGRectGetMaxY(*video) >= CGRectGetMaxY(b);
}

void AVCaptureVideoPreviewLayer::drawContents(cairo_t* cr, CGFloat scale) {
    CALayer::drawContents(cr, scale);
    const CMSampleBufferRef frame = newestSampleBuffer();
    const auto video = videoRect();
    if (!frame || !video || video->size.width <= 0 || video->size.height <= 0) {
        return;
    }
    CVPixelBufferRef pixels = frame->imageBuffer();
    if (pixels->pixelFormat() != kCVPixelFormatType_32BGRA) {
        if (_convertedFrom != frame) {
            if (!_converter) {
                _converter = std::make_unique<PixelConverter>();
            }
            _converted = _converter->convert(pixels, kCVPixelFormatType_32BGRA, pixels->width(), pixels->height());
            _convertedFrom = frame;
        }
        pixels = _converted;
        if (!pixels) {
            return;
        }
    }
    if (CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly) != kCVReturnSuccess) {
        return;
    }
    {
        CairoImageSource source(static_cast<const uint8_t*>(CVPixelBufferGetBaseAddress(pixels)), pixels->width(),
                                pixels->height(), CVPixelBufferGetBytesPerRow(pixels), /*opaque=*/true);
        if (source.surface() != nullptr) {
            const CGRect b = bounds();
            cairo_save(cr);
            // The picture, cropped to the bounds (the fill gravity reaches beyond them), as one rectangle whose
            // source pattern maps layer points to frame pixels.
            const CGRect shown = CGRectIntersection(b, *video);
            const bool mirrored = isVideoMirrored();
            cairo_set_source_surface(cr, source.surface(), 0, 0);
            cairo_matrix_t toFrame;
            cairo_matrix_init_scale(&toFrame, (mirrored ? -1 : 1) * static_cast<double>(source.width()) / video->size.width,
                                    static_cast<double>(source.height()) / video->size.height);
            cairo_matrix_translate(&toFrame, mirrored ? -(video->origin.x + video->size.width) : -video->origin.x,
                                   -video->origin.y);
            cairo_pattern_set_matrix(cairo_get_source(cr), &toFrame);
            cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_BILINEAR);
            cairo_pattern_set_extend(cairo_get_source(cr), CAIRO_EXTEND_PAD);
            if (!CGRectIsEmpty(shown)) {
                cairo_rectangle(cr, shown.origin.x, shown.origin.y, shown.size.width, shown.size.height);
                cairo_fill(cr);
            }
            cairo_restore(cr);
        }
    }
    CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
}

} // namespace kp
