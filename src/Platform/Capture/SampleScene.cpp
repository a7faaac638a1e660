// SPDX-License-Identifier: MIT
// The sample camera's scene.
#include "Platform/Capture/SampleScene.h"

#include <ZXing/BarcodeFormat.h>
#include <ZXing/BitMatrix.h>
#include <ZXing/MultiFormatWriter.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <numbers>

namespace kp {

namespace {
constexpr int kCardWidth = 1012; // 85.6 mm x 54 mm at about 300 dpi
constexpr int kCardHeight = 638;
// Where the face of the sample photo is, as fractions of the photo's size.
constexpr double kHeadCentreX = 0.4375;
constexpr double kHeadCentreY = 0.25;
constexpr double kHeadSide = 0.25;

// 0 at a, 1 at b, smooth in between.
double ramp(double t, double a, double b) {
    const double x = std::clamp((t - a) / (b - a), 0.0, 1.0);
    return x * x * (3 - 2 * x);
}

void drawText(cairo_t* cr, const std::string& text, const char* font, double x, double y) {
    PangoLayout* layout = pango_cairo_create_layout(cr);
    PangoFontDescription* desc = pango_font_description_from_string(font);
    pango_layout_set_font_description(layout, desc);
    pango_layout_set_text(layout, text.c_str(), -1);
    cairo_move_to(cr, x, y);
    pango_cairo_show_layout(cr, layout);
    pango_font_description_free(desc);
    g_object_unref(layout);
}

cairo_surface_t* loadFace(std::string& path) {
    for (const char* dir : {KPIMAGE_DATADIR, KPIMAGE_SOURCE_DATADIR}) {
        const std::string candidate = std::string(dir) + "/sample-face.png";
        std::error_code ec;
        if (!std::filesystem::is_regular_file(candidate, ec)) {
            continue;
        }
        cairo_surface_t* s = cairo_image_surface_create_from_png(candidate.c_str());
        if (cairo_surface_status(s) == CAIRO_STATUS_SUCCESS) {
            path = candidate;
            return s;
        }
        cairo_surface_destroy(s);
    }
    return nullptr;
}

// Draws a code's modules as black squares filling rect (x, y, w, h) with a white quiet zone around.
void drawMatrix(cairo_t* cr, const ZXing::BitMatrix& m, double x, double y, double w, double h) {
    if (m.width() <= 0 || m.height() <= 0) {
        return;
    }
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_rectangle(cr, x, y, w, h);
    cairo_fill(cr);
    const double mw = w / m.width();
    const double mh = h / m.height();
    cairo_set_source_rgb(cr, 0, 0, 0);
    for (int r = 0; r < m.height(); ++r) {
        for (int c = 0; c < m.width(); ++c) {
            if (m.get(c, r)) {
                cairo_rectangle(cr, x + c * mw, y + r * mh, mw, mh);
            }
        }
    }
    cairo_fill(cr);
}

cairo_surface_t* makeCard() {
    cairo_surface_t* card = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, kCardWidth, kCardHeight);
    cairo_t* cr = cairo_create(card);
    // Rounded card with a light background and a coloured header.
    const double r = 36;
    cairo_new_sub_path(cr);
    cairo_arc(cr, kCardWidth - r, r, r, -std::numbers::pi / 2, 0);
    cairo_arc(cr, kCardWidth - r, kCardHeight - r, r, 0, std::numbers::pi / 2);
    cairo_arc(cr, r, kCardHeight - r, r, std::numbers::pi / 2, std::numbers::pi);
    cairo_arc(cr, r, r, r, std::numbers::pi, 3 * std::numbers::pi / 2);
    cairo_close_path(cr);
    cairo_clip_preserve(cr);
    cairo_set_source_rgb(cr, 0.93, 0.95, 0.97);
    cairo_fill(cr);
    cairo_set_source_rgb(cr, 0.12, 0.30, 0.58);
    cairo_rectangle(cr, 0, 0, kCardWidth, 96);
    cairo_fill(cr);
    cairo_set_source_rgb(cr, 1, 1, 1);
    drawText(cr, "SAMPLE STATE  DRIVER LICENSE", "Sans Bold 30px", 40, 26);
    cairo_set_source_rgb(cr, 0.70, 0.74, 0.80);
    cairo_rectangle(cr, 40, 126, 170, 200);
    cairo_fill(cr);
    cairo_set_source_rgb(cr, 0.15, 0.17, 0.20);
    drawText(cr, "DL " + SampleScene::cardNumber(), "Sans Bold 30px", 240, 118);
    drawText(cr, SampleScene::cardHolderName(), "Sans Bold 26px", 240, 166);
    drawText(cr, "DOB 06/06/1986", "Sans 24px", 240, 210);
    drawText(cr, "ISS 06/06/2019   EXP 12/10/2030", "Sans 24px", 240, 248);
    try {
        // The writer reports bad input by throwing; nothing here is bad input, but keep it inside.
        ZXing::MultiFormatWriter qr(ZXing::BarcodeFormat::QRCode);
        qr.setMargin(0);
        const auto qm = qr.encode(SampleScene::qrText(), 0, 0);
        drawMatrix(cr, qm, kCardWidth - 40 - 190, 116, 190, 190);
        ZXing::MultiFormatWriter pdf(ZXing::BarcodeFormat::PDF417);
        pdf.setMargin(0);
        const auto pm = pdf.encode(SampleScene::pdf417Text(), 0, 0);
        // The writer already repeats each row to the code's row height, so modules are drawn square.
        const double width = kCardWidth - 80;
        const double height = std::min(260.0, width / pm.width() * pm.height());
        drawMatrix(cr, pm, 40, kCardHeight - 30 - height, width, height);
    } catch (...) {
        // The card then carries no codes; the rest of the scene is unaffected.
    }
    cairo_destroy(cr);
    cairo_surface_flush(card);
    return card;
}
} // namespace

