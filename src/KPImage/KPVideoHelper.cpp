// SPDX-License-Identifier: MIT
// The capture engine: session set-up and configuration, frame delivery, the metadata handler, camera controls,
// and the preview view with its centre box.
#include "KPImage/KPVideoHelper.h"

#include "KPImage/KPCameraRollHelper.h"
#include "KPImage/KPImagingHelper.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/CABasicAnimation.h"
#include "KPImage/Platform/CATransform3D.h"
#include "KPImage/Platform/CGPath.h"
#include "KPImage/Platform/CVPixelBuffer.h"
#include "KPImage/Platform/NSObjCRuntime.h"
#include "KPImage/Platform/UIColor.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <numbers>

namespace kp {

namespace {

// The face box's border: the single-precision components widened to double.
CGColor faceBoxColor() {
    return CGColor{static_cast<CGFloat>(225.0F / 255.0F), static_cast<CGFloat>(201.0F / 255.0F),
                   static_cast<CGFloat>(14.0F / 255.0F), 1.0};
}

CGColor red() { return UIColor::redColor().CGColor(); }
CGColor green() { return UIColor::greenColor().CGColor(); }

bool contains(const std::vector<AVMetadataObjectType>& types, const AVMetadataObjectType& type) {
    return std::find(types.begin(), types.end(), type) != types.end();
}

} // namespace

// ---------------------------------------------------------------------------------------------------------------
// The delegate protocol.

bool libVideoDelegate::respondsToSelector(Selector /*selector*/) const { return true; }

void libVideoDelegate::getLastSampleBuffer(const CMSampleBufferRef& /*sampleBuffer*/, CGRect /*faceRect*/,
                                           CGFloat /*faceYawAngle*/, CGFloat /*faceRollAngle*/,
                                           const std::optional<std::string>& /*barcodeData*/) {}

void libVideoDelegate::getNewStillImage(const std::optional<UIImage>& /*image*/) {}

// ---------------------------------------------------------------------------------------------------------------
// Creation and set-up.

KPVideoHelper::KPVideoHelper(ConstructionToken /*token*/) {}
KPVideoHelper::~KPVideoHelper() = default;

std::shared_ptr<KPVideoHelper> KPVideoHelper::initWithAVCaptureSessionPreset(NSInteger preset,
                                                                             AVCaptureDevicePosition position,
                                                                             const AVLayerVideoGravity& gravity,
                                                                             OSType pixelFormat) {
    std::shared_ptr<KPVideoHelper> self;
    try {
        self = std::make_shared<KPVideoHelper>(ConstructionToken{});
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    self->_metaObjects.clear();
    self->_avfFaceLayers.clear();
    self->setShowBarcodeBoundingBox(true);
    self->setShowFaceBoundingBox(true);
    self->setMinHeadSize(0);
    self->setMaxHeadSize(5000.0);
    self->setupAVCapture(preset, position, gravity, pixelFormat);
    self->setFaceFindSupport(true);
    self->setPdf417Support(true);
    return self;
}

std::shared_ptr<KPVideoHelper> KPVideoHelper::init() {
    return initWithAVCaptureSessionPreset(0, AVCaptureDevicePositionFront, AVLayerVideoGravityResizeAspect,
                                          kCVPixelFormatType_420YpCbCr8BiPlanarFullRange);
}

AVCaptureSessionPreset KPVideoHelper::avPreset(NSInteger preset) {
    switch (preset) {
    case 1:
        return AVCaptureSessionPresetLow;
    case 2:
        return AVCaptureSessionPresetMedium;
    case 3:
        return AVCaptureSessionPresetPhoto;
    case 4:
        return AVCaptureSessionPreset640x480;
    case 5:
        return AVCaptureSessionPreset1280x720;
    case 6:
        return AVCaptureSessionPreset1920x1080;
    default:
        return AVCaptureSessionPresetHigh;
    }
}

void KPVideoHelper::setupAVCapture(NSInteger preset, AVCaptureDevicePosition position,
                                   const AVLayerVideoGravity& gravity, OSType pixelFormat) {
    _session = AVCaptureSession::create();
    _session->setSessionPreset(avPreset(preset));

    for (const AVCaptureDevice::Ref& candidate : AVCaptureDevice::devicesWithMediaType(AVMediaTypeVideo)) {
        if (candidate->position() == position) {
            _device.store(candidate);
            break;
        }
    }
    const AVCaptureDevice::Ref device = _device.load();

    // Each lock error lives only until the next lock and is never reported.
    NSErrorRef error;
    if (device && device->isFocusModeSupported(AVCaptureFocusModeAutoFocus)) {
        if (device->lockForConfiguration(&error)) {
            device->setAutoFocusRangeRestriction(AVCaptureAutoFocusRangeRestrictionNear);
            device->setFocusMode(AVCaptureFocusModeAutoFocus);
            device->unlockForConfiguration();
        }
    }
    if (device && device->isWhiteBalanceModeSupported(AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance)) {
        if (device->lockForConfiguration(&error)) {
            device->setWhiteBalanceMode(AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance);
            device->unlockForConfiguration();
        }
    }
    if (device && device->isExposureModeSupported(AVCaptureExposureModeContinuousAutoExposure)) {
        if (device->lockForConfiguration(&error)) {
            device->setExposureMode(AVCaptureExposureModeContinuousAutoExposure);
            device->unlockForConfiguration();
        }
    }

    const auto input = AVCaptureDeviceInput::deviceInputWithDevice(device, &error);
    if (_session->canAddInput(input)) {
        _session->addInput(input);
    }

    _stillImageOutput = AVCaptureStillImageOutput::create();
    if (_session->canAddOutput(_stillImageOutput)) {
        _session->addOutput(_stillImageOutput);
    }

    _videoDataOutput = AVCaptureVideoDataOutput::create();
    _videoDataOutput->setVideoSettings({{kCVPixelBufferPixelFormatTypeKey, static_cast<int64_t>(pixelFormat)}});
    _videoDataOutput->setAlwaysDiscardsLateVideoFrames(true);
    _videoDataOutputQueue = dispatch_queue_create("VideoDataOutputQueue", DISPATCH_QUEUE_SERIAL);
    _videoDataOutput->setSampleBufferDelegate(weak_from_this(), _videoDataOutputQueue);
    if (_session->canAddOutput(_videoDataOutput)) {
        _session->addOutput(_videoDataOutput);
    }

    _captureConnection = _videoDataOutput->connectionWithMediaType(AVMediaTypeVideo);
    if (_captureConnection) {
        _captureConnection->setEnabled(true);
        if (_captureConnection->isVideoStabilizationSupported()) {
            if (std::floor(NSFoundationVersionNumber) > 1047.25) {
                _captureConnection->setPreferredVideoStabilizationMode(AVCaptureVideoStabilizationModeAuto);
            } else {
                _captureConnection->setEnablesVideoStabilizationWhenAvailable(true);
            }
        }
    }

    _previewLayer = AVCaptureVideoPreviewLayer::layerWithSession(_session);
    _previewLayer->setVideoGravity(gravity);

    auto center = CAShapeLayer::layer();
    center->setBorderWidth(3.0);
    center->setBorderColor(red());
    _centerLayer = center;
    if (showCenterBox()) {
        _previewLayer->addSublayer(_centerLayer);
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Metadata types, configuration properties, start and stop.

void KPVideoHelper::UpdateAVCaptureMetadataOutput(const AVMetadataObjectType& type, bool enabled) {
    if (_session->isRunning() || !NSClassFromString("AVCaptureMetadataOutput")) {
        return;
    }
    if (!_metaOutput) {
        _metaOutput = AVCaptureMetadataOutput::create();
        if (!_session->canAddOutput(_metaOutput)) {
            return;
        }
        _metaOutput->setMetadataObjectsDelegate(weak_from_this(), dispatch_get_main_queue());
        _session->addOutput(_metaOutput);
    }
    if (enabled && !contains(_metaObjects, type)) {
        if (contains(_metaOutput->availableMetadataObjectTypes(), type)) {
            _metaObjects.push_back(type);
        }
    } else if (!enabled && contains(_metaObjects, type)) {
        _metaObjects.erase(std::find(_metaObjects.begin(), _metaObjects.end(), type));
    }
    _metaOutput->setMetadataObjectTypes(_metaObjects);
    if (const auto connection = _metaOutput->connectionWithMediaType(AVMediaTypeMetadata)) {
        connection->setEnabled(true);
    }
}

bool KPVideoHelper::faceFindSupport() const { return contains(_metaObjects, AVMetadataObjectTypeFace); }
void KPVideoHelper::setFaceFindSupport(bool on) { UpdateAVCaptureMetadataOutput(AVMetadataObjectTypeFace, on); }
bool KPVideoHelper::pdf417Support() const { return contains(_metaObjects, AVMetadataObjectTypePDF417Code); }
void KPVideoHelper::setPdf417Support(bool on) { UpdateAVCaptureMetadataOutput(AVMetadataObjectTypePDF417Code, on); }
bool KPVideoHelper::qrCodeSupport() const { return contains(_metaObjects, AVMetadataObjectTypeQRCode); }
void KPVideoHelper::setQrCodeSupport(bool on) { UpdateAVCaptureMetadataOutput(AVMetadataObjectTypeQRCode, on); }

NSInteger KPVideoHelper::flashMode() const {
    const AVCaptureDevice::Ref device = _device.load();
    if (!device || !device->hasFlash()) {
        return AVCaptureFlashModeOff;
    }
    return device->flashMode();
}

void KPVideoHelper::setFlashMode(NSInteger flashMode) {
    const AVCaptureDevice::Ref device = _device.load();
    if (!device || !device->hasFlash()) {
        return;
    }
    device->lockForConfiguration(nullptr); // a failed lock is ignored: the setter then changes nothing
    device->setFlashMode(static_cast<AVCaptureFlashMode>(flashMode));
    device->unlockForConfiguration();
}

NSInteger KPVideoHelper::autoFocusRange() const {
    const AVCaptureDevice::Ref device = _device.load();
    if (!device || !device->isAutoFocusRangeRestrictionSupported()) {
        return AVCaptureAutoFocusRangeRestrictionNone;
    }
    return device->autoFocusRangeRestriction();
}

void KPVideoHelper::setAutoFocusRange(NSInteger autoFocusRange) {
    const AVCaptureDevice::Ref device = _device.load();
    if (!device || !device->isAutoFocusRangeRestrictionSupported()) {
        return;
    }
    NSErrorRef error;
    if (device->lockForConfiguration(&error)) {
        device->setAutoFocusRangeRestriction(static_cast<AVCaptureAutoFocusRangeRestriction>(autoFocusRange));
        device->unlockForConfiguration();
    }
}

void KPVideoHelper::setMinHeadSize(CGFloat minHeadSize, CGFloat maxHeadSize) {
    setMaxHeadSize(maxHeadSize);
    setMinHeadSize(minHeadSize);
}

void KPVideoHelper::startVideoCapture() {
    if (recordCameraData()) {
        KPCameraRollHelper::getInstance()->startSavingCameraData();
    }
    _session->startRunning();
}

void KPVideoHelper::stopVideoCapture() {
    if (recordCameraData()) {
        KPCameraRollHelper::getInstance()->stopSavingCameraData();
    }
    _session->stopRunning();
}

int32_t KPVideoHelper::exifOrientationFromUIImageOrientation(UIImageOrientation orientation) {
    switch (static_cast<int32_t>(orientation)) {
    case UIImageOrientationUp:
        return 1;
    case UIImageOrientationDown:
        return 3;
    case UIImageOrientationLeft:
        return 8;
    case UIImageOrientationRight:
        return 6;
    case UIImageOrientationUpMirrored:
        return 2;
    case UIImageOrientationDownMirrored:
        return 4;
    case UIImageOrientationLeftMirrored:
        return 5;
    case UIImageOrientationRightMirrored:
        return 7;
    default:
        return 1; // an orientation the platform does not define is taken as upright
    }
}

void KPVideoHelper::queueToMain(std::function<void(KPVideoHelper&)> task) {
    dispatch_async(dispatch_get_main_queue(), [self = shared_from_this(), task = std::move(task)] { task(*self); });
}

// ---------------------------------------------------------------------------------------------------------------
// Frame delivery, on "VideoDataOutputQueue".

void KPVideoHelper::captureOutput(const std::shared_ptr<AVCaptureOutput>& /*output*/,
                                  const CMSampleBufferRef& sampleBuffer,
                                  const std::shared_ptr<AVCaptureConnection>& /*connection*/) {
    if (recordCameraData()) {
        KPCameraRollHelper::getInstance()->appendCameraData(sampleBuffer);
    }

    if (CGRectEqualToRect(faceRect(), CGRectZero)) {
        queueToMain([](KPVideoHelper& self) {
            self._centerLayer->setBorderColor(red());
            if (self._primaryLayer) {
                self._primaryLayer->removeFromSuperlayer();
            }
            self._primaryLayer = nullptr;
        });
    }

    if (CGRectEqualToRect(barcodeRect(), CGRectZero)) {
        setParsedData(std::string());
        queueToMain([](KPVideoHelper& self) {
            if (self._barcodeLineLayer) {
                self._barcodeLineLayer->removeFromSuperlayer();
            }
            self._barcodeLineLayer = nullptr;
        });
    }

    const std::shared_ptr<libVideoDelegate> delegate = this->delegate();
    if (delegate && delegate->respondsToSelector(libVideoDelegate::Selector::getLastSampleBuffer)) {
        delegate->getLastSampleBuffer(sampleBuffer, faceRect(), yawAngle(), rollAngle(), parsedData());
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Metadata analysis, on the main queue.

CGPoint KPVideoHelper::pointFromArray(const std::vector<CGPointDictionary>& array, size_t index) {
    CGPoint point = CGPointZero;
    if (index < array.size()) {
        CGPointMakeWithDictionaryRepresentation(array[index], &point);
    }
    return point;
}

void KPVideoHelper::clearBarcodeData() {
    setBarcodeRect(CGRectZero);
    setParsedData(std::string());
}

void KPVideoHelper::clearFaceData() { setFaceRect(CGRectZero); }

void KPVideoHelper::captureOutput(const std::shared_ptr<AVCaptureOutput>& /*output*/,
                                  const std::vector<std::shared_ptr<AVMetadataObject>>& metadataObjects,
                                  const std::shared_ptr<AVCaptureConnection>& /*connection*/) {
    setBarcodeRect(CGRectZero);

    // Without a preview layer every transformed object is nil.
    const auto transformed = [this](const std::shared_ptr<AVMetadataObject>& object) {
        return _previewLayer ? _previewLayer->transformedMetadataObjectForMetadataObject(object) : nullptr;
    };

    CGFloat bestWidth = 0.0;
    std::shared_ptr<AVMetadataFaceObject> bestFace;
    NSInteger bestKey = 0;
    for (const std::shared_ptr<AVMetadataObject>& object : metadataObjects) {
        if (const auto code = std::dynamic_pointer_cast<AVMetadataMachineReadableCodeObject>(object)) {
            const auto t = std::dynamic_pointer_cast<AVMetadataMachineReadableCodeObject>(transformed(code));
            setParsedData(t ? t->stringValue() : std::nullopt);
            const std::vector<CGPointDictionary> corners = t ? t->corners() : std::vector<CGPointDictionary>{};
            if (corners.size() == 4 && showBarcodeBoundingBox()) {
                const CGPoint p0 = pointFromArray(corners, 0);
                const CGPoint p1 = pointFromArray(corners, 1);
                const CGPoint p2 = pointFromArray(corners, 2);
                const CGPoint p3 = pointFromArray(corners, 3);
                if (!_barcodeLineLayer) {
                    auto outline = CAShapeLayer::layer();
                    outline->setLineWidth(3.0);
                    outline->setStrokeColor(green());
                    outline->setLineCap(kCALineCapSquare);
                    _barcodeLineLayer = outline;
                    queueToMain([](KPVideoHelper& self) {
                        if (self._previewLayer && self._barcodeLineLayer) {
                            self._previewLayer->addSublayer(self._barcodeLineLayer);
                        }
                    });
                }
                // Four separate two-point subpaths: the top edge drawn into the path itself, the others added.
                CGMutablePathRef path = CGPathCreateMutable();
                CGPathMoveToPoint(path, nullptr, p3.x, p3.y);
                CGPathAddLineToPoint(path, nullptr, p2.x, p2.y);
                CGMutablePathRef left = CGPathCreateMutable();
                CGPathMoveToPoint(left, nullptr, p3.x, p3.y);
                CGPathAddLineToPoint(left, nullptr, p0.x, p0.y);
                CGPathAddPath(path, nullptr, left);
                CGMutablePathRef bottom = CGPathCreateMutable();
                CGPathMoveToPoint(bottom, nullptr, p0.x, p0.y);
                CGPathAddLineToPoint(bottom, nullptr, p1.x, p1.y);
                CGPathAddPath(path, nullptr, bottom);
                CGMutablePathRef right = CGPathCreateMutable();
                CGPathMoveToPoint(right, nullptr, p2.x, p2.y);
                CGPathAddLineToPoint(right, nullptr, p1.x, p1.y);
                CGPathAddPath(path, nullptr, right);
                _barcodeLineLayer->setPath(path);
                CGPathRelease(path);
                CGPathRelease(left);
                CGPathRelease(bottom);
                CGPathRelease(right);
                // Not normalised: the width or height may be negative.
                setBarcodeRect(CGRectMake(p3.x, p3.y, p2.x - p3.x, p0.y - p3.y));
            }
        } else if (const auto face = std::dynamic_pointer_cast<AVMetadataFaceObject>(object)) {
            const CGRect bounds = face->bounds();
            if (bounds.size.width > bestWidth) {
                bestFace = face;
                bestWidth = bounds.size.width;
                bestKey = face->faceID();
            }
        }
    }

    if (!bestFace) {
        queueToMain([](KPVideoHelper& self) { self._centerLayer->setBorderColor(red()); });
        setFaceRect(CGRectZero);
        return;
    }

    const auto t = std::dynamic_pointer_cast<AVMetadataFaceObject>(transformed(bestFace));
    const CGRect r = t ? t->bounds() : CGRectZero;

    // The roll flag copies the face's yaw flag: the roll test below is guarded by the yaw flag.
    setYawAngle(t ? t->yawAngle() : 0.0);
    setHasRollAngle(t ? t->hasYawAngle() : false);
    setRollAngle(t ? t->rollAngle() : 0.0);
    setHasYawAngle(t ? t->hasYawAngle() : false);

    if (showCenterBox()) {
        _centerLayer->setFrame(CGRectInset(_previewLayer ? _previewLayer->frame() : CGRectZero, 30.0, 50.0));
        setIsHeadCentered(false);
        const CGRect c = _centerLayer->frame();
        if (!CGRectContainsRect(c, r)) {
            queueToMain([](KPVideoHelper& self) { self._centerLayer->setBorderColor(red()); });
        } else if (hasRollAngle() && rollAngle() != 0.0) {
            _centerLayer->setBorderColor(red());
        } else if (hasYawAngle() && yawAngle() != 0.0) {
            _centerLayer->setBorderColor(red());
        } else if (r.size.width > minHeadSize() && r.size.width < maxHeadSize()) {
            queueToMain([](KPVideoHelper& self) { self._centerLayer->setBorderColor(green()); });
            setIsHeadCentered(true);
        } else {
            queueToMain([](KPVideoHelper& self) { self._centerLayer->setBorderColor(red()); });
        }
    }

    if (showFaceBoundingBox()) {
        const auto found = _avfFaceLayers.find(bestKey);
        const std::shared_ptr<CALayer> existing = found != _avfFaceLayers.end() ? found->second : nullptr;
        if (!_primaryLayer) {
            // A layer found in the dictionary is never reused: it is replaced at once by a new one.
            _primaryLayer = existing;
            _primaryLayer = CALayer::layer();
            _primaryLayer->setBorderWidth(1.0);
            _primaryLayer->setBorderColor(faceBoxColor());
            if (_primaryLayer) {
                _avfFaceLayers[bestKey] = _primaryLayer;
            }
            queueToMain([](KPVideoHelper& self) {
                if (self._previewLayer && self._primaryLayer) {
                    self._previewLayer->addSublayer(self._primaryLayer);
                }
            });
        }
        queueToMain([r](KPVideoHelper& self) {
            if (self._primaryLayer) {
                self._primaryLayer->setFrame(r);
            }
        });
    } else if (_previewLayer) {
        queueToMain([](KPVideoHelper& self) {
            if (self._primaryLayer) {
                self._primaryLayer->removeFromSuperlayer();
            }
        });
    }

    setFaceRect(r);
}

// ---------------------------------------------------------------------------------------------------------------
// Camera controls.

void KPVideoHelper::toggleCameraWithAnimation(bool animate) {
    const std::vector<AVCaptureDevice::Ref> devices = AVCaptureDevice::devices();
    _session->beginConfiguration();

    AVCaptureDevice::Ref backCamera;
    AVCaptureDevice::Ref frontCamera;
    for (const AVCaptureDevice::Ref& candidate : devices) {
        if (candidate->hasMediaType(AVMediaTypeVideo)) {
            if (candidate->position() == AVCaptureDevicePositionBack) {
                backCamera = candidate;
            } else if (candidate->position() == AVCaptureDevicePositionFront) {
                frontCamera = candidate;
            }
        }
    }

    // A session left without input by an earlier failed switch has nothing to remove.
    const auto inputs = _session->inputs();
    if (!inputs.empty()) {
        _session->removeInput(inputs[0]);
    }

    NSErrorRef error;
    const auto frontInput = AVCaptureDeviceInput::deviceInputWithDevice(frontCamera, &error);
    const auto backInput = AVCaptureDeviceInput::deviceInputWithDevice(backCamera, &error);

    const AVCaptureDevice::Ref current = _device.load();
    if (current && current->position() == AVCaptureDevicePositionFront) {
        if (_session->canAddInput(backInput)) {
            _session->addInput(backInput);
            _device.store(backCamera);
        }
    } else {
        if (_session->canAddInput(frontInput)) {
            _session->addInput(frontInput);
            _device.store(frontCamera);
        }
    }

    _session->commitConfiguration();

    if (animate) {
        queueToMain([](KPVideoHelper& self) {
            auto animation = CABasicAnimation::animationWithKeyPath("transform");
            animation->setDuration(0.1);
            animation->setToValue(
                NSValue::valueWithCATransform3D(CATransform3DMakeRotation(std::numbers::pi / 2, 0, 1, 0)));
            animation->setAutoreverses(true);
            self._previewLayer->addAnimation(animation, "transform");
        });
    }
}

void KPVideoHelper::takeStillPicture() {
    const auto connection = _stillImageOutput->connectionWithMediaType(AVMediaTypeVideo);
    if (connection) {
        connection->setVideoScaleAndCropFactor(1.0);
    }
    _stillImageOutput->setOutputSettings(
        {{kCVPixelBufferPixelFormatTypeKey, static_cast<int64_t>(kCVPixelFormatType_32BGRA)}});
    _stillImageOutput->captureStillImageAsynchronouslyFromConnection(
        connection, [self = shared_from_this()](const CMSampleBufferRef& imageDataSampleBuffer,
                                                const NSErrorRef& error) {
            if (error) {
                return;
            }
            dispatch_sync(self->_videoDataOutputQueue, [&self, &imageDataSampleBuffer] {
                const AVCaptureDevice::Ref device = self->device();
                const int32_t position = device ? static_cast<int32_t>(device->position()) : 0;
                const std::optional<UIImage> image =
                    KPImagingHelper::makeUIImageFromCMSampleBuffer(imageDataSampleBuffer, position);
                const std::shared_ptr<libVideoDelegate> delegate = self->delegate();
                if (delegate && delegate->respondsToSelector(libVideoDelegate::Selector::getNewStillImage)) {
                    delegate->getNewStillImage(image);
                }
            });
        });
}

void KPVideoHelper::autoFocusCamera() { focusWithMode(AVCaptureFocusModeAutoFocus); }

void KPVideoHelper::autoFocusContinuousCamera() { focusWithMode(AVCaptureFocusModeContinuousAutoFocus); }

void KPVideoHelper::focusWithMode(AVCaptureFocusMode mode) {
    const AVCaptureDevice::Ref device = _device.load();
    if (device && device->isFocusModeSupported(mode)) {
        NSErrorRef error;
        if (device->lockForConfiguration(&error)) {
            device->setFocusMode(mode);
            device->unlockForConfiguration();
        }
    }
}

void KPVideoHelper::enableTorchWithLevel(float level) {
    if (!(level > 0.0F && level <= AVCaptureMaxAvailableTorchLevel)) {
        return;
    }
    const AVCaptureDevice::Ref device = _device.load();
    if (!device || !device->hasTorch()) {
        return;
    }
    device->lockForConfiguration(nullptr); // the result is not checked: the torch call then fails quietly
    NSErrorRef error;
    device->setTorchModeOnWithLevel(level, &error);
    device->unlockForConfiguration();
}

void KPVideoHelper::disableTorch() {
    const AVCaptureDevice::Ref device = _device.load();
    if (device && device->hasTorch()) {
        device->lockForConfiguration(nullptr);
        device->setTorchMode(AVCaptureTorchModeOff);
        device->unlockForConfiguration();
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Preview view and centre box.

std::shared_ptr<UIView> KPVideoHelper::getPreviewView(CGRect frame, bool withCenterBox) {
    setShowCenterBox(withCenterBox);
    std::shared_ptr<UIView> view = UIView::initWithFrame(frame);
    view->layer()->setMasksToBounds(false);
    _previewLayer->setBackgroundColor(UIColor::blackColor().CGColor());
    _previewLayer->setFrame(view->layer()->bounds());
    view->layer()->addSublayer(_previewLayer);
    return view;
}

void KPVideoHelper::setShowCenterBox(bool show) {
    _showCenterBox.store(show, std::memory_order_relaxed);
    _centerLayer->removeFromSuperlayer();
    if (show) {
        _previewLayer->addSublayer(_centerLayer);
    }
}

} // namespace kp
