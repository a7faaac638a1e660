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
#include <type_traits>

namespace kp {

namespace {

// The detector's 80-pixel window finds faces from about that size up: the smallest faces are scaled to it.
constexpr double kSmallestDetectableFace = 80.0;
// Detections must score this much above the HOG model's threshold: video shows codes, text and patterns that
// pass for faces at the still-image detector's margin.
constexpr double kDetectionMargin = 0.5;
// dlib's detector scans a pyramid whose levels shrink by this factor; its window is kDetectorWindow pixels.
constexpr double kPyramidStep = 5.0 / 6.0;
constexpr double kDetectorWindow = 80.0;
// Tracked faces are looked for at a scale that makes them about this many pixels wide, through this many pyramid
// levels (windows of 80 to 115 pixels): the face may shrink by a tenth or grow by a quarter between analysed frames
// (a fifteenth of a second apart at the worker's full rate) and still be found.
constexpr double kTrackedFaceSize = 90.0;
constexpr unsigned long kTrackedLevels = 3;
// The search for new faces in video covers the enlarged frame's pyramid in three bands: the fine band (the first
// kBandLevels levels: faces of kMinimumFaceFraction of the height to about 1.7 times that) in tiles of about
// kFineTileWidth x kFineTileHeight frame pixels, the middle band (the next kBandLevels levels) in kMiddleTiles tiles
// side by side, and the coarse band (the remaining levels) over the whole frame. Tiles overlap by the largest face
// of their band. The fine tiles are visited from the middle of the frame outwards, and after every
// kFineTilesPerRound of them a middle tile and the coarse band come; a search step visits regions until it has
// scanned about kStepPixels pyramid pixels, the next step goes on from there.
constexpr unsigned long kBandLevels = 4;
constexpr int kFineTileWidth = 256;
constexpr int kFineTileHeight = 180;
constexpr int kMiddleTiles = 2;
constexpr size_t kFineTilesPerRound = 3;
constexpr double kStepPixels = 0.5e6;
// The first frame of a stream gets a longer step, from the start of the plan: the coarse and middle bands whole and
// the middle of the frame at the fine scale.
constexpr double kFirstStepPixels = 3.0e6;
// Between search steps, the parts of the frame that changed are searched at once: a face that appears is a change.
// Changes are measured in blocks of kChangeBlock x kChangeBlock pixels whose mean moved by at least kChangeLevel
// grey levels more than the whole frame's (a change of exposure moves all of them); the changed blocks around a
// tracked face are left to its own search. Neighbouring changed blocks form one region, searched through every
// pyramid level at the fine scale, or at a smaller one where that would cost more than a frame's share of
// kChangeStepPixels pyramid pixels. A searched block waits kChangeRestFrames analysed frames before a change
// searches it again, and twice as long after each search that found nothing there, up to kChangeLongestRest (a
// swaying object is not searched in every frame); it stays marked changed until then, and a block that stays still
// for its rest waits kChangeRestFrames again. A search step passes over the regions of its plan where nothing changed
// since their last search, kStillSkips times in a row at most (a still scene needs no new search).
constexpr int kChangeBlock = 16;
constexpr double kChangeLevel = 14.0;
constexpr double kChangeStepPixels = 1.0e6;
constexpr int kChangeRestFrames = 30;
constexpr int kChangeLongestRest = 120;
constexpr int kStillSkips = 7;
// Tracked faces are looked for, and a lost track again (turned by these roll steps), in a square this many times
// their box.
constexpr double kSearchAreaFactor = 2.0;
constexpr double kRecoveryRolls[] = {15.0, -15.0, 30.0, -30.0};
// Landmarks of a head tilted by more than this (degrees) are fitted again on a crop turned upright.
constexpr double kRefineRollDegrees = 5.0;
// A face box moves towards each new fit by this share while the face holds still (its fit moved by less than
// kStillShift of the box's width and changed its width by less than kStillResize); beyond that it follows at once.
// Fits within kSteadyShift and kSteadyResize of the box leave it where it is.
constexpr double kBoxFollow = 0.35;
constexpr double kStillShift = 0.12;
constexpr double kStillResize = 0.12;
constexpr double kSteadyShift = 0.03;
constexpr double kSteadyResize = 0.03;
// A detection within kStillShift of the last fitted one's width of its centre, and within kDetectionStep of its width
// (a pyramid level and some), shows a face held still.
constexpr double kDetectionStep = 0.3;
// A new face is measured again at the tracked search's scale at most this many times until its box holds.
constexpr int kMeasureRounds = 3;

// dlib decodes its face detector from a compressed model, which takes longer than searching a picture: every
// tracker of the process copies one decoded instance.
const dlib::frontal_face_detector& sharedDetector() {
    static const dlib::frontal_face_detector detector = dlib::get_frontal_face_detector();
    return detector;
}

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
    // The angles last reported, before quantisation was held by the hysteresis (-1: none yet).
    double roll = -1.0;
    double yaw = -1.0;
    // The roll step that found the face when the upright detector lost it (0: upright); a tilted head stays
    // tilted for a while, so that step is tried first next time.
    double recoveryRoll = 0.0;
    // The detector's box the landmarks were last fitted from: while the face holds still they are fitted from it
    // again (the detector's box steps by a pyramid level from frame to frame, and the fit follows that step).
    CGRect fittedFrom{};
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

// One region of the search for new faces: a rectangle of the frame scanned at scale through levels pyramid levels
// (0: all), and the pyramid pixels that costs.
struct SearchRegion {
    int x0 = 0;
    int y0 = 0;
    int x1 = 0;
    int y1 = 0;
    double scale = 1.0;
    unsigned long levels = 0;
    double cost = 0.0;
    size_t id = 0; // which of the plan's distinct regions
};

// The regions of one band of the pyramid, cols x rows tiles overlapping by the band's largest face, the middle
// tiles first.
std::vector<SearchRegion> bandRegions(int width, int height, double scale, unsigned long levels, int cols, int rows) {
    std::vector<SearchRegion> out;
    const double levelSum = levels == 0 ? 1.0 / (1.0 - kPyramidStep * kPyramidStep)
                                        : (1.0 - std::pow(kPyramidStep * kPyramidStep, static_cast<double>(levels))) /
                                              (1.0 - kPyramidStep * kPyramidStep);
    const int overlap = levels == 0
                            ? 0
                            : static_cast<int>(std::ceil(
                                  kDetectorWindow / (scale * std::pow(kPyramidStep, static_cast<double>(levels - 1)))));
    cols = std::max(1, cols);
    rows = std::max(1, rows);
    const int tw = (width + cols - 1) / cols;
    const int th = (height + rows - 1) / rows;
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < cols; ++c) {
            SearchRegion g;
            g.x0 = std::max(0, c * tw - overlap / 2);
            g.y0 = std::max(0, r * th - overlap / 2);
            g.x1 = std::min(width, (c + 1) * tw + overlap / 2);
            g.y1 = std::min(height, (r + 1) * th + overlap / 2);
            g.scale = scale;
            g.levels = levels;
            g.cost = static_cast<double>(g.x1 - g.x0) * (g.y1 - g.y0) * scale * scale * levelSum;
            if (g.x1 > g.x0 && g.y1 > g.y0) {
                out.push_back(g);
            }
        }
    }
    const auto fromMiddle = [&](const SearchRegion& g) {
        return std::hypot((g.x0 + g.x1 - width) / 2.0, (g.y0 + g.y1 - height) / 2.0);
    };
    std::stable_sort(out.begin(), out.end(),
                     [&](const SearchRegion& a, const SearchRegion& b) { return fromMiddle(a) < fromMiddle(b); });
    return out;
}