const std::string& SampleScene::pdf417Text() {
    static const std::string text = "@\n\x1e\rANSI 636000090002DL00410185ZV02260008DLDAQT64235789\n"
                                    "DCSSAMPLE\nDACMICHAEL\nDADJOHN\nDBD06062019\nDBB06061986\n"
                                    "DBA12102030\nDBC1\nDAU068 in\nDAYBRO\nDAG2300 WEST BROAD STREET\n"
                                    "DAIRICHMOND\nDAJVA\nDAK232690000\nDCGUSA\r";
    return text;
}

const std::string& SampleScene::cardHolderName() {
    static const std::string name = "MICHAEL JOHN SAMPLE";
    return name;
}

const std::string& SampleScene::cardNumber() {
    static const std::string number = "T64235789";
    return number;
}

SampleScene::Pose SampleScene::poseAt(double t) {
    Pose p;
    double s = std::fmod(t, kPeriod);
    if (s < 0) {
        s += kPeriod;
    }
    p.faceRoll = kTiltDegrees * (ramp(s, 2.0, 3.0) - ramp(s, 4.0, 4.5));
    p.faceYaw = kTurnDegrees * (ramp(s, 4.5, 5.5) - ramp(s, 6.5, 7.0));
    // Out to the right (the photo's left edge past the frame's right edge), then back in.
    const double out = 1.0 + 0.5 * p.faceHeight * 9.0 / 16.0 * std::sqrt(2.0) + 0.01;
    p.faceCentreX = 0.5 + (out - 0.5) * (ramp(s, 7.0, 8.0) - ramp(s, 10.0, 11.0));
    p.faceVisible = !(s >= kFaceAbsentFrom && s < kFaceAbsentUntil);
    p.cardTilt = kCardTiltDegrees * std::sin(2 * std::numbers::pi * s / kPeriod);
    p.cardCentreX = 0.22 + 0.03 * std::sin(2 * std::numbers::pi * s / 4.0);
    p.cardCentreY = 0.72;
    return p;
}

const std::string& SampleScene::qrText() {
    static const std::string text = "KPIMAGE SAMPLE CARD T64235789";
    return text;
}

SampleScene::SampleScene() : _face(loadFace(_facePath)), _card(makeCard()) {}

SampleScene::~SampleScene() {
    if (_face != nullptr) {
        cairo_surface_destroy(_face);
    }
    cairo_surface_destroy(_card);
}

const SampleScene& SampleScene::shared() {
    static const SampleScene scene;
    return scene;
}

void SampleScene::drawScene(cairo_t* cr, int width, int height, double t) const {
    const double w = width;
    const double h = height;
    cairo_pattern_t* bg = cairo_pattern_create_linear(0, 0, 0, h);
    cairo_pattern_add_color_stop_rgb(bg, 0, 0.56, 0.62, 0.68);
    cairo_pattern_add_color_stop_rgb(bg, 1, 0.32, 0.35, 0.40);
    cairo_set_source(cr, bg);
    cairo_paint(cr);
    cairo_pattern_destroy(bg);

    const Pose pose = poseAt(t);
    if (_face != nullptr && pose.faceVisible) {
        const double size = pose.faceHeight * h;
        cairo_save(cr);
        cairo_translate(cr, pose.faceCentreX * w, pose.faceCentreY * h);
        cairo_rotate(cr, pose.faceRoll * std::numbers::pi / 180.0);
        cairo_translate(cr, -size / 2, -size / 2);
        drawFace(cr, size, pose.faceYaw);
        cairo_restore(cr);
    }

    const double cardW = pose.cardWidth * w;
    const double cardH = cardW * kCardHeight / kCardWidth;
    cairo_save(cr);
    cairo_translate(cr, pose.cardCentreX * w, pose.cardCentreY * h);
    cairo_rotate(cr, pose.cardTilt * std::numbers::pi / 180.0);
    cairo_translate(cr, -cardW / 2, -cardH / 2);
    cairo_scale(cr, cardW / kCardWidth, cardH / kCardHeight);
    cairo_set_source_surface(cr, _card, 0, 0);
    cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_GOOD);
    cairo_paint(cr);
    cairo_restore(cr);
}

