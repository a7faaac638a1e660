// SPDX-License-Identifier: MIT
// The sample camera's scene: a face photo drifting into and out of the centre beside an ID card that carries a
// PDF417 code and a QR code, drawn with Cairo.
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
class SampleScene {
public:
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
    /// The text encoded in the card's QR code.
    static const std::string& qrText();
    /// Where the face photo was loaded from; empty when it was not found.
    const std::string& facePath() const { return _facePath; }

private:
    void drawScene(cairo_t* cr, int width, int height, double t) const;

    std::string _facePath; // first: the face loader fills it in
    cairo_surface_t* _face = nullptr;
    cairo_surface_t* _card = nullptr;
};

} // namespace kp