// The box of a face held still moves only part of the way towards each new fit, so that the fit's noise does not
// make it jitter; a face that moves or changes size is followed at once.
CGRect steadyBox(CGRect before, CGRect fit) {
    const double w = before.size.width;
    if (!(w > 0)) {
        return fit;
    }
    const double shift = std::hypot(fit.origin.x + fit.size.width / 2 - before.origin.x - w / 2,
                                    fit.origin.y + fit.size.height / 2 - before.origin.y - before.size.height / 2);
    if (std::abs(fit.size.width - w) >= kStillResize * w || shift >= kStillShift * w) {
        return fit;
    }
    if (std::abs(fit.size.width - w) < kSteadyResize * w && shift < kSteadyShift * w) {
        return before;
    }
    const auto towards = [](double a, double b) { return a + kBoxFollow * (b - a); };
    const double side = towards(w, fit.size.width);
    const double cx = towards(before.origin.x + w / 2, fit.origin.x + fit.size.width / 2);
    const double cy = towards(before.origin.y + before.size.height / 2, fit.origin.y + fit.size.height / 2);
    return CGRectMake(cx - side / 2, cy - side / 2, side, side);
}

// A rectangle of changed blocks (inclusive block coordinates) and how many of its blocks changed.
struct ChangeRegion {
    int bx0, by0, bx1, by1, blocks;
};

