// SPDX-License-Identifier: MIT
// The dlib back-end of the still-image face detector: HOG face boxes and 68-point landmarks.
#include "Platform/Vision/DlibFaceDetector.h"

#include "Platform/Vision/LumaImage.h"

#include <dlib/image_processing.h>
#include <dlib/image_processing/frontal_face_detector.h>
#include <dlib/image_transforms.h>

#include <cmath>
#include <map>
#include <mutex>

namespace kp {

namespace {

// The model is ~100 MB and takes about a second to read, so every detector of the process shares one copy
// per path. A path that failed to load is remembered too, so a missing model costs one stat per process.
std::shared_ptr<const dlib::shape_predictor> sharedLandmarkModel(const std::string& path) {
    static std::mutex mutex;
    static std::map<std::string, std::shared_ptr<const dlib::shape_predictor>> models;
    std::lock_guard lock(mutex);
    if (auto it = models.find(path); it != models.end()) {
        return it->second;
    }
    std::shared_ptr<const dlib::shape_predictor> model;
    try {
        auto loaded = std::make_shared<dlib::shape_predictor>();
        dlib::deserialize(path) >> *loaded;
        if (loaded->num_parts() == 68) {
            model = std::move(loaded);
        }
    } catch (...) {
        // Missing, unreadable or not a landmark model: faces are then reported without landmarks.
    }
    models.emplace(path, model);
    return model;
}

// The bitmap as 8-bit luminance, the same weights the drawing context uses for grey.
bool toGray(const CGImage& image, dlib::array2d<unsigned char>& out) {
    LumaImage luma;
    if (!LumaImageFromCGImage(image, luma)) {
        return false;
    }
    out.set_size(luma.height, luma.width);
    for (int y = 0; y < luma.height; ++y) {
        std::copy(luma.row(y), luma.row(y) + luma.width, &out[y][0]);
    }
    return true;
}

double distance(CGPoint a, CGPoint b) { return std::hypot(a.x - b.x, a.y - b.y); }

} // namespace

struct DlibFaceDetector::Impl {
    CIDetectorAccuracy accuracy;
    dlib::frontal_face_detector detector = dlib::get_frontal_face_detector();
};

DlibFaceDetector::DlibFaceDetector(CIDetectorAccuracy accuracy) : _impl(std::make_unique<Impl>()) {
    _impl->accuracy = accuracy;
}

DlibFaceDetector::~DlibFaceDetector() = default;

std::shared_ptr<const dlib::shape_predictor> DlibFaceDetector::landmarkModel(const std::string& path) {
    return sharedLandmarkModel(path);
}

CGPoint DlibFaceDetector::landmarkMean(const Landmarks& pts, size_t from, size_t to) {
    CGPoint sum{0, 0};
    for (size_t i = from; i <= to; ++i) {
        sum.x += pts[i].x;
        sum.y += pts[i].y;
    }
    const double n = static_cast<double>(to - from + 1);
    return {sum.x / n, sum.y / n};
}

bool DlibFaceDetector::landmarkModelAvailable(const std::string& path) {
    return sharedLandmarkModel(path) != nullptr;
}

double DlibFaceDetector::eyeAspectRatio(const CGPoint* p) {
    const double width = distance(p[0], p[3]);
    if (!(width > 0)) {
        return 0;
    }
    return (distance(p[1], p[5]) + distance(p[2], p[4])) / (2.0 * width);
}

CIFaceFeature DlibFaceDetector::featureFromLandmarks(CGRect box, const Landmarks* landmarks, size_t imageHeight,
                                                     const CIDetectorFeatureOptions& options) {
    const double h = static_cast<double>(imageHeight);
    CIFaceFeature f;
    f.bounds = CGRectMake(box.origin.x, h - box.origin.y - box.size.height, box.size.width, box.size.height);
    if (landmarks == nullptr) {
        return f;
    }
    const Landmarks& pts = *landmarks;
    // iBUG order: 36..41 the eye on the image's left, 42..47 the other, 48..59 the outer lip line.
    const CGPoint leftEye = landmarkMean(pts, 36, 41);
    const CGPoint rightEye = landmarkMean(pts, 42, 47);
    const CGPoint mouth = landmarkMean(pts, 48, 59);
    f.hasLeftEyePosition = f.hasRightEyePosition = f.hasMouthPosition = true;
    f.leftEyePosition = {leftEye.x, h - leftEye.y};
    f.rightEyePosition = {rightEye.x, h - rightEye.y};
    f.mouthPosition = {mouth.x, h - mouth.y};
    f.hasFaceAngle = true;
    // In y-up space: a right-hand eye that is higher gives a positive (counter-clockwise) roll.
    f.faceAngle = static_cast<float>(std::atan2(leftEye.y - rightEye.y, rightEye.x - leftEye.x) * 180.0 / M_PI);
    if (options.eyeBlink) {
        f.leftEyeClosed = eyeAspectRatio(&pts[36]) < kClosedEyeAspectRatio;
        f.rightEyeClosed = eyeAspectRatio(&pts[42]) < kClosedEyeAspectRatio;
    }
    if (options.smile) {
        // A smile widens the mouth against the jaw and lifts its corners above the middle of the lips;
        // both are measured along the face so that a tilted head does not change them.
        const double jaw = distance(pts[0], pts[16]);
        const double mouthWidth = distance(pts[48], pts[54]);
        const CGPoint lipsMiddle{(pts[51].x + pts[57].x) / 2, (pts[51].y + pts[57].y) / 2};
        const CGPoint corners{(pts[48].x + pts[54].x) / 2, (pts[48].y + pts[54].y) / 2};
        // Unit vector pointing up the face (from the lips towards the eyes).
        const CGPoint eyesMiddle{(leftEye.x + rightEye.x) / 2, (leftEye.y + rightEye.y) / 2};
        const double upLength = distance(eyesMiddle, lipsMiddle);
        double lift = 0;
        if (upLength > 0 && mouthWidth > 0) {
            const CGPoint up{(eyesMiddle.x - lipsMiddle.x) / upLength, (eyesMiddle.y - lipsMiddle.y) / upLength};
            lift = ((corners.x - lipsMiddle.x) * up.x + (corners.y - lipsMiddle.y) * up.y) / mouthWidth;
        }
        const double widthRatio = jaw > 0 ? mouthWidth / jaw : 0;
        f.hasSmile = lift > kSmileCornerLift || widthRatio > kSmileWidthRatio;
    }
    return f;
}

std::vector<CIFaceFeature> DlibFaceDetector::featuresInImage(const CIImage& image,
                                                             const CIDetectorFeatureOptions& options) {
    std::vector<CIFaceFeature> features;
    const CGImageRef& cg = image.CGImage();
    if (!cg) {
        return features;
    }
    try {
        dlib::array2d<unsigned char> gray;
        if (!toGray(*cg, gray)) {
            return features;
        }
        std::vector<dlib::rectangle> boxes;
        if (_impl->accuracy == CIDetectorAccuracyHigh) {
            // Upsampling once lets the 80-pixel detection window find faces down to about 40 pixels.
            dlib::array2d<unsigned char> larger;
            dlib::pyramid_up(gray, larger, dlib::pyramid_down<2>());
            dlib::pyramid_down<2> pyramid;
            for (const dlib::rectangle& r : _impl->detector(larger, kDetectionMargin)) {
                boxes.push_back(pyramid.rect_down(r));
            }
        } else {
            boxes = _impl->detector(gray, kDetectionMargin);
        }
        if (boxes.empty()) {
            return features;
        }
        const auto model = sharedLandmarkModel(CIDetectorFaceLandmarksModelPath());
        for (const dlib::rectangle& r : boxes) {
            const CGRect box = CGRectMake(static_cast<double>(r.left()), static_cast<double>(r.top()),
                                          static_cast<double>(r.width()), static_cast<double>(r.height()));
            if (!model) {
                features.push_back(featureFromLandmarks(box, nullptr, cg->height(), options));
                continue;
            }
            const dlib::full_object_detection shape = (*model)(gray, r);
            Landmarks pts{};
            for (unsigned long i = 0; i < 68; ++i) {
                pts[i] = {static_cast<double>(shape.part(i).x()), static_cast<double>(shape.part(i).y())};
            }
            features.push_back(featureFromLandmarks(box, &pts, cg->height(), options));
        }
    } catch (...) {
        // dlib reports allocation and internal failures by exception; the detector reports no faces then.
        features.clear();
    }
    return features;
}

} // namespace kp
