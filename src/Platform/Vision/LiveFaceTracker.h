// SPDX-License-Identifier: MIT
// The face finder of the metadata output: faces in video frames with stable IDs and quantised angles.
#pragma once

#include "Platform/Vision/DlibFaceDetector.h"
#include "Platform/Vision/LumaImage.h"

#include "KPImage/Platform/AVCaptureTypes.h"
#include "KPImage/Platform/Geometry.h"

#include <memory>
#include <string>
#include <vector>

namespace kp {

/// One face in one frame.
struct TrackedFace {
    CGRect bounds{};      ///< pixels of the frame, top-left origin
    NSInteger faceID = 0; ///< kept while the face is tracked; new faces get new, never reused IDs
    bool hasRollAngle = false;
    double rollAngle = 0; ///< degrees in steps of 30 in [0, 360): the head tilted clockwise as seen is 30
    bool hasYawAngle = false;
    double yawAngle = 0; ///< degrees in steps of 45 in [0, 360): the face turned towards the frame's right is 45
};

/// Finds frontal faces with dlib's HOG detector, measures them with the shared 68-point landmark model and follows
/// them from frame to frame by overlap. Faces down to kMinimumFaceFraction of the frame height are found: the
/// search enlarges the picture so that they fill the detector's 80-pixel window (at most kMaxDetectionScale times).
/// In video, each frame costs a fraction of a full search: tracked faces are looked for in their neighbourhood in
/// every frame; new faces in search steps, one in every kSearchEveryWithoutFaces-th frame while no face is tracked
/// and one in every kSearchEveryWhileTracking-th while faces are. A step searches a share of the enlarged frame's
/// pyramid (the whole frame at the coarse levels, tiles of it at the fine ones, the middle of the frame first),
/// the next step the next share, passing over regions where nothing changed since their last search; the first frame
/// of a stream gets a longer first step. In every frame the parts of the picture that changed since the last one are
/// searched at once (a face that appears is found in the frame it appears in). A tracked face that the upright
/// detector loses (a head tilted beyond its reach) is looked for again in its neighbourhood, turned by the roll
/// steps. The box is fitted to the face's landmarks and smoothed while the face holds still; roll and yaw keep
/// their step until the head has clearly passed the boundary to the next. An instance is used by one thread at a
/// time.
class LiveFaceTracker {
public:
    /// Faces at least this fraction of the frame height are found.
    static constexpr double kMinimumFaceFraction = 0.06;
    /// A picture is enlarged at most this much for its smallest faces.
    static constexpr double kMaxDetectionScale = 2.5;
    /// Search steps run in one analysed frame of this many while no face is tracked...
    static constexpr int kSearchEveryWithoutFaces = 3;
    /// ...and in one of this many while faces are.
    static constexpr int kSearchEveryWhileTracking = 15;
    /// A reported angle keeps its step until the head is this many degrees past the boundary to the next step.
    static constexpr double kRollHysteresis = 4.0;
    static constexpr double kYawHysteresis = 6.0;
    /// A track survives this many analysed frames without its face (a missed detection), then ends.
    static constexpr int kMaxMissedFrames = 2;
    /// Detections overlapping a track by at least this intersection-over-union continue it...
    static constexpr double kMatchOverlap = 0.3;
    /// ...and so do detections whose centre lies within this fraction of the face's width of the track's.
    static constexpr double kMatchDistance = 0.75;

    /// Video spreads the search for small new faces over several frames; Picture searches everything every call.
    enum class Mode { Video, Picture };
    /// A tracker using the landmark model at modelPath (loaded once per process; without it faces have no angles).
    explicit LiveFaceTracker(const std::string& modelPath, Mode mode = Mode::Video);
    ~LiveFaceTracker();
    LiveFaceTracker(const LiveFaceTracker&) = delete;
    LiveFaceTracker& operator=(const LiveFaceTracker&) = delete;

    /// The faces of the next frame, ordered by ID. None on failure.
    std::vector<TrackedFace> track(const LumaImage& frame);
    /// Ends every track (a new stream starts).
    void reset();

    /// The factor by which a frame of the given height is scaled for the search of the smallest faces.
    static double detectionScale(int height);
    /// Roll in degrees (any value) reported in steps of 30 in [0, 360); halves round away from upright.
    static double quantizedRoll(double degrees);
    /// Yaw in degrees reported in steps of 45 in [0, 360); halves round away from frontal.
    static double quantizedYaw(double degrees);
    /// The step (a multiple of step in [0, 360)) to report for degrees when previous was reported last: previous
    /// while degrees lies within half a step plus margin of it, else the nearest step. previous < 0: none yet.
    static double steadyStep(double degrees, double previous, double step, double margin);
    /// The square box of a face from its landmarks in the picture's pixels: centred on the face's outline, brows and
    /// chin measured along and across the eye line (so a tilted head keeps its size), as wide as the face is high.
    static CGRect boxFromLandmarks(const DlibFaceDetector::Landmarks& pts);
    /// The head's roll from its landmarks, degrees clockwise as seen (eye line against the horizontal).
    static double rollFromLandmarks(const DlibFaceDetector::Landmarks& pts);
    /// The face's yaw from its landmarks, degrees, positive when it turns towards the frame's right (the nose
    /// moves towards the face's right-hand outline in the picture); NaN for a degenerate face.
    static double yawFromLandmarks(const DlibFaceDetector::Landmarks& pts);
    /// How well a detection b continues a track's box a: its overlap when that is enough, else a smaller score for
    /// close centres; 0 for no match.
    static double matchScore(CGRect a, CGRect b);
    /// Intersection over union of two rectangles (0 when either is empty).
    static double overlap(CGRect a, CGRect b);

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

} // namespace kp
