// SPDX-License-Identifier: MIT
// The sample camera's scene.
#include "Platform/Capture/SampleScene.h"

#include <ZXing/BarcodeFormat.h>
#include <ZXing/BitMatrix.h>
#include <ZXing/MultiFormatWriter.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <numbers>

namespace kp {

namespace {
constexpr int kCardWidth = 1012; // 85.6 mm x 54 mm at about 300 dpi
constexpr int kCardHeight = 638;
constexpr double kDriftPeriod = 8.0;

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
    // Printed fields as bars: the scene needs no fonts (and so no font configuration at all).
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_rectangle(cr, 40, 34, 520, 28);
    cairo_fill(cr);
    cairo_set_source_rgb(cr, 0.70, 0.74, 0.80);
    cairo_rectangle(cr, 40, 126, 170, 200);
    cairo_fill(cr);
    cairo_set_source_rgb(cr, 0.25, 0.27, 0.30);
    const double widths[] = {300, 420, 260, 280};
    for (int i = 0; i < 4; ++i) {
        cairo_rectangle(cr, 240, 138 + i * 48, widths[i], 22);
    }
    cairo_fill(cr);
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

    // The face drifts between the centre and the right third, sitting at the centre at t = 0, 8, 16, ...
    if (_face != nullptr) {
        const double size = 0.5 * h;
        const double cx = w * (0.65 - 0.15 * std::cos(2 * std::numbers::pi * t / kDriftPeriod));
        const double cy = 0.40 * h;
        const double fw = cairo_image_surface_get_width(_face);
        const double fh = cairo_image_surface_get_height(_face);
        cairo_save(cr);
        cairo_translate(cr, cx - size / 2, cy - size / 2);
        cairo_scale(cr, size / fw, size / fh);
        cairo_set_source_surface(cr, _face, 0, 0);
        cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_BILINEAR);
        cairo_paint(cr);
        cairo_restore(cr);
    }

    // The card lies still in the lower left.
    const double cardW = 0.36 * w;
    const double cardH = cardW * kCardHeight / kCardWidth;
    cairo_save(cr);
    cairo_translate(cr, 0.03 * w, h - cardH - 0.04 * h);
    cairo_scale(cr, cardW / kCardWidth, cardH / kCardHeight);
    cairo_set_source_surface(cr, _card, 0, 0);
    cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_GOOD);
    cairo_paint(cr);
    cairo_restore(cr);
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
