// SPDX-License-Identifier: MIT
// Umbrella header: everything a host needs.
#pragma once

// Platform layer.
#include "KPImage/Platform/CGContext.h"
#include "KPImage/Platform/CGImage.h"
#include "KPImage/Platform/Geometry.h"
#include "KPImage/Platform/ImageIO.h"
#include "KPImage/Platform/SystemLog.h"
#include "KPImage/Platform/UIColor.h"
#include "KPImage/Platform/UIGraphics.h"
#include "KPImage/Platform/UIImage.h"

// Capture and dispatch.
#include "KPImage/Platform/AVCaptureConnection.h"
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureMetadataOutput.h"
#include "KPImage/Platform/AVMetadataObject.h"
#include "KPImage/Platform/AVCaptureOutput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureStillImageOutput.h"
#include "KPImage/Platform/AVCaptureTypes.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "KPImage/Platform/CMSampleBuffer.h"
#include "KPImage/Platform/CMTime.h"
#include "KPImage/Platform/CVPixelBuffer.h"
#include "KPImage/Platform/CaptureDeviceBackend.h"
#include "KPImage/Platform/Dispatch.h"
#include "KPImage/Platform/NSError.h"
#include "KPImage/Platform/NSRunLoop.h"
#include "KPImage/Platform/NSThread.h"
#include "KPImage/Platform/NSTimer.h"

// Image analysis.
#include "KPImage/Focus/ImageAssess.h"
#include "KPImage/UIImage+ImagingHelper.h"

// Identity-card data read from a PDF417 code.
#include "KPImage/KPCardData.h"
#include "KPImage/KPFaceQuality.h"

// Version.
#include "KPImage/KPImage_vers.h"

// Image geometry, faces, conversions and store.
#include "KPImage/KPImageDictionary.h"
#include "KPImage/KPImagingHelper.h"
#include "KPImage/Platform/CIDetector.h"
#include "KPImage/Platform/NSFileManager.h"
#include "KPImage/Platform/NSSearchPath.h"
#include "KPImage/Platform/NSStringDrawing.h"
#include "KPImage/Platform/UIDevice.h"

// Recording and the photo album.
#include "KPImage/KPCameraRollHelper.h"
#include "KPImage/Platform/AVAssetReader.h"
#include "KPImage/Platform/AVAssetWriter.h"
#include "KPImage/Platform/AVAssetWriterInput.h"
#include "KPImage/Platform/NSURL.h"
#include "KPImage/Platform/UIPhotoAlbum.h"

// Layers, views and animation.
#include "KPImage/Platform/AVCaptureVideoPreviewLayer.h"
#include "KPImage/Platform/CABasicAnimation.h"
#include "KPImage/Platform/CALayer.h"
#include "KPImage/Platform/CARenderer.h"
#include "KPImage/Platform/CAShapeLayer.h"
#include "KPImage/Platform/CATransform3D.h"
#include "KPImage/Platform/CGContextPath.h"
#include "KPImage/Platform/CGPath.h"
#include "KPImage/Platform/UIView.h"

// Views.
#include "KPImage/KPProgressCircleView.h"
#include "KPImage/KPVideoHelper.h"
#include "KPImage/Platform/NSObjCRuntime.h"
#include "KPImage/SimpleCaptureView.h"
