// SPDX-License-Identifier: MIT
// The preview layer: shows a capture session's newest frame with a video gravity, mirrored for a front camera,
// and maps metadata geometry and points between the frame and the layer.
#pragma once

#include "KPImage/Platform/AVCaptureConnection.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVMetadataObject.h"
#include "KPImage/Platform/CALayer.h"
#include "KPImage/Platform/CMSampleBuffer.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kp {

/// How the picture fills the layer's bounds.
using AVLayerVideoGravity = std::string;
/// The whole picture, aspect kept, centred (bands where the shapes differ). The default.
inline const AVLayerVideoGravity AVLayerVideoGravityResizeAspect = "AVLayerVideoGravityResizeAspect";
/// The bounds filled, aspect kept, centred; what falls outside the bounds is cropped.
inline const AVLayerVideoGravity AVLayerVideoGravityResizeAspectFill = "AVLayerVideoGravityResizeAspectFill";
/// The picture stretched to the bounds.
inline const AVLayerVideoGravity AVLayerVideoGravityResize = "AVLayerVideoGravityResize";

class PixelConverter;

/// A layer showing the camera. Attached to a session it counts as one of the session's consumers (the camera
/// streams for it even without other outputs) and receives every frame on the camera's thread, keeping only
/// the newest; the host is asked to redraw (CALayer's render request) on the main queue once per burst of
/// frames. BGRA and '420f' frames are shown, opaque (the alpha byte of BGRA frames is ignored). Layer methods are for the main thread; the layer is mirrored
/// while its session's camera is a front camera (unless mirroring is set by hand).
class AVCaptureVideoPreviewLayer : public CALayer {
public:
    /// A preview layer on the session (null session: a layer that shows nothing until one is set).
    static std::shared_ptr<AVCaptureVideoPreviewLayer> layerWithSession(const std::shared_ptr<AVCaptureSession>& session);
    AVCaptureVideoPreviewLayer();
    ~AVCaptureVideoPreviewLayer() override;

    /// The session, held strongly: a host that keeps only the layer (or a view holding it) keeps the camera
    /// running. No cycle arises: the session reaches the layer only weakly, through the layer's feed.
    std::shared_ptr<AVCaptureSession> session() const;
    /// Moves the layer to another session (or none); the picture stays until the next frame arrives.
    void setSession(const std::shared_ptr<AVCaptureSession>& session);
    /// The layer's connection to its session's camera; nil without a session with a camera input.
    std::shared_ptr<AVCaptureConnection> connection() const;

    const AVLayerVideoGravity& videoGravity() const { return _gravity; }
    /// One of the three gravities; other values are ignored.
    void setVideoGravity(const AVLayerVideoGravity& gravity);

    /// When set (the default), the layer mirrors exactly while its session's camera is at the front.
    bool automaticallyAdjustsVideoMirroring() const { return _autoMirroring; }
    void setAutomaticallyAdjustsVideoMirroring(bool automatic);
    /// The mirroring in effect.
    bool isVideoMirrored() const;
    /// Used while automaticallyAdjustsVideoMirroring is off.
    void setVideoMirrored(bool mirrored);

    /// Shows a frame as if the session had delivered it (any thread); null is ignored.
    void enqueueSampleBuffer(const CMSampleBufferRef& frame);
    /// The newest frame; null before any (any thread).
    CMSampleBufferRef newestSampleBuffer() const;
    /// The newest frame's size in pixels; nil before any frame (any thread).
    std::optional<CGSize> frameSize() const;

    /// Where the whole picture lies in the layer (it may reach beyond the bounds with the fill gravity); nil
    /// before any frame.
    std::optional<CGRect> videoRect() const;
    /// A copy of the object with bounds and corners in layer points, placed as the picture is (gravity, crop,
    /// mirroring; mirrored corners keep their order); nil for nil or before the frame size is known. Faces and
    /// codes are mapped; other subclasses are copied as they are. A mirrored face's roll and yaw a become
    /// (360 - a) mod 360.
    std::shared_ptr<AVMetadataObject> transformedMetadataObjectForMetadataObject(
        const std::shared_ptr<AVMetadataObject>& object) const;
    /// The normalised frame point (0..1, top-left origin) shown at a layer point; (0.5, 0.5) before any frame.
    CGPoint captureDevicePointOfInterestForPoint(CGPoint layerPoint) const;
    /// The layer point where a normalised frame point is shown; the point itself before any frame.
    CGPoint pointForCaptureDevicePointOfInterest(CGPoint devicePoint) const;

    /// Camera frames are opaque (their alpha byte is ignored): true while the picture covers the bounds.
    bool contentsCoverBoundsOpaquely() const override;
    void drawContents(cairo_t* cr, CGFloat scale) override;

private:
    class FrameOutput;
    class FrameSlot;
    void attach(const std::shared_ptr<AVCaptureSession>& session);
    void detach();
    CGPoint mapToLayer(CGPoint normalised, const CGRect& video, bool mirrored) const;

    std::shared_ptr<AVCaptureSession> _session;
    std::shared_ptr<FrameOutput> _output;
    AVLayerVideoGravity _gravity = AVLayerVideoGravityResizeAspect;
    bool _autoMirroring = true;
    bool _mirrored = false;

    // The newest frame, written on the camera's thread. The feed reaches the layer only through this slot, so the
    // camera's thread never holds the layer (whose end may end its session).
    std::shared_ptr<FrameSlot> _slot;

    // Main thread: the newest frame converted to BGRA when it came in another format.
    CMSampleBufferRef _convertedFrom;
    CVPixelBufferRef _converted;
    std::unique_ptr<PixelConverter> _converter;
};

} // namespace kp