void SampleScene::drawFace(cairo_t* cr, double size, double yawDegrees) const {
    // The head of the photo: a square a little larger than the face, centred on it.
    const double photoW = cairo_image_surface_get_width(_face);
    const double photoH = cairo_image_surface_get_height(_face);
    const double fw = kHeadSide * photoW;
    const double fh = kHeadSide * photoH;
    const double cropX = (kHeadCentreX - kHeadSide / 2) * photoW;
    const double cropY = (kHeadCentreY - kHeadSide / 2) * photoH;
    // The photo on a cylinder turned by the yaw: a column at sin(phi) across the face is seen at sin(phi + yaw).
    // Drawn in narrow columns, each stretched to where the turn puts it; columns turned away are not drawn.
    constexpr int kColumns = 96;
    const double yaw = yawDegrees * std::numbers::pi / 180.0;
    for (int i = 0; i < kColumns; ++i) {
        const double s0 = -1.0 + 2.0 * i / kColumns;
        const double s1 = -1.0 + 2.0 * (i + 1) / kColumns;
        const double p0 = std::asin(s0) + yaw;
        const double p1 = std::asin(s1) + yaw;
        if (p1 >= std::numbers::pi / 2) {
            continue;
        }
        const double d0 = (std::sin(std::max(p0, -std::numbers::pi / 2)) + 1) / 2 * size;
        const double d1 = (std::sin(p1) + 1) / 2 * size;
        if (d1 - d0 < 0.05) {
            continue;
        }
        const double src0 = (s0 + 1) / 2 * fw;
        const double src1 = (s1 + 1) / 2 * fw;
        cairo_save(cr);
        // Hard column edges: antialiased ones would leave seams between the columns.
        cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
        cairo_rectangle(cr, std::floor(d0), 0, std::ceil(d1) - std::floor(d0), size);
        cairo_clip(cr);
        cairo_translate(cr, d0, 0);
        cairo_scale(cr, (d1 - d0) / (src1 - src0), size / fh);
        cairo_translate(cr, -src0 - cropX, -cropY);
        cairo_set_source_surface(cr, _face, 0, 0);
        cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_BILINEAR);
        cairo_paint(cr);
        cairo_restore(cr);
    }
}

void SampleScene::render(cairo_surface_t* target, int width, int height, double t,
                         const SampleSceneEffects& effects) const {
    cairo_t* cr = cairo_create(target);
    if (effects.defocus > 0) {
        // Out of focus: draw small, then enlarge with a smooth filter.
        const double factor = 1.0 + 7.0 * std::clamp(effects.defocus, 0.0, 1.0);
        const int sw = std::max(1, static_cast<int>(width / factor));
        const int sh = std::max(1, static_cast<int>(height / factor));
        cairo_surface_t* small = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, sw, sh);
        cairo_t* scr = cairo_create(small);
        cairo_scale(scr, static_cast<double>(sw) / width, static_cast<double>(sh) / height);
        drawScene(scr, width, height, t);
        cairo_destroy(scr);
        cairo_save(cr);
        cairo_scale(cr, static_cast<double>(width) / sw, static_cast<double>(height) / sh);
        cairo_set_source_surface(cr, small, 0, 0);
        cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_BILINEAR);
        cairo_pattern_set_extend(cairo_get_source(cr), CAIRO_EXTEND_PAD);
        cairo_paint(cr);
        cairo_restore(cr);
        cairo_surface_destroy(small);
    } else {
        drawScene(cr, width, height, t);
    }
    if (effects.warmCast) {
        cairo_set_source_rgba(cr, 1.0, 0.55, 0.15, 0.15);
        cairo_paint(cr);
    }
    const double boost = std::clamp(effects.torchLevel, 0.0, 1.0) * 0.3 + (effects.flash ? 0.45 : 0.0);
    if (boost > 0) {
        cairo_set_operator(cr, CAIRO_OPERATOR_ADD);
        cairo_set_source_rgba(cr, 1, 1, 1, std::min(boost, 1.0));
        cairo_paint(cr);
    }
    cairo_destroy(cr);
    cairo_surface_flush(target);
}

} // namespace kp
