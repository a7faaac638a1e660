// SPDX-License-Identifier: MIT
// The dlib back-end of the still-image face detector: HOG face boxes and 68-point landmarks.
#pragma once

#include "KPImage/Platform/CIDetector.h"

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace dlib {
class shape_predictor;
}

namespace kp {

/// Finds frontal faces with dlib's HOG detector and measures them with the shared 68-point landmark model.
/// The HOG detector is made per instance (cheap); the landmark model is loaded once per process and path.
class DlibFaceDetector final : public CIDetector {
public:
    /// Landmark points of one face (iBUG 68-point order) in top-left pixel coordinates.
    using Landmarks = std::array<CGPoint, 68>;

    /// An eye whose aspect ratio (lid opening over eye width) is below this is taken as closed.
    static constexpr double kClosedEyeAspectRatio = 0.2;
    /// A mouth whose corners stand above the middle of the lips by this fraction of the mouth width is
    /// smiling (a broad smile lifts them by about 0.18; a relaxed mouth keeps them level)...
    static constexpr double kSmileCornerLift = 0.08;
    /// ...and so is a mouth wider than this fraction of the jaw (a relaxed mouth spans about 0.4).
    static constexpr double kSmileWidthRatio = 0.52;
    /// Detections must score this much above the HOG model's own threshold: at the bare threshold, round
    /// badges and textures pass for faces.
    static constexpr double kDetectionMargin = 0.25;

    explicit DlibFaceDetector(CIDetectorAccuracy accuracy);
    ~DlibFaceDetector() override;

    std::vector<CIFaceFeature> featuresInImage(const CIImage& image,
                                              const CIDetectorFeatureOptions& options) override;

    /// The feature of a face box (top-left pixel space) and its landmarks, turned into the detector's
    /// bottom-left space of an image imageHeight pixels high.
    static CIFaceFeature featureFromLandmarks(CGRect topLeftBox, const Landmarks* landmarks, size_t imageHeight,
                                              const CIDetectorFeatureOptions& options);
    /// The mean of landmarks from..to (inclusive), e.g. 36..41 for the centre of the eye on the image's left.
    static CGPoint landmarkMean(const Landmarks& pts, size_t from, size_t to);
    /// Lid opening over eye width of the six points of one eye (0 for a degenerate eye).
    static double eyeAspectRatio(const CGPoint* sixPoints);

    /// True when the landmark model at path could be loaded (loads it on first call; shared afterwards).
    static bool landmarkModelAvailable(const std::string& path);
    /// The 68-point landmark model at path, loaded once per process and path; null when it cannot be loaded.
    static std::shared_ptr<const dlib::shape_predictor> landmarkModel(const std::string& path);

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

} // namespace kp
