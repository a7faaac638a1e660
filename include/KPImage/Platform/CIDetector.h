// SPDX-License-Identifier: MIT
// The still-image face detector of the platform layer: detector images, face features and the detector.
#pragma once

#include "KPImage/Platform/CGImage.h"
#include "KPImage/Platform/Geometry.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kp {

/// An image as the detectors see it: the bitmap, taken as upright whatever orientation its owner has.
class CIImage {
public:
    CIImage() = default;
    /// Wraps the bitmap (shared, not copied); a null bitmap makes an empty image with no features.
    static CIImage imageWithCGImage(CGImageRef image) {
        CIImage result;
        result._image = std::move(image);
        return result;
    }
    const CGImageRef& CGImage() const { return _image; }

private:
    CGImageRef _image;
};

/// One face found in a still image. Every position and the bounds are in the image's pixel space with the
/// origin at the BOTTOM left and y up: a pixel row r (counted from the top) lies at y = height - r.
/// The eyes are named by the side of the image they appear on: leftEyePosition is the eye on the image's
/// left (the person's right eye when the person faces the camera), rightEyePosition the eye on its right.
struct CIFaceFeature {
    /// The face box (x, y of its bottom-left corner).
    CGRect bounds = CGRectZero;
    bool hasLeftEyePosition = false;
    /// Centre of the eye on the image's left.
    CGPoint leftEyePosition = CGPointZero;
    bool hasRightEyePosition = false;
    /// Centre of the eye on the image's right.
    CGPoint rightEyePosition = CGPointZero;
    bool hasMouthPosition = false;
    /// Centre of the mouth.
    CGPoint mouthPosition = CGPointZero;
    bool hasFaceAngle = false;
    /// Roll of the face in degrees, from the line through the eye centres: positive when the face is turned
    /// counter-clockwise as seen (the right-hand eye higher than the left-hand one); 0 for level eyes.
    float faceAngle = 0;
    /// The mouth is smiling (asked for with CIDetectorFeatureOptions::smile).
    bool hasSmile = false;
    /// The eye on the image's left is closed (asked for with CIDetectorFeatureOptions::eyeBlink).
    bool leftEyeClosed = false;
    /// The eye on the image's right is closed.
    bool rightEyeClosed = false;
};

/// Detector types.
enum class CIDetectorType { Face };
inline constexpr CIDetectorType CIDetectorTypeFace = CIDetectorType::Face;

/// Accuracy of a detector: high searches a finer image pyramid (the image is first upsampled once), which
/// finds smaller faces at about four times the cost; low searches the image as it is.
enum class CIDetectorAccuracy { Low, High };
inline constexpr CIDetectorAccuracy CIDetectorAccuracyLow = CIDetectorAccuracy::Low;
inline constexpr CIDetectorAccuracy CIDetectorAccuracyHigh = CIDetectorAccuracy::High;

/// Options given when a detector is made.
struct CIDetectorOptions {
    CIDetectorAccuracy accuracy = CIDetectorAccuracyLow;
};

/// Options of one detection run: which classifications to compute.
struct CIDetectorFeatureOptions {
    /// Compute hasSmile.
    bool smile = false;
    /// Compute leftEyeClosed and rightEyeClosed.
    bool eyeBlink = false;
};

/// A detector of features in still images. A detector may be used from one thread at a time; separate
/// detectors may run concurrently.
class CIDetector {
public:
    virtual ~CIDetector() = default;

    /// A new detector of the type, made by the current factory (the dlib back-end unless the host or a test
    /// replaced it); null when the type is not supported.
    static std::shared_ptr<CIDetector> detectorOfType(CIDetectorType type, const CIDetectorOptions& options);

    /// The features found in the image, in the detector's order (for faces: by descending detection
    /// confidence). Empty for an image without a bitmap or without faces; never throws.
    virtual std::vector<CIFaceFeature> featuresInImage(const CIImage& image,
                                                      const CIDetectorFeatureOptions& options) = 0;
};

/// Makes the detectors that CIDetector::detectorOfType returns.
using CIDetectorFactory = std::function<std::shared_ptr<CIDetector>(CIDetectorType, const CIDetectorOptions&)>;

/// Replaces the detector factory for the whole process (thread-safe); an empty function restores the
/// built-in dlib back-end. Returns the factory that was set before (empty for the built-in one).
CIDetectorFactory CIDetectorSetFactory(CIDetectorFactory factory);

/// The default path of the 68-point face landmark model (Debian's libdlib-data).
inline constexpr const char* kCIDefaultFaceLandmarksModelPath =
    "/usr/share/dlib/shape_predictor_68_face_landmarks.dat";

/// Sets the file of the 68-point face landmark model (thread-safe); an empty path restores the default.
/// The model is loaded on first use and shared by every detector. Without a loadable model, faces are still
/// found (bounds only) but have no eye or mouth positions, no angle and no smile or blink flags.
void CIDetectorSetFaceLandmarksModelPath(std::string path);
/// The landmark model file in use.
std::string CIDetectorFaceLandmarksModelPath();

} // namespace kp