// The neighbourhood in which a tracked face is looked for: a square kSearchAreaFactor times its box, turned by roll
// degrees and scaled so that the face is about kTrackedFaceSize pixels wide.
RotatedCrop aroundFace(CGRect b, double roll = 0.0) {
    const double side = kSearchAreaFactor * std::max(b.size.width, b.size.height);
    RotatedCrop crop;
    crop.centre = {b.origin.x + b.size.width / 2, b.origin.y + b.size.height / 2};
    crop.angle = roll * std::numbers::pi / 180.0;
    crop.scale = std::min(LiveFaceTracker::kMaxDetectionScale, kTrackedFaceSize * kSearchAreaFactor / side);
    crop.width = crop.height = static_cast<int>(side * crop.scale);
    return crop;
}

bool isKnown(const std::vector<Found>& known, CGRect box) {
    return std::any_of(known.begin(), known.end(),
                       [&](const Found& g) { return LiveFaceTracker::matchScore(g.box, box) > 0; });
}

} // namespace

struct LiveFaceTracker::Impl {
    Mode mode = Mode::Video;
    int framesSinceSearch = 0;
    bool searchedWhole = false; // the first frame of a stream gets the longer first step
    // The search plan for frames of planWidth x planHeight, and where the next step starts in it.
    std::vector<SearchRegion> plan;
    size_t distinctRegions = 0; // the plan's first regions are each region once
    size_t cursor = 0;
    int planWidth = 0;
    int planHeight = 0;
    // Block means of the last analysed frame (gridWidth x gridHeight blocks), blocks changed since their last search
    // and the frame of that search.
    int gridWidth = 0;
    int gridHeight = 0;
    int frameIndex = 0;
    std::vector<float> blockMean;
    std::vector<uint8_t> changed;
    std::vector<int> searchedAt;
    std::vector<int> restFor;
    std::vector<int> changedAt; // the last frame in which a block changed
    std::vector<int> coveredAt; // the last frame in which the search of a change or of a tracked face covered it
    // Per distinct region of the plan: the frame of its last search and the still passes since.
    std::vector<int> regionSearchedAt;
    std::vector<int> regionSkips;
    // The search of changes' working space, kept from frame to frame: this frame's block means, the row sums they
    // come from, visit marks, the stack of the region walk and the regions found.
    std::vector<float> nextMean;
    std::vector<uint32_t> rowSum;
    std::vector<uint8_t> seen;
    std::vector<size_t> stack;
    std::vector<ChangeRegion> regions;
    dlib::frontal_face_detector detector = sharedDetector();
    // The same detector limited to the first few pyramid levels: faces of a known size range.
    dlib::frontal_face_detector trackedDetector = limited(detector, kTrackedLevels);
    dlib::frontal_face_detector bandDetector = limited(detector, kBandLevels);
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

