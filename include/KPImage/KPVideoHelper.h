// SPDX-License-Identifier: MIT
// The capture engine: one camera session with still, frame and metadata outputs, a preview layer with a centre
// box and detection overlays, the face and barcode state, the camera controls, and the delegate protocol.
#pragma once

#include "KPImage/Platform/AVCaptureConnection.h"
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureMetadataOutput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureStillImageOutput.h"
#include "KPImage/Platform/AVCaptureTypes.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "KPImage/Platform/AVCaptureVideoPreviewLayer.h"
#include "KPImage/Platform/AVMetadataObject.h"
#include "KPImage/Platform/CALayer.h"
#include "KPImage/Platform/CAShapeLayer.h"
#include "KPImage/Platform/CMSampleBuffer.h"
#include "KPImage/Platform/Dispatch.h"
#include "KPImage/Platform/Geometry.h"
#include "KPImage/Platform/UIImage.h"
#include "KPImage/Platform/UIView.h"
#include "KPImage/SharedField.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kp {

/// The receiver of an engine's frames and still pictures. Both methods are optional: the engine asks
/// respondsToSelector before each call, and a delegate that leaves a method out answers no for it.
class libVideoDelegate {
public:
    /// The protocol's two methods, for respondsToSelector.
    enum class Selector { getLastSampleBuffer, getNewStillImage };

    virtual ~libVideoDelegate() = default;

    /// Whether the delegate implements the method. The default answers yes for both: a subclass that leaves
    /// one out overrides this and answers no for it.
    virtual bool respondsToSelector(Selector selector) const;

    /// One camera frame, on "VideoDataOutputQueue", with the detection state of that moment: the face rectangle in
    /// preview-layer points (CGRectZero: no face), the last face's yaw and roll angles in degrees (kept after the
    /// face is lost) and the barcode text ("" for none; nil when the last code had no text). The sample buffer is
    /// valid for the call (a reference may be kept). Must not block the queue for long.
    virtual void getLastSampleBuffer(const CMSampleBufferRef& sampleBuffer, CGRect faceRect, CGFloat faceYawAngle,
                                     CGFloat faceRollAngle, const std::optional<std::string>& barcodeData);
    /// A still picture taken by takeStillPicture, on "VideoDataOutputQueue" (nil when the conversion failed).
    virtual void getNewStillImage(const std::optional<UIImage>& image);
};

