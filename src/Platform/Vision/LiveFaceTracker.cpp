// SPDX-License-Identifier: MIT
// The face finder of the metadata output, on dlib's HOG detector and 68-point landmarks.
#include "Platform/Vision/LiveFaceTracker.h"

#include <dlib/image_processing.h>
#include <dlib/image_processing/frontal_face_detector.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <limits>
#include <numbers>

namespace kp {

namespace {

// The detector's 80-pixel window finds faces from about that size up: the smallest faces are scaled to it.
constexpr double kSmallestDetectableFace = 80.0;
// Detections must score this much above the HOG model's threshold: video shows codes, text and patterns that
// pass for faces at the still-image detector's margin.
constexpr double kDetectionMargin = 0.5;
// Small frames are enlarged at most this much for detection.
constexpr double kMaxDetectionScale = 1.25;
// dlib's detector scans a pyramid whose levels shrink by this factor; its window is kDetectorWindow pixels.
constexpr double kPyramidStep = 5.0 / 6.0;
constexpr double kDetectorWindow = 80.0;
// Tracked faces are looked for at a scale that makes them about this many pixels wide, through this many pyramid
// levels (windows of 80 to 115 pixels): the face may shrink by a tenth or grow by a quarter between analysed frames
// (a fifteenth of a second apart at the worker's full rate) and still be found.
constexpr double kTrackedFaceSize = 90.0;
constexpr unsigned long kTrackedLevels = 3;
// In video, new faces are looked for in steps: each step searches one tile of the frame at the fine scale through
// the first kFineLevels levels (the small faces), and every kCoarseEvery-th step also the whole frame from the
// level after those on (the large faces). Tiles are about this many frame pixels wide and high.
constexpr unsigned long kFineLevels = 5;
constexpr uint64_t kCoarseEvery = 2;
constexpr int kTileColumnsDivisor = 330;
constexpr int kTileRowsDivisor = 250;
// A step of the search for new faces runs in one frame of this many while faces are tracked, and in one of
// kSearchEveryWithoutFaces otherwise: with the coarse pass in every kCoarseEvery-th step, a new face of more than
// about a quarter of the frame's height shows within four frames of an empty scene (a quarter of a second at 15
// analysed frames a second), the smallest within one round of the tiles (24 frames).
constexpr uint64_t kSearchEveryWhileTracking = 12;
constexpr uint64_t kSearchEveryWithoutFaces = 2;
// Tracked faces are looked for, and a lost track again (turned by these roll steps), in a square this many times
// their box.
constexpr double kSearchAreaFactor = 2.0;
constexpr double kRecoveryRolls[] = {15.0, -15.0, 30.0, -30.0};
// Landmarks of a head tilted by more than this (degrees) are fitted again on a crop turned upright.
constexpr double kRefineRollDegrees = 5.0;

// IDs are never reused within the process, whichever tracker hands them out.
std::atomic<NSInteger> gNextFaceID{1};

double toDegrees(double radians) {
    return radians * 180.0 / std::numbers::pi;
}

// q = round(degrees / step) * step, halves away from zero, as a value in [0, 360) without negative zero.
double quantize(double degrees, double step) {
    if (!std::isfinite(degrees)) {
        return 0.0;
    }
    double q = std::fmod(std::round(degrees / step) * step, 360.0);
    if (q < 0) {
        q += 360.0;
    }
    if (q >= 360.0 || q == 0.0) {
        q = 0.0; // also turns -0 into +0
    }
    return q;
}

void toDlib(const LumaImage& img, dlib::array2d<unsigned char>& out) {
    if (out.nr() != img.height || out.nc() != img.width) {
        out.set_size(img.height, img.width);
    }
    for (int y = 0; y < img.height; ++y) {
        std::copy(img.row(y), img.row(y) + img.width, &out[y][0]);
    }
}

struct Track {
    TrackedFace face;
    int missed = 0;
    // The roll step that found the face when the upright detector lost it (0: upright); a tilted head stays
    // tilted for a while, so that step is tried first next time.
    double recoveryRoll = 0.0;
};

// One detection in frame pixels, with its landmarks when the model is loaded.
struct Found {
    CGRect box{};
    double recoveryRoll = 0.0;
    bool hasLandmarks = false;
    DlibFaceDetector::Landmarks pts{};
};

// A detector's rectangle in an image reduced by scale, or in crop when not null, as a box of frame pixels.
CGRect boxOf(const dlib::rectangle& r, double scale, const RotatedCrop* crop) {
    const double x0 = static_cast<double>(r.left());
    const double y0 = static_cast<double>(r.top());
    const double x1 = static_cast<double>(r.right() + 1);
    const double y1 = static_cast<double>(r.bottom() + 1);
    if (crop == nullptr) {
        return CGRectMake(x0 / scale, y0 / scale, (x1 - x0) / scale, (y1 - y0) / scale);
    }
    // A turned face keeps its size; its box is centred where the turned box's centre falls.
    const CGPoint c = crop->toSource({(x0 + x1) / 2, (y0 + y1) / 2});
    const double w = (x1 - x0) / crop->scale;
    const double h = (y1 - y0) / crop->scale;
    return CGRectMake(c.x - w / 2, c.y - h / 2, w, h);
}

bool isKnown(const std::vector<Found>& known, CGRect box) {
    return std::any_of(known.begin(), known.end(),
                       [&](const Found& g) { return LiveFaceTracker::matchScore(g.box, box) > 0; });
}

} // namespace

struct LiveFaceTracker::Impl {
    Mode mode = Mode::Video;
    uint64_t tileIndex = 0;
    uint64_t framesSinceSearch = kSearchEveryWhileTracking; // the first frame searches
    dlib::frontal_face_detector detector = dlib::get_frontal_face_detector();
    // The same detector limited to the first few pyramid levels: faces of a known size range.
    dlib::frontal_face_detector trackedDetector = limited(detector, kTrackedLevels);
    dlib::frontal_face_detector fineDetector = limited(detector, kFineLevels);
    std::shared_ptr<const dlib::shape_predictor> model;
    std::vector<Track> tracks;
    dlib::array2d<unsigned char> gray; // reused from search to search