    // Fits f's landmarks again from the detector's box from (f's own box or a track's earlier one) on a crop turned
    // upright, when the head is tilted or from is not f's box.
    void refineLandmarks(const LumaImage& frame, Found& f, CGRect from) const;
    // Marks the blocks that changed since the last frame and searches the regions they form (none in the first frame
    // of a stream), leaving out the neighbourhoods of the tracked faces and of those in found.
    void searchChanges(const LumaImage& frame, std::vector<Found>& found);
    void makePlan(int width, int height);
    // True when no block of g changed after frame since, but for changes that the search of changes or of a tracked
    // face covered (a region never searched has changed).
    bool stillSince(const SearchRegion& g, int since) const {
        if (since == std::numeric_limits<int>::min() || changedAt.empty()) {
            return false;
        }
        return forBlocks(g.x0, g.y0, g.x1 - 1, g.y1 - 1,
                         [&](size_t i) { return !(changedAt[i] > since && changedAt[i] > coveredAt[i]); });
    }
    // Calls fn with the index of every block that the rectangle of frame pixels from (x0, y0) to (x1, y1) inclusive
    // touches, clipped to the grid, until fn returns false (fn may return nothing: all blocks). False when fn did.
    template <typename Fn> bool forBlocks(double x0, double y0, double x1, double y1, Fn&& fn) const {
        const int bx0 = std::max(0, static_cast<int>(std::floor(x0 / kChangeBlock)));
        const int by0 = std::max(0, static_cast<int>(std::floor(y0 / kChangeBlock)));
        const int bx1 = std::min(gridWidth - 1, static_cast<int>(std::floor(x1 / kChangeBlock)));
        const int by1 = std::min(gridHeight - 1, static_cast<int>(std::floor(y1 / kChangeBlock)));
        for (int by = by0; by <= by1; ++by) {
            for (int bx = bx0; bx <= bx1; ++bx) {
                const size_t i = static_cast<size_t>(by) * gridWidth + bx;
                if constexpr (std::is_same_v<std::invoke_result_t<Fn, size_t>, bool>) {
                    if (!fn(i)) {
                        return false;
                    }
                } else {
                    fn(i);
                }
            }
        }
        return true;
    }
    // Scans regions of the plan from the cursor on (from the plan's start, each region at most once, when
    // fromStart) until about budget pyramid pixels are spent, adding new detections to found.
    void search(const LumaImage& frame, double budget, std::vector<Found>& found, bool fromStart = false);

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

void LiveFaceTracker::Impl::refineLandmarks(const LumaImage& frame, Found& f, CGRect from) const {
    // The landmark fit starts from an upright mean face and stops short on a tilted head; fitted again on a crop
    // turned by the first estimate, it follows the head.
    if (!model || !f.hasLandmarks || !(from.size.width > 0 && from.size.height > 0)) {
        return;
    }
    double roll = rollFromLandmarks(f.pts);
    const bool own = CGRectEqualToRect(from, f.box);
    if (std::abs(roll) < kRefineRollDegrees) {
        if (own) {
            return;
        }
        roll = 0.0;
    }
    RotatedCrop crop;
    crop.centre = {from.origin.x + from.size.width / 2, from.origin.y + from.size.height / 2};
    crop.angle = roll * std::numbers::pi / 180.0;
    crop.scale = std::min(kMaxDetectionScale, kTrackedFaceSize / std::max(1.0, from.size.width));
    crop.width = crop.height = static_cast<int>(kSearchAreaFactor * std::max(from.size.width, from.size.height) * crop.scale);
    dlib::array2d<unsigned char> upright;
    toDlib(crop.sample(frame), upright);
    const long halfW = static_cast<long>(from.size.width * crop.scale / 2);
    const long halfH = static_cast<long>(from.size.height * crop.scale / 2);
    const long c = crop.width / 2;
    const dlib::full_object_detection shape =
        (*model)(upright, dlib::rectangle(c - halfW, c - halfH, c + halfW, c + halfH));
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
    _impl->searchedWhole = false;
    _impl->blockMean.clear();
}

void LiveFaceTracker::Impl::makePlan(int width, int height) {
    if (width == planWidth && height == planHeight && !plan.empty()) {
        return;
    }
    planWidth = width;
    planHeight = height;
    cursor = 0;
    const double fine = detectionScale(height);
    const double middle = fine * std::pow(kPyramidStep, static_cast<double>(kBandLevels));
    const double coarse = middle * std::pow(kPyramidStep, static_cast<double>(kBandLevels));
    auto fineTiles = bandRegions(width, height, fine, kBandLevels, (width + kFineTileWidth - 1) / kFineTileWidth,
                                 (height + kFineTileHeight - 1) / kFineTileHeight);
    auto middleTiles = bandRegions(width, height, middle, kBandLevels, kMiddleTiles, 1);
    auto coarseTiles = bandRegions(width, height, coarse, 0, 1, 1);
    size_t id = 0;
    for (auto* band : {&coarseTiles, &middleTiles, &fineTiles}) {
        for (SearchRegion& g : *band) {
            g.id = id++;
        }
    }
    // Each region once first (a first step from the start stops there), then the rounds of the step-by-step search.
    plan.clear();
    plan.insert(plan.end(), coarseTiles.begin(), coarseTiles.end());
    plan.insert(plan.end(), middleTiles.begin(), middleTiles.end());
    plan.insert(plan.end(), fineTiles.begin(), fineTiles.end());
    distinctRegions = plan.size();
    regionSearchedAt.assign(distinctRegions, std::numeric_limits<int>::min());
    regionSkips.assign(distinctRegions, 0);
    const size_t rounds =
        std::max<size_t>(middleTiles.size(), (fineTiles.size() + kFineTilesPerRound - 1) / kFineTilesPerRound);
    for (size_t r = 0; r < rounds; ++r) {
        plan.insert(plan.end(), coarseTiles.begin(), coarseTiles.end());
        if (!middleTiles.empty()) {
            plan.push_back(middleTiles[r % middleTiles.size()]);
        }
        for (size_t i = r * kFineTilesPerRound; i < std::min(fineTiles.size(), (r + 1) * kFineTilesPerRound); ++i) {
            plan.push_back(fineTiles[i]);
        }
    }
    cursor = distinctRegions;
}

void LiveFaceTracker::Impl::search(const LumaImage& frame, double budget, std::vector<Found>& found, bool fromStart) {
    makePlan(frame.width, frame.height);
    const bool whole = fromStart;
    size_t index = whole ? 0 : cursor;
    double spent = 0.0;
    for (size_t visited = 0; visited < (whole ? distinctRegions : plan.size()) && spent < budget; ++visited) {
        const SearchRegion& g = plan[index];
        if (visited > 0 && spent + g.cost > budget) {
            break; // the next step starts there
        }
        index = index + 1 < plan.size() ? index + 1 : distinctRegions;
        if (!whole && stillSince(g, regionSearchedAt[g.id]) && regionSkips[g.id] < kStillSkips) {
            ++regionSkips[g.id];
            continue;
        }
        regionSearchedAt[g.id] = frameIndex;
        regionSkips[g.id] = 0;
        spent += g.cost;
        RotatedCrop crop;
        crop.centre = {(g.x0 + g.x1) / 2.0, (g.y0 + g.y1) / 2.0};
        crop.scale = g.scale;
        crop.width = static_cast<int>((g.x1 - g.x0) * g.scale);
        crop.height = static_cast<int>((g.y1 - g.y0) * g.scale);
        dlib::frontal_face_detector& by = g.levels == 0 ? detector : bandDetector;
        for (const Found& f : detect(by, crop.sample(frame), g.scale, &crop, &found)) {
            if (!isKnown(found, f.box)) {
                found.push_back(f);
            }
        }
    }
    if (!whole) {
        cursor = index;
    }
}

void LiveFaceTracker::Impl::searchChanges(const LumaImage& frame, std::vector<Found>& found) {
    const int gw = (frame.width + kChangeBlock - 1) / kChangeBlock;
    const int gh = (frame.height + kChangeBlock - 1) / kChangeBlock;
    std::vector<float>& mean = nextMean;
    mean.resize(static_cast<size_t>(gw) * gh);
    rowSum.resize(static_cast<size_t>(gw));
    for (int by = 0; by < gh; ++by) {
        std::fill(rowSum.begin(), rowSum.end(), 0u);
        const int y1 = std::min(frame.height, (by + 1) * kChangeBlock);
        for (int y = by * kChangeBlock; y < y1; ++y) {
            const uint8_t* row = frame.row(y);
            for (int x = 0; x < frame.width; ++x) {
                rowSum[x / kChangeBlock] += row[x];
            }
        }
        for (int bx = 0; bx < gw; ++bx) {
            const int w = std::min(frame.width, (bx + 1) * kChangeBlock) - bx * kChangeBlock;
            mean[static_cast<size_t>(by) * gw + bx] =
                static_cast<float>(rowSum[bx]) / static_cast<float>(w * (y1 - by * kChangeBlock));
        }
    }
    ++frameIndex;
    if (gw != gridWidth || gh != gridHeight || blockMean.size() != mean.size()) {
        // A new stream or frame size: the first search step covers the frame; every block may be searched when it
        // changes.
        gridWidth = gw;
        gridHeight = gh;
        blockMean.swap(mean);
        changed.assign(blockMean.size(), 0);
        searchedAt.assign(blockMean.size(), frameIndex - kChangeRestFrames);
        restFor.assign(blockMean.size(), kChangeRestFrames);
        changedAt.assign(blockMean.size(), frameIndex);
        coveredAt.assign(blockMean.size(), frameIndex - 1);
        return;
    }
    double shift = 0.0;
    for (size_t i = 0; i < mean.size(); ++i) {
        shift += mean[i] - blockMean[i];
    }
    shift /= static_cast<double>(mean.size());
    for (size_t i = 0; i < mean.size(); ++i) {
        if (std::abs(mean[i] - blockMean[i] - shift) >= kChangeLevel) {
            changed[i] = 1;
            changedAt[i] = frameIndex;
        } else if (changed[i] == 0 && frameIndex - searchedAt[i] >= restFor[i]) {
            restFor[i] = kChangeRestFrames;
        }
    }
    blockMean.swap(mean);
    const auto leaveOut = [&](CGRect b) {
        const double side = kSearchAreaFactor * std::max(b.size.width, b.size.height);
        const double cx = b.origin.x + b.size.width / 2;
        const double cy = b.origin.y + b.size.height / 2;
        forBlocks(cx - side / 2, cy - side / 2, cx + side / 2, cy + side / 2, [&](size_t i) {
            changed[i] = 0;
            coveredAt[i] = frameIndex;
        });
    };
    for (const Track& t : tracks) {
        leaveOut(t.face.bounds);
    }
    for (const Found& f : found) {
        leaveOut(f.box);
    }
    // Regions of changed blocks that have rested, blocks up to two apart joined, the most changed first.
    const auto ready = [&](size_t i) { return changed[i] != 0 && frameIndex - searchedAt[i] >= restFor[i]; };
    regions.clear();
    seen.assign(changed.size(), 0);
    for (size_t start = 0; start < changed.size(); ++start) {
        if (seen[start] != 0 || !ready(start)) {
            continue;
        }
        ChangeRegion r{gw, gh, -1, -1, 0};
        seen[start] = 1;
        stack.assign(1, start);
        while (!stack.empty()) {
            const size_t i = stack.back();
            stack.pop_back();
            const int bx = static_cast<int>(i % gw);
            const int by = static_cast<int>(i / gw);
            r = {std::min(r.bx0, bx), std::min(r.by0, by), std::max(r.bx1, bx), std::max(r.by1, by), r.blocks + 1};
            for (int ny = std::max(0, by - 2); ny <= std::min(gh - 1, by + 2); ++ny) {
                for (int nx = std::max(0, bx - 2); nx <= std::min(gw - 1, bx + 2); ++nx) {
                    const size_t j = static_cast<size_t>(ny) * gw + nx;
                    if (seen[j] == 0 && ready(j)) {
                        seen[j] = 1;
                        stack.push_back(j);
                    }
                }
            }
        }
        regions.push_back(r);
    }
    std::stable_sort(regions.begin(), regions.end(),
                     [](const ChangeRegion& a, const ChangeRegion& b) { return a.blocks > b.blocks; });
    const double fine = detectionScale(frame.height);
    const double levelSum = 1.0 / (1.0 - kPyramidStep * kPyramidStep);
    // A region reaches a block past its changed ones and is at least a little larger than the smallest face.
    const double least = 1.5 * kDetectorWindow / fine;
    double spent = 0.0;
    for (const ChangeRegion& r : regions) {
        double x0 = (r.bx0 - 1) * kChangeBlock;
        double y0 = (r.by0 - 1) * kChangeBlock;
        double x1 = (r.bx1 + 2) * kChangeBlock;
        double y1 = (r.by1 + 2) * kChangeBlock;
        const double grow = std::max(0.0, least - (x1 - x0)) / 2;
        const double rise = std::max(0.0, least - (y1 - y0)) / 2;
        x0 = std::max(0.0, x0 - grow);
        x1 = std::min(static_cast<double>(frame.width), x1 + grow);
        y0 = std::max(0.0, y0 - rise);
        y1 = std::min(static_cast<double>(frame.height), y1 + rise);
        const double area = (x1 - x0) * (y1 - y0);
        const double left = kChangeStepPixels - spent;
        const double scale = std::min(fine, std::sqrt(std::max(0.0, left) / (area * levelSum)));
        if (scale * std::min(x1 - x0, y1 - y0) < kDetectorWindow) {
            break; // the rest waits for the next frame
        }
        spent += area * scale * scale * levelSum;
        RotatedCrop crop;
        crop.centre = {(x0 + x1) / 2, (y0 + y1) / 2};
        crop.scale = scale;
        crop.width = static_cast<int>((x1 - x0) * scale);
        crop.height = static_cast<int>((y1 - y0) * scale);
        const size_t before = found.size();
        for (const Found& f : detect(detector, crop.sample(frame), scale, &crop, &found)) {
            if (!isKnown(found, f.box)) {
                found.push_back(f);
            }
        }
        const bool empty = found.size() == before;
        forBlocks(x0, y0, x1 - 1, y1 - 1, [&](size_t i) {
            changed[i] = 0;
            searchedAt[i] = frameIndex;
            coveredAt[i] = frameIndex;
            restFor[i] = empty ? std::min(kChangeLongestRest, 2 * restFor[i]) : kChangeRestFrames;
        });
    }
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

double LiveFaceTracker::steadyStep(double degrees, double previous, double step, double margin) {
    if (!std::isfinite(degrees)) {
        return previous >= 0 ? previous : 0.0;
    }
    if (previous >= 0) {
        double d = std::fmod(degrees - previous, 360.0);
        if (d > 180.0) {
            d -= 360.0;
        } else if (d <= -180.0) {
            d += 360.0;
        }
        if (std::abs(d) < step / 2 + margin) {
            return previous;
        }
    }
    return quantize(degrees, step);
}

CGRect LiveFaceTracker::boxFromLandmarks(const DlibFaceDetector::Landmarks& pts) {
    const CGPoint left = DlibFaceDetector::landmarkMean(pts, 36, 41);
    const CGPoint right = DlibFaceDetector::landmarkMean(pts, 42, 47);
    const double len = std::hypot(right.x - left.x, right.y - left.y);
    if (!(len > 0)) {
        return CGRectZero;
    }
    // u along the eye line, v across it pointing to the chin.
    const CGPoint u{(right.x - left.x) / len, (right.y - left.y) / len};
    const CGPoint v{-u.y, u.x};
    double a0 = std::numeric_limits<double>::infinity();
    double a1 = -a0;
    double b0 = a0;
    double b1 = -a0;
    for (const CGPoint& p : pts) {
        const double a = p.x * u.x + p.y * u.y;
        const double b = p.x * v.x + p.y * v.y;
        a0 = std::min(a0, a);
        a1 = std::max(a1, a);
        b0 = std::min(b0, b);
        b1 = std::max(b1, b);
    }
    const double side = std::max(a1 - a0, b1 - b0);
    if (!(side > 0)) {
        return CGRectZero;
    }
    const double ca = (a0 + a1) / 2;
    const double cb = (b0 + b1) / 2;
    const CGPoint c{ca * u.x + cb * v.x, ca * u.y + cb * v.y};
    return CGRectMake(c.x - side / 2, c.y - side / 2, side, side);
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
            const RotatedCrop crop = aroundFace(t.face.bounds);
            addNew(_impl->detect(_impl->trackedDetector, crop.sample(frame), crop.scale, &crop, &found));
        }
        if (_impl->mode == Mode::Picture) {
            // A picture too small for the smallest faces to fill the detector's window is enlarged (the area
            // average only shrinks).
            const double scale = detectionScale(frame.height);
            if (scale > 1.0) {
                RotatedCrop whole;
                whole.centre = {frame.width / 2.0, frame.height / 2.0};
                whole.scale = scale;
                whole.width = static_cast<int>(frame.width * scale);
                whole.height = static_cast<int>(frame.height * scale);
                addNew(_impl->detect(_impl->detector, whole.sample(frame), scale, &whole, &found));
            } else {
                addNew(_impl->detect(_impl->detector, LumaImageScaled(frame, scale), scale, nullptr, &found));
            }
        } else {
            _impl->searchChanges(frame, found);
            if (!_impl->searchedWhole) {
                _impl->searchedWhole = true;
                _impl->framesSinceSearch = 0;
                _impl->search(frame, kFirstStepPixels, found, true);
            } else if (++_impl->framesSinceSearch >=
                       (_impl->tracks.empty() ? kSearchEveryWithoutFaces : kSearchEveryWhileTracking)) {
                _impl->framesSinceSearch = 0;
                _impl->search(frame, kStepPixels, found);
            }
        }

        // Tracks the upright detector lost are looked for again, turned by the roll steps.
        for (const Track& t : _impl->tracks) {
            const bool seen = std::any_of(found.begin(), found.end(),
                                          [&](const Found& f) { return matchScore(t.face.bounds, f.box) > 0; });
            if (seen || t.missed > 0) {
                continue; // a track lost for more than a frame is only looked for upright
            }
            std::array<double, std::size(kRecoveryRolls)> rolls;
            std::copy(std::begin(kRecoveryRolls), std::end(kRecoveryRolls), rolls.begin());
            const auto last = std::find(rolls.begin(), rolls.end(), t.recoveryRoll);
            if (last != rolls.end()) {
                std::rotate(rolls.begin(), last, last + 1);
            }
            for (double roll : rolls) {
                const RotatedCrop crop = aroundFace(t.face.bounds, roll);
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
        std::vector<size_t> trackOf(found.size(), _impl->tracks.size());
        std::vector<bool> trackUsed(_impl->tracks.size(), false);
        for (const auto& [o, ij] : pairs) {
            if (!trackUsed[ij.first] && idOf[ij.second] == 0) {
                trackUsed[ij.first] = true;
                idOf[ij.second] = _impl->tracks[ij.first].face.faceID;
                trackOf[ij.second] = ij.first;
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
            Found& f = found[j];
            // Two detections of one face (upright and turned) count once.
            const bool duplicate = std::any_of(out.begin(), out.end(),
                                               [&](const TrackedFace& o) { return matchScore(o.bounds, f.box) > 0; });
            if (duplicate) {
                continue;
            }
            const Track* before = trackOf[j] < _impl->tracks.size() ? &_impl->tracks[trackOf[j]] : nullptr;
            if (before == nullptr && _impl->mode == Mode::Video && f.recoveryRoll == 0.0) {
                // A new face found by another search is measured as its track will be in the next frames: around
                // the box of its landmarks, at the tracked search's scale. The detector's box steps with the pyramid
                // levels of the search that found it (a coarse level may make it a fifth too large, and a search at
                // the scale of a too-large box finds it too large again), so the measure is repeated around its own
                // result until the box holds.
                for (int round = 0; round < kMeasureRounds; ++round) {
                    const CGRect fit = f.hasLandmarks ? boxFromLandmarks(f.pts) : CGRectZero;
                    const CGRect around = fit.size.width > 0 ? fit : f.box;
                    const RotatedCrop crop = aroundFace(around);
                    const auto again = _impl->detect(_impl->trackedDetector, crop.sample(frame), crop.scale, &crop);
                    const auto best = std::max_element(again.begin(), again.end(), [&](const Found& a, const Found& b) {
                        return matchScore(around, a.box) < matchScore(around, b.box);
                    });
                    if (best == again.end() || matchScore(around, best->box) <= 0) {
                        break;
                    }
                    const bool held = std::abs(best->box.size.width - f.box.size.width) < 0.02 * f.box.size.width;
                    f = *best;
                    if (held) {
                        break;
                    }
                }
            }
            Track now;
            now.recoveryRoll = f.recoveryRoll;
            TrackedFace& face = now.face;
            face.bounds = f.box;
            face.faceID = idOf[j] != 0 ? idOf[j] : gNextFaceID.fetch_add(1, std::memory_order_relaxed);
            if (f.hasLandmarks) {
                CGRect from = f.box;
                if (before != nullptr && before->fittedFrom.size.width > 0) {
                    const CGRect d = before->fittedFrom;
                    const double w = d.size.width;
                    const double shift = std::hypot(CGRectGetMidX(f.box) - CGRectGetMidX(d),
                                                    CGRectGetMidY(f.box) - CGRectGetMidY(d));
                    if (shift < kStillShift * w && std::abs(f.box.size.width - w) < kDetectionStep * w) {
                        from = d;
                    }
                }
                _impl->refineLandmarks(frame, f, from);
                now.fittedFrom = from;
                const CGRect fit = boxFromLandmarks(f.pts);
                if (fit.size.width > 0) {
                    face.bounds = before != nullptr ? steadyBox(before->face.bounds, fit) : fit;
                }
                face.hasRollAngle = true;
                face.rollAngle = steadyStep(rollFromLandmarks(f.pts), before != nullptr ? before->roll : -1.0, 30.0,
                                            kRollHysteresis);
                now.roll = face.rollAngle;
                const double yaw = yawFromLandmarks(f.pts);
                if (std::isfinite(yaw)) {
                    face.hasYawAngle = true;
                    // The frontal detector finds heads turned up to about a three-quarter view; on those the outline's
                    // far side hides behind the cheek and the estimate overshoots towards a profile.
                    face.yawAngle = steadyStep(std::clamp(yaw, -45.0, 45.0), before != nullptr ? before->yaw : -1.0,
                                               45.0, kYawHysteresis);
                    now.yaw = face.yawAngle;
                }
            }
            out.push_back(face);
            next.push_back(now);
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