/// The capture engine. Create it with initWithAVCaptureSessionPreset (or init); it builds the whole session, not
/// running, with face and PDF417 detection on where the camera offers them. Configuration, views, layers and the
/// metadata handler belong to the main thread; frames and still pictures reach the delegate on the serial queue
/// "VideoDataOutputQueue". The detection state is shared between the two without the caller taking locks: each
/// field is a relaxed atomic (or a whole-value field), so a frame may see the fields of different batches.
/// Destroying the engine does not stop its session, and a preview view still showing the preview layer keeps the
/// session (and the camera) going.
///
/// Example:
///     auto engine = kp::KPVideoHelper::init();                 // front camera, high preset, '420f' frames
///     engine->setDelegate(myDelegate);                          // a std::shared_ptr<kp::libVideoDelegate>
///     auto view = engine->getPreviewView(kp::CGRectMake(0, 0, 640, 480), true);
///     engine->startVideoCapture();
///     // ... frames reach myDelegate->getLastSampleBuffer on "VideoDataOutputQueue" ...
///     engine->stopVideoCapture();
class KPVideoHelper : public AVCaptureVideoDataOutputSampleBufferDelegate,
                      public AVCaptureMetadataOutputObjectsDelegate,
                      public std::enable_shared_from_this<KPVideoHelper> {
public:
    /// The designated initialiser: preset index (see avPreset), camera position (1 back, 2 front), preview gravity
    /// and frame pixel format (a four-character code: BGRA, '420f' or '420v'; another format is refused with a
    /// log line and frames come as '420f'). Builds the session (setupAVCapture), then switches on face
    /// and PDF417 detection. Nil only when the engine cannot be allocated.
    static std::shared_ptr<KPVideoHelper> initWithAVCaptureSessionPreset(NSInteger preset,
                                                                         AVCaptureDevicePosition position,
                                                                         const AVLayerVideoGravity& gravity,
                                                                         OSType pixelFormat);
    /// Preset 0 (high), the front camera, AVLayerVideoGravityResizeAspect and '420f' frames.
    static std::shared_ptr<KPVideoHelper> init();

private:
    /// Only the initialisers can name it, so only they can make an engine.
    struct ConstructionToken {
        explicit ConstructionToken() = default;
    };

public:
    /// For the initialisers (std::make_shared); the token cannot be made outside the class.
    explicit KPVideoHelper(ConstructionToken token);
    ~KPVideoHelper() override;
    KPVideoHelper(const KPVideoHelper&) = delete;
    KPVideoHelper& operator=(const KPVideoHelper&) = delete;

    // Configuration.

    /// Builds the session: preset, the first camera at the position, its focus (single auto-focus, near range),
    /// white balance and exposure (each under the configuration lock, skipped when the lock fails), the input,
    /// the still and frame outputs, stabilisation, the preview layer and the centre box. Called once, by the
    /// initialiser; no step's failure stops the later ones.
    void setupAVCapture(NSInteger preset, AVCaptureDevicePosition position, const AVLayerVideoGravity& gravity,
                        OSType pixelFormat);
    /// The session preset of an index: 1 low, 2 medium, 3 photo, 4 640x480, 5 1280x720, 6 1920x1080, any other
    /// value high.
    static AVCaptureSessionPreset avPreset(NSInteger preset);
    /// Enables or disables one metadata type. Does nothing while the session runs. Creates and adds the metadata
    /// output on first use (with the engine as its delegate on the main queue); a type the camera does not offer
    /// is not enabled.
    void UpdateAVCaptureMetadataOutput(const AVMetadataObjectType& type, bool enabled);

    bool faceFindSupport() const;
    void setFaceFindSupport(bool on);
    bool pdf417Support() const;
    void setPdf417Support(bool on);
    bool qrCodeSupport() const;
    void setQrCodeSupport(bool on);

    /// The device's flash mode; 0 (off) without a flash or a device.
    NSInteger flashMode() const;
    /// Sets the device's flash mode (0 off, 1 on, 2 auto) unchanged; a failed lock is ignored. Nothing without a
    /// flash.
    void setFlashMode(NSInteger flashMode);
    /// The device's auto-focus range restriction; 0 (none) without support or a device.
    NSInteger autoFocusRange() const;
    /// Sets the restriction (0 none, 1 near, 2 far) unchanged, only when the lock succeeds. Nothing without
    /// support.
    void setAutoFocusRange(NSInteger autoFocusRange);

    CGFloat minHeadSize() const { return _minHeadSize.load(std::memory_order_relaxed); }
    void setMinHeadSize(CGFloat size) { _minHeadSize.store(size, std::memory_order_relaxed); }
    CGFloat maxHeadSize() const { return _maxHeadSize.load(std::memory_order_relaxed); }
    void setMaxHeadSize(CGFloat size) { _maxHeadSize.store(size, std::memory_order_relaxed); }
    /// Stores the maximum, then the minimum; no check that min <= max.
    void setMinHeadSize(CGFloat minHeadSize, CGFloat maxHeadSize);

    bool showFaceBoundingBox() const { return _showFaceBoundingBox.load(std::memory_order_relaxed); }
    void setShowFaceBoundingBox(bool show) { _showFaceBoundingBox.store(show, std::memory_order_relaxed); }
    bool showBarcodeBoundingBox() const { return _showBarcodeBoundingBox.load(std::memory_order_relaxed); }
    void setShowBarcodeBoundingBox(bool show) { _showBarcodeBoundingBox.store(show, std::memory_order_relaxed); }

    /// Starts the recorder first when recordCameraData is on, then the session.
    void startVideoCapture();
    /// Stops the recorder first when recordCameraData is on at that moment, then the session.
    void stopVideoCapture();

    /// The EXIF orientation of an image orientation (up 1, down 3, left 8, right 6, up-mirrored 2, down-mirrored 4,
    /// left-mirrored 5, right-mirrored 7); 1 for any value outside 0-7.
    static int32_t exifOrientationFromUIImageOrientation(UIImageOrientation orientation);

    // The delegate and the session's objects.

    /// The delegate, held weakly.
    std::shared_ptr<libVideoDelegate> delegate() const { return _delegate.load().lock(); }
    void setDelegate(const std::shared_ptr<libVideoDelegate>& delegate) { _delegate.store(delegate); }
    const std::shared_ptr<AVCaptureVideoPreviewLayer>& previewLayer() const { return _previewLayer; }
    const std::shared_ptr<AVCaptureSession>& session() const { return _session; }
    /// The camera in use; nil when set-up found none at the position.
    AVCaptureDevice::Ref device() const { return _device.load(); }

    // Frame delivery: the frame output's delegate method, on "VideoDataOutputQueue".

    /// One frame: to the recorder when recordCameraData is on, the face and barcode overlays cleared (on the main
    /// queue) while their rectangles are empty, then to the delegate with the detection state.
    void captureOutput(const std::shared_ptr<AVCaptureOutput>& output, const CMSampleBufferRef& sampleBuffer,
                       const std::shared_ptr<AVCaptureConnection>& connection) override;

    // Metadata analysis: the metadata output's delegate method, on the main queue.

    /// One batch of detections: the barcode text, outline and rectangle from the codes, the widest face's
    /// rectangle (in preview-layer points), angles and centre-box verdict, and the overlays (some changes at once,
    /// the rest as main-queue tasks that run after the call).
    void captureOutput(const std::shared_ptr<AVCaptureOutput>& output,
                       const std::vector<std::shared_ptr<AVMetadataObject>>& metadataObjects,
                       const std::shared_ptr<AVCaptureConnection>& connection) override;
    /// The point dictionary at the index of a corner array; (0, 0) for an index out of range or an element that
    /// is not a point.
    static CGPoint pointFromArray(const std::vector<CGPointDictionary>& array, size_t index);
    /// barcodeRect <- CGRectZero, then parsedData <- "".
    void clearBarcodeData();
    /// faceRect <- CGRectZero; the angles, their flags and isHeadCentered stay.
    void clearFaceData();

    // Camera controls (main thread).

    /// Switches between the front and back camera in one configuration transaction (only the input changes) and,
    /// when animate, flips the preview (a quarter turn about the vertical axis and back, 0.2 s) on the main queue.
    /// When the other camera's input cannot be added the session is left without input and device keeps the old
    /// camera; a switch on a session without input adds the other camera's input, if it can.
    void toggleCameraWithAnimation(bool animate);
    /// Takes a 32-bit BGRA still picture without digital zoom; the upright picture reaches the delegate's
    /// getNewStillImage on "VideoDataOutputQueue". A failed picture reaches nobody.
    void takeStillPicture();
    /// Single auto-focus, when supported and the lock succeeds.
    void autoFocusCamera();
    /// Continuous auto-focus, when supported and the lock succeeds.
    void autoFocusContinuousCamera();
    /// Torch on at a level in (0, AVCaptureMaxAvailableTorchLevel]; other levels (NaN included) and cameras
    /// without torch do nothing; a failed lock is ignored.
    void enableTorchWithLevel(float level);
    /// Torch off, on a camera with a torch; a failed lock is ignored.
    void disableTorch();

    // Preview view and centre box (main thread).

    /// A new view of the frame, owned by the caller, holding the preview layer (taken out of any earlier view),
    /// black behind the picture, not clipping; the centre box shown as asked. The layer's frame is set once, from
    /// the view's bounds now.
    std::shared_ptr<UIView> getPreviewView(CGRect frame, bool withCenterBox);
    bool showCenterBox() const { return _showCenterBox.load(std::memory_order_relaxed); }
    /// Stores the flag, takes the centre box off, and puts it back on top of the preview layer when YES.
    void setShowCenterBox(bool show);

    // The engine's own state (its private interface), readable by hosts and tests. The rectangles are in
    // preview-layer points.

    CGRect faceRect() const { return _faceRect.load(); }
    void setFaceRect(CGRect rect) { _faceRect.store(rect); }
    CGRect barcodeRect() const { return _barcodeRect.load(); }
    void setBarcodeRect(CGRect rect) { _barcodeRect.store(rect); }
    bool hasYawAngle() const { return _hasYawAngle.load(std::memory_order_relaxed); }
    void setHasYawAngle(bool has) { _hasYawAngle.store(has, std::memory_order_relaxed); }
    bool hasRollAngle() const { return _hasRollAngle.load(std::memory_order_relaxed); }
    void setHasRollAngle(bool has) { _hasRollAngle.store(has, std::memory_order_relaxed); }
    CGFloat rollAngle() const { return _rollAngle.load(std::memory_order_relaxed); }
    void setRollAngle(CGFloat angle) { _rollAngle.store(angle, std::memory_order_relaxed); }
    CGFloat yawAngle() const { return _yawAngle.load(std::memory_order_relaxed); }
    void setYawAngle(CGFloat angle) { _yawAngle.store(angle, std::memory_order_relaxed); }
    /// The current barcode's text: "" for none, nil when the last code had no text.
    std::optional<std::string> parsedData() const { return _parsedData.load(); }
    void setParsedData(std::optional<std::string> text) { _parsedData.store(std::move(text)); }
    bool isHeadCentered() const { return _isHeadCentered.load(std::memory_order_relaxed); }
    void setIsHeadCentered(bool centered) { _isHeadCentered.store(centered, std::memory_order_relaxed); }
    /// When on, frames are recorded by the camera-data recorder (KPCameraRollHelper) between start and stop.
    bool recordCameraData() const { return _recordCameraData.load(std::memory_order_relaxed); }
    void setRecordCameraData(bool record) { _recordCameraData.store(record, std::memory_order_relaxed); }

    /// The face box (main thread); nil while no face is shown.
    const std::shared_ptr<CALayer>& primaryLayer() const { return _primaryLayer; }
    /// The barcode outline (main thread); nil while no code is shown.
    const std::shared_ptr<CAShapeLayer>& barcodeLineLayer() const { return _barcodeLineLayer; }
    /// The centre box (main thread).
    const std::shared_ptr<CALayer>& centerLayer() const { return _centerLayer; }
    const std::shared_ptr<AVCaptureVideoDataOutput>& videoDataOutput() const { return _videoDataOutput; }
    const std::shared_ptr<AVCaptureStillImageOutput>& stillImageOutput() const { return _stillImageOutput; }
    /// The enabled metadata types, in the order enabled (main thread).
    const std::vector<AVMetadataObjectType>& metaObjects() const { return _metaObjects; }
    /// The face box layers by faceID (main thread).
    const std::map<NSInteger, std::shared_ptr<CALayer>>& avfFaceLayers() const { return _avfFaceLayers; }
    /// The metadata output; nil until a type was first switched.
    const std::shared_ptr<AVCaptureMetadataOutput>& metaOutput() const { return _metaOutput; }
    const std::shared_ptr<AVCaptureConnection>& captureConnection() const { return _captureConnection; }
    const dispatch_queue_t& videoDataOutputQueue() const { return _videoDataOutputQueue; }

private:
    /// Sets the focus mode when the device supports it and the lock succeeds.
    void focusWithMode(AVCaptureFocusMode mode);
    /// Queues a task on the main queue that holds the engine until it has run.
    void queueToMain(std::function<void(KPVideoHelper&)> task);

    SharedValue<std::weak_ptr<libVideoDelegate>> _delegate;
    std::shared_ptr<AVCaptureVideoPreviewLayer> _previewLayer;
    std::shared_ptr<AVCaptureSession> _session;
    SharedValue<AVCaptureDevice::Ref> _device;
    std::atomic<bool> _showCenterBox{false};
    std::atomic<bool> _showFaceBoundingBox{false};
    std::atomic<bool> _showBarcodeBoundingBox{false};
    std::atomic<CGFloat> _minHeadSize{0};
    std::atomic<CGFloat> _maxHeadSize{0};

    // Detection state: written by the metadata handler on the main queue, read by the frame path.
    SharedValue<CGRect> _faceRect;
    SharedValue<CGRect> _barcodeRect;
    std::atomic<bool> _hasYawAngle{false};
    std::atomic<bool> _hasRollAngle{false};
    std::atomic<CGFloat> _rollAngle{0};
    std::atomic<CGFloat> _yawAngle{0};
    SharedValue<std::optional<std::string>> _parsedData;
    std::atomic<bool> _isHeadCentered{false};
    std::atomic<bool> _recordCameraData{false};

    // Main-thread objects.
    std::shared_ptr<CALayer> _primaryLayer;
    std::shared_ptr<CAShapeLayer> _barcodeLineLayer;
    std::shared_ptr<CALayer> _centerLayer;
    std::shared_ptr<AVCaptureVideoDataOutput> _videoDataOutput;
    std::shared_ptr<AVCaptureStillImageOutput> _stillImageOutput;
    std::vector<AVMetadataObjectType> _metaObjects;
    std::map<NSInteger, std::shared_ptr<CALayer>> _avfFaceLayers;
    std::shared_ptr<AVCaptureMetadataOutput> _metaOutput;
    std::shared_ptr<AVCaptureConnection> _captureConnection;
    dispatch_queue_t _videoDataOutputQueue;
};

} // namespace kp