    static dlib::frontal_face_detector limited(const dlib::frontal_face_detector& d, unsigned long levels) {
        dlib::frontal_face_detector::image_scanner_type scanner;
        scanner.copy_configuration(d.get_scanner());
        scanner.set_max_pyramid_levels(levels);
        std::vector<dlib::frontal_face_detector::feature_vector_type> w;
        for (unsigned long i = 0; i < d.num_detectors(); ++i) {
            w.push_back(d.get_w(i));
        }
        return dlib::frontal_face_detector(scanner, d.get_overlap_tester(), w);
    }

    void refineLandmarks(const LumaImage& frame, Found& f) const;

    // Detections in img (already reduced by scale) mapped to frame pixels through crop (identity when null). Those
    // that continue a detection in known are left out before their landmarks are fitted.
    std::vector<Found> detect(dlib::frontal_face_detector& by, const LumaImage& img, double scale,
                              const RotatedCrop* crop, const std::vector<Found>* known = nullptr) {
        std::vector<Found> found;
        toDlib(img, gray);
        for (const dlib::rectangle& r : by(gray, kDetectionMargin)) {
            Found f;
            DlibFaceDetector::Landmarks local{};
            if (known != nullptr && isKnown(*known, boxOf(r, scale, crop))) {
                continue;
            }
            if (model) {
                const dlib::full_object_detection shape = (*model)(gray, r);
                for (unsigned long i = 0; i < 68; ++i) {
                    local[i] = {static_cast<double>(shape.part(i).x()), static_cast<double>(shape.part(i).y())};
                }
                f.hasLandmarks = true;
            }
            const auto map = [&](CGPoint p) {
                return crop != nullptr ? crop->toSource(p) : CGPointMake(p.x / scale, p.y / scale);
            };
            f.box = boxOf(r, scale, crop);
            for (size_t i = 0; i < 68 && f.hasLandmarks; ++i) {
                f.pts[i] = map(local[i]);
            }
            found.push_back(f);
        }
        return found;
    }
};

void LiveFaceTracker::Impl::refineLandmarks(const LumaImage& frame, Found& f) const {
    // The landmark fit starts from an upright mean face and stops short on a tilted head; fitted again on a crop
    // turned by the first estimate, it follows the head.
    if (!model || !f.hasLandmarks) {
        return;
    }
    const double roll = rollFromLandmarks(f.pts);
    if (std::abs(roll) < kRefineRollDegrees) {
        return;
    }
    RotatedCrop crop;
    crop.centre = {f.box.origin.x + f.box.size.width / 2, f.box.origin.y + f.box.size.height / 2};
    crop.angle = roll * std::numbers::pi / 180.0;
    crop.scale = std::min(kMaxDetectionScale, kTrackedFaceSize / std::max(1.0, f.box.size.width));
    crop.width = crop.height = static_cast<int>(kSearchAreaFactor * f.box.size.width * crop.scale);
    dlib::array2d<unsigned char> upright;
    toDlib(crop.sample(frame), upright);
    const long half = static_cast<long>(f.box.size.width * crop.scale / 2);
    const long c = crop.width / 2;
    const dlib::full_object_detection shape =
        (*model)(upright, dlib::rectangle(c - half, c - half, c + half, c + half));
    for (unsigned long i = 0; i < 68; ++i) {
        f.pts[i] = crop.toSource({static_cast<double>(shape.part(i).x()), static_cast<double>(shape.part(i).y())});
    }
}

LiveFaceTracker::LiveFaceTracker(const std::string& modelPath, Mode mode) : _impl(std::make_unique<Impl>()) {
    _impl->mode = mode;
    _impl->model = DlibFaceDetector::landmarkModel(modelPath);
}

LiveFaceTracker::~LiveFaceTracker() = default;

void LiveFaceTracker::reset() {
    _impl->tracks.clear();
}

double LiveFaceTracker::detectionScale(int height) {
    if (height <= 0) {
        return 1.0;
    }
    return std::min(kMaxDetectionScale, kSmallestDetectableFace / (kMinimumFaceFraction * height));
}

double LiveFaceTracker::quantizedRoll(double degrees) {
    return quantize(degrees, 30.0);
}

double LiveFaceTracker::quantizedYaw(double degrees) {
    return quantize(degrees, 45.0);
}

double LiveFaceTracker::rollFromLandmarks(const DlibFaceDetector::Landmarks& pts) {
    const CGPoint left = DlibFaceDetector::landmarkMean(pts, 36, 41);
    const CGPoint right = DlibFaceDetector::landmarkMean(pts, 42, 47);
    // y grows downwards, so a positive angle turns the eye line clockwise as seen.
    return toDegrees(std::atan2(right.y - left.y, right.x - left.x));
}

double LiveFaceTracker::yawFromLandmarks(const DlibFaceDetector::Landmarks& pts) {
    const CGPoint left = DlibFaceDetector::landmarkMean(pts, 36, 41);
    const CGPoint right = DlibFaceDetector::landmarkMean(pts, 42, 47);
    const double ex = right.x - left.x;
    const double ey = right.y - left.y;
    const double len = std::hypot(ex, ey);
    if (!(len > 0)) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    // Along the eye line: how far the nose tip sits from the middle of the face's outline at ear level, against
    // half the outline's width. On a head seen turned by y this is about sin(y).
    const auto along = [&](CGPoint p) { return (p.x * ex + p.y * ey) / len; };
    const double a = along(pts[0]);
    const double b = along(pts[16]);
    const double half = (b - a) / 2;
    if (!(half > 0)) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    const double offset = (along(pts[30]) - (a + b) / 2) / half;
    return toDegrees(std::asin(std::clamp(offset, -1.0, 1.0)));
}

double LiveFaceTracker::matchScore(CGRect a, CGRect b) {
    const double o = overlap(a, b);
    if (o >= kMatchOverlap) {
        return o;
    }
    // A head that tilts or turns makes its box jump; centres close for the face's size still match, below any
    // real overlap.
    const double shift = std::hypot(a.origin.x + a.size.width / 2 - b.origin.x - b.size.width / 2,
                                    a.origin.y + a.size.height / 2 - b.origin.y - b.size.height / 2);
    const double limit = kMatchDistance * std::max(a.size.width, b.size.width);
    return shift < limit ? kMatchOverlap * (1.0 - shift / limit) : 0.0;
}

double LiveFaceTracker::overlap(CGRect a, CGRect b) {
    const double x0 = std::max(a.origin.x, b.origin.x);
    const double y0 = std::max(a.origin.y, b.origin.y);
    const double x1 = std::min(a.origin.x + a.size.width, b.origin.x + b.size.width);
    const double y1 = std::min(a.origin.y + a.size.height, b.origin.y + b.size.height);
    if (x1 <= x0 || y1 <= y0) {
        return 0;
    }
    const double inter = (x1 - x0) * (y1 - y0);
    const double uni = a.size.width * a.size.height + b.size.width * b.size.height - inter;
    return uni > 0 ? inter / uni : 0;
}

std::vector<TrackedFace> LiveFaceTracker::track(const LumaImage& frame) {
    std::vector<TrackedFace> out;
    if (frame.empty()) {
        return out;
    }
    try {
        std::vector<Found> found;
        const auto addNew = [&found](const std::vector<Found>& more) {
            for (const Found& f : more) {
                const bool known = std::any_of(found.begin(), found.end(),
                                               [&](const Found& g) { return matchScore(g.box, f.box) > 0; });
                if (!known) {
                    found.push_back(f);
                }
            }
        };
        // Tracked faces first: their neighbourhood at a scale that makes them comfortably detectable.
        for (const Track& t : _impl->tracks) {
            const CGRect b = t.face.bounds;
            const double side = kSearchAreaFactor * std::max(b.size.width, b.size.height);
            RotatedCrop crop;
            crop.centre = {b.origin.x + b.size.width / 2, b.origin.y + b.size.height / 2};
            crop.scale = std::min(kMaxDetectionScale, kTrackedFaceSize * kSearchAreaFactor / side);
            crop.width = crop.height = static_cast<int>(side * crop.scale);
            addNew(_impl->detect(_impl->trackedDetector, crop.sample(frame), crop.scale, &crop, &found));
        }
        const double fine = detectionScale(frame.height);
        if (_impl->mode == Mode::Picture) {
            // A picture too small for the smallest faces to fill the detector's window is enlarged (the area
            // average only shrinks).
            if (fine > 1.0) {
                RotatedCrop whole;
                whole.centre = {frame.width / 2.0, frame.height / 2.0};
                whole.scale = fine;
                whole.width = static_cast<int>(frame.width * fine);
                whole.height = static_cast<int>(frame.height * fine);
                addNew(_impl->detect(_impl->detector, whole.sample(frame), fine, &whole, &found));
            } else {
                addNew(_impl->detect(_impl->detector, LumaImageScaled(frame, fine), fine, nullptr, &found));
            }
        } else if (++_impl->framesSinceSearch >=
                   (_impl->tracks.empty() ? kSearchEveryWithoutFaces : kSearchEveryWhileTracking)) {
            _impl->framesSinceSearch = 0;
            // New faces: small ones at the fine scale in one tile, the tiles taking turns (they overlap by more
            // than the largest face of the fine levels), large ones over the whole frame at the scale of the level
            // after the fine ones, in every few steps. While faces are tracked, steps run in every few frames only.
            const uint64_t step = _impl->tileIndex++;
            if (step % kCoarseEvery == 0) {
                const double coarse = fine * std::pow(kPyramidStep, static_cast<double>(kFineLevels));
                addNew(_impl->detect(_impl->detector, LumaImageScaled(frame, coarse), coarse, nullptr, &found));
            }
            const int overlap =
                static_cast<int>(std::ceil(kDetectorWindow / (fine * std::pow(kPyramidStep, kFineLevels))));
            const int cols = std::max(1, (frame.width + kTileColumnsDivisor - 1) / kTileColumnsDivisor);
            const int rows = std::max(1, (frame.height + kTileRowsDivisor - 1) / kTileRowsDivisor);
            const int tile = static_cast<int>(step % static_cast<uint64_t>(cols * rows));
            const int tw = (frame.width + cols - 1) / cols;
            const int th = (frame.height + rows - 1) / rows;
            const int x0 = std::max(0, (tile % cols) * tw - overlap / 2);
            const int y0 = std::max(0, (tile / cols) * th - overlap / 2);
            const int x1 = std::min(frame.width, (tile % cols + 1) * tw + overlap / 2);
            const int y1 = std::min(frame.height, (tile / cols + 1) * th + overlap / 2);
            RotatedCrop crop;
            crop.centre = {(x0 + x1) / 2.0, (y0 + y1) / 2.0};
            crop.scale = fine;
            crop.width = static_cast<int>((x1 - x0) * fine);
            crop.height = static_cast<int>((y1 - y0) * fine);
            addNew(_impl->detect(_impl->fineDetector, crop.sample(frame), fine, &crop, &found));
        }

        // Tracks the upright detector lost are looked for again, turned by the roll steps.
        for (const Track& t : _impl->tracks) {
            const bool seen = std::any_of(found.begin(), found.end(),
                                          [&](const Found& f) { return matchScore(t.face.bounds, f.box) > 0; });
            if (seen) {
                continue;
            }
            const CGRect b = t.face.bounds;
            const double side = kSearchAreaFactor * std::max(b.size.width, b.size.height);
            std::array<double, std::size(kRecoveryRolls)> rolls;
            std::copy(std::begin(kRecoveryRolls), std::end(kRecoveryRolls), rolls.begin());
            const auto last = std::find(rolls.begin(), rolls.end(), t.recoveryRoll);
            if (last != rolls.end()) {
                std::rotate(rolls.begin(), last, last + 1);
            }
            for (double roll : rolls) {
                RotatedCrop crop;
                crop.centre = {b.origin.x + b.size.width / 2, b.origin.y + b.size.height / 2};
                crop.angle = roll * std::numbers::pi / 180.0;
                crop.scale = std::min(kMaxDetectionScale, kTrackedFaceSize * kSearchAreaFactor / side);
                crop.width = crop.height = static_cast<int>(side * crop.scale);
                const auto again = _impl->detect(_impl->trackedDetector, crop.sample(frame), crop.scale, &crop);
                if (!again.empty()) {
                    found.push_back(again.front());
                    found.back().recoveryRoll = roll;
                    break;
                }
            }
        }

        // Greedy matching, best overlap first.
        std::vector<std::pair<double, std::pair<size_t, size_t>>> pairs;
        for (size_t i = 0; i < _impl->tracks.size(); ++i) {
            for (size_t j = 0; j < found.size(); ++j) {
                const double o = matchScore(_impl->tracks[i].face.bounds, found[j].box);
                if (o > 0) {
                    pairs.push_back({o, {i, j}});
                }
            }
        }
        std::sort(pairs.begin(), pairs.end(), [](const auto& x, const auto& y) { return x.first > y.first; });
        std::vector<NSInteger> idOf(found.size(), 0);
        std::vector<bool> trackUsed(_impl->tracks.size(), false);
        for (const auto& [o, ij] : pairs) {
            if (!trackUsed[ij.first] && idOf[ij.second] == 0) {
                trackUsed[ij.first] = true;
                idOf[ij.second] = _impl->tracks[ij.first].face.faceID;
            }
        }
        std::vector<Track> next;
        for (size_t i = 0; i < _impl->tracks.size(); ++i) {
            if (!trackUsed[i] && _impl->tracks[i].missed < kMaxMissedFrames) {
                Track kept = _impl->tracks[i];
                ++kept.missed;
                next.push_back(kept);
            }
        }
        for (size_t j = 0; j < found.size(); ++j) {
            const Found& f = found[j];
            // Two detections of one face (upright and turned) count once.
            const bool duplicate = std::any_of(out.begin(), out.end(),
                                               [&](const TrackedFace& o) { return matchScore(o.bounds, f.box) > 0; });
            if (duplicate) {
                continue;
            }
            TrackedFace face;
            face.bounds = f.box;
            face.faceID = idOf[j] != 0 ? idOf[j] : gNextFaceID.fetch_add(1, std::memory_order_relaxed);
            if (f.hasLandmarks) {
                _impl->refineLandmarks(frame, found[j]);
                face.hasRollAngle = true;
                face.rollAngle = quantizedRoll(rollFromLandmarks(f.pts));
                const double yaw = yawFromLandmarks(f.pts);
                if (std::isfinite(yaw)) {
                    face.hasYawAngle = true;
                    face.yawAngle = quantizedYaw(yaw);
                }
            }
            out.push_back(face);
            next.push_back({face, 0, f.recoveryRoll});
        }
        _impl->tracks = std::move(next);
    } catch (...) {
        // dlib reports allocation and internal failures by exception: no faces for this frame.
        out.clear();
    }
    std::sort(out.begin(), out.end(), [](const TrackedFace& a, const TrackedFace& b) { return a.faceID < b.faceID; });
    return out;
}

} // namespace kp
