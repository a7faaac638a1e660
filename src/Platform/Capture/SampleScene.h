// SPDX-License-Identifier: MIT
// The sample camera's scene: a face photo that moves, tilts, turns and leaves, beside an ID card with printed text,
// a PDF417 code and a QR code that moves and tilts; drawn with Cairo and Pango on a fixed timeline.
#pragma once

#include <cairo.h>

#include <string>

namespace kp {

/// What the simulated camera controls do to the picture.
struct SampleSceneEffects {
    double torchLevel = 0;   ///< 0..1: brightens the scene
    bool flash = false;      ///< one brighter frame for a still picture
    double defocus = 0;      ///< 0 sharp .. 1 very blurred (while focusing)
    bool warmCast = false;   ///< white balance locked: a warm colour cast
};

/// The scene's drawing resources (face photo, card with its codes); immutable after construction, so one scene
/// may be shared by cameras on different threads.
///
/// Timeline. The scene repeats every kPeriod = 12 seconds of scene time (the front sample camera starts its stream
/// at scene time 0, the back one at 2). Within each period, t in seconds:
///   0  .. 2    the head of the face photo (0.3 of the frame's height) is upright and frontal in the frame's centre;
///   2  .. 3    the head tilts clockwise (as seen) to kTiltDegrees = 30; 3 .. 4 it holds; 4 .. 4.5 back upright;
///   4.5 .. 5.5 the face turns towards the frame's right to kTurnDegrees = 45 (the photo projected onto a
///              turning cylinder); 5.5 .. 6.5 it holds; 6.5 .. 7 back to frontal;
///   7  .. 8    the face slides out of the frame to the right; kFaceAbsentFrom = 8 .. kFaceAbsentUntil = 10 no face
///              is in the frame; 10 .. 11 it slides back in; 11 .. 12 centred again.
/// The card lies in the lower left third of the frame the whole time, 0.30 of the frame wide (its PDF417
/// modules about 1.7 pixels wide in a 1280 x 720 frame), and never covers
/// the face. It sways sideways by up to 0.03 of the frame's width and tilts by kCardTiltDegrees * sin(2 pi t / 12)
/// (clockwise as seen for positive values): upright at t = 0 and 6, 20 degrees at t = 3, -20 at t = 9.
class SampleScene {
public:
    static constexpr double kPeriod = 12.0;
    static constexpr double kTiltDegrees = 30.0;
    static constexpr double kTurnDegrees = 45.0;
    static constexpr double kFaceAbsentFrom = 8.0;
    static constexpr double kFaceAbsentUntil = 10.0;
    static constexpr double kCardTiltDegrees = 20.0;

    /// Where things are at scene time t (geometry normalised to the frame, angles in degrees, clockwise positive).
    struct Pose {
        bool faceVisible = true;
        double faceCentreX = 0.5;
        double faceCentreY = 0.40;
        double faceHeight = 0.3;
        double faceRoll = 0;
        double faceYaw = 0;
        double cardCentreX = 0;
        double cardCentreY = 0;
        double cardWidth = 0.30;
        double cardTilt = 0;
    };
    /// The pose of the scene at time t (any t; the timeline repeats).
    static Pose poseAt(double t);

    SampleScene();
    ~SampleScene();
    SampleScene(const SampleScene&) = delete;
    SampleScene& operator=(const SampleScene&) = delete;

    /// The scene shared by all sample cameras.
    static const SampleScene& shared();

    /// Draws the scene at time t seconds into a width x height ARGB32 surface.
    void render(cairo_surface_t* target, int width, int height, double t, const SampleSceneEffects& effects) const;

    /// The text encoded in the card's PDF417 code.
    static const std::string& pdf417Text();
    /// The holder's name, number and dates printed on the card.
    static const std::string& cardHolderName();
    static const std::string& cardNumber();
    /// The text encoded in the card's QR code.
    static const std::string& qrText();
    /// Where the face photo was loaded from; empty when it was not found.
    const std::string& facePath() const { return _facePath; }

private:
    void drawScene(cairo_t* cr, int width, int height, double t) const;
    void drawFace(cairo_t* cr, double size, double yawDegrees) const;

    std::string _facePath; // first: the face loader fills it in
    cairo_surface_t* _face = nullptr;
    cairo_surface_t* _card = nullptr;
};

} // namespace kp
