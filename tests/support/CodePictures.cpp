// SPDX-License-Identifier: MIT
// Pictures of machine-readable codes with their true corners, printed by zint (an encoder independent of the
// reader's library).
#include "support/CodePictures.h"

#include <zint.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <random>
#include <stdexcept>
#include <tuple>

namespace kptest {

namespace {

// The code of text printed by zint; throws when the text cannot be encoded.
std::unique_ptr<zint_symbol, void (*)(zint_symbol*)> encode(CodeKind kind, const std::string& text, int columns) {
    static const int kSymbology[] = {BARCODE_PDF417, BARCODE_QRCODE,  BARCODE_DATAMATRIX,
                                     BARCODE_AZTEC,  BARCODE_CODE128, BARCODE_EANX};
    std::unique_ptr<zint_symbol, void (*)(zint_symbol*)> symbol(ZBarcode_Create(), ZBarcode_Delete);
    symbol->symbology = kSymbology[static_cast<int>(kind)];
    symbol->input_mode = DATA_MODE;
    symbol->option_2 = kind == CodeKind::PDF417 ? columns : 0;
    if (ZBarcode_Encode(symbol.get(), reinterpret_cast<const unsigned char*>(text.data()),
                        static_cast<int>(text.size())) >= ZINT_ERROR) {
        throw std::invalid_argument("zint cannot encode the text");
    }
    return symbol;
}

} // namespace

const std::string& licenceText() {
    static const std::string text = "@\nANSI 636000090002DL00410185ZV02260008DLDAQT64235789\nDCSSAMPLE\nDACMICHAEL\n"
                                    "DADJOHN\nDBD06062019\nDBB06061986\nDBA12102030\nDBC1\nDAU068 in\nDAYBRO\n"
                                    "DAG2300 WEST BROAD STREET\nDAIRICHMOND\nDAJVA\nDAK232690000\nDCGUSA\n";
    return text;
}

std::array<kp::CGPoint, 4> printCode(kp::LumaImage& image, CodeKind kind, const std::string& text,
                                     const CodePlacement& p) {
    const auto symbol = encode(kind, text, p.columns);
    const zint_symbol* code = symbol.get();
    // Linear codes come as one row; print them a third as high as wide. PDF417 rows are three modules high.
    const bool linear = code->rows <= 1;
    const double w = code->width * p.moduleSize;
    const double rowHeight = linear ? w / 3 : p.moduleSize * (kind == CodeKind::PDF417 ? 3 : 1);
    const double h = code->rows * rowHeight;
    const double quiet = (linear ? 10 : kind == CodeKind::QR ? 4 : 2) * p.moduleSize;
    const double c = std::cos(p.angleDegrees * std::numbers::pi / 180.0);
    const double s = std::sin(p.angleDegrees * std::numbers::pi / 180.0);
    // Each picture pixel averages 3 x 3 samples of the code seen through the inverse turn; only pixels near the
    // code with its quiet zone can change.
    const double reach = std::hypot(w / 2 + quiet, h / 2 + quiet) + 2;
    const int x0 = std::clamp(static_cast<int>(p.centreX - reach), 0, image.width);
    const int x1 = std::clamp(static_cast<int>(p.centreX + reach) + 1, 0, image.width);
    const int y0 = std::clamp(static_cast<int>(p.centreY - reach), 0, image.height);
    const int y1 = std::clamp(static_cast<int>(p.centreY + reach) + 1, 0, image.height);
    for (int y = y0; y < y1; ++y) {
        uint8_t* row = image.row(y);
        for (int x = x0; x < x1; ++x) {
            int sum = 0;
            int inside = 0;
            for (int k = 0; k < 9; ++k) {
                const double dx = x + (k % 3 + 0.5) / 3 - 0.5 - p.centreX;
                const double dy = y + (k / 3 + 0.5) / 3 - 0.5 - p.centreY;
                const double u = dx * c + dy * s + w / 2;
                const double v = -dx * s + dy * c + h / 2;
                if (u < -quiet || v < -quiet || u >= w + quiet || v >= h + quiet) {
                    sum += row[x];
                } else {
                    ++inside;
                    const int col = static_cast<int>(u / p.moduleSize);
                    const int r = static_cast<int>(v / rowHeight);
                    const bool black = u >= 0 && v >= 0 && col < code->width && r < code->rows &&
                                       ((code->encoded_data[r][col >> 3] >> (col & 7)) & 1) != 0;
                    sum += black ? 25 : 235;
                }
            }
            if (inside > 0) {
                row[x] = static_cast<uint8_t>(sum / 9);
            }
        }
    }
    const auto at = [&](double u, double v) {
        return kp::CGPointMake(p.centreX + u * c - v * s, p.centreY + u * s + v * c);
    };
    return {at(-w / 2, h / 2), at(w / 2, h / 2), at(w / 2, -h / 2), at(-w / 2, -h / 2)};
}

CodePicture renderCode(CodeKind kind, const std::string& text, int width, int height, const CodePlacement& p) {
    CodePicture out;
    if (!out.image.resize(width, height)) {
        return out;
    }
    std::fill(out.image.pixels.begin(), out.image.pixels.end(), uint8_t{128});
    try {
        out.corners = printCode(out.image, kind, text, p);
    } catch (...) {
        out.image = {};
        return out;
    }
    // Around the code (the flat rest of the picture is no harder for it): blur in passes of the [1 2 1] / 4 kernel
    // along both axes (each adds a variance of 1/2), then noise, the sum of three uniform draws scaled to the
    // standard deviation asked for.
    const kp::CGRect box = CGRectInset(kp::boundingRectOfPoints(out.corners), -8 * p.moduleSize, -8 * p.moduleSize);
    const int x0 = std::max(1, static_cast<int>(box.origin.x)), x1 = std::min(width - 1, int(CGRectGetMaxX(box)));
    const int y0 = std::max(1, static_cast<int>(box.origin.y)), y1 = std::min(height - 1, int(CGRectGetMaxY(box)));
    for (long pass = 0; pass < std::lround(2 * p.blurSigma * p.blurSigma); ++pass) {
        const kp::LumaImage in = out.image;
        for (int y = y0; y < y1; ++y) {
            for (int x = x0; x < x1; ++x) {
                const auto line = [&](int dy) {
                    return in.row(y + dy)[x - 1] + 2 * in.row(y + dy)[x] + in.row(y + dy)[x + 1];
                };
                out.image.row(y)[x] = static_cast<uint8_t>((line(-1) + 2 * line(0) + line(1) + 8) / 16);
            }
        }
    }
    std::minstd_rand rng(p.seed);
    for (int y = y0; p.noise > 0 && y < y1; ++y) {
        for (int x = x0; x < x1; ++x) {
            const double u = static_cast<double>(rng() % 1024 + rng() % 1024 + rng() % 1024) / 1024.0 - 1.5;
            out.image.row(y)[x] = static_cast<uint8_t>(std::clamp(out.image.row(y)[x] + 2.0 * u * p.noise, 0.0, 255.0));
        }
    }
    return out;
}

std::vector<CodeSetPicture> codeSet() {
    const std::string qrText = "https://example.org/kpimage/card/T64235789";
    const std::tuple<CodeKind, std::string, double, int> families[] = {{CodeKind::PDF417, licenceText(), 2, 8},
                                                                       {CodeKind::PDF417, licenceText(), 4, 4},
                                                                       {CodeKind::QR, qrText, 3, 0},
                                                                       {CodeKind::QR, qrText, 6, 0}};
    std::vector<CodeSetPicture> set;
    for (const auto& [kind, text, module, columns] : families) {
        for (int i = 0; i < 13; ++i) {
            const double angle = 90.0 * (i % 4) + (i % 2 == 0 ? 2.0 * i : -2.0 * i);
            const CodePlacement p{
                640, 360, angle, module, (i % 3) * 0.4, (i % 2) * 5.0, static_cast<uint32_t>(set.size() + 1), columns};
            set.push_back({(kind == CodeKind::QR ? "QR module " : "PDF417 module ") + std::to_string(int(module)) +
                               " angle " + std::to_string(static_cast<int>(angle)),
                           kind, text, renderCode(kind, text, 1280, 720, p)});
        }
    }
    return set;
}

double cornerError(const std::array<kp::CGPoint, 4>& read, const CodePicture& truth) {
    double worst = 0;
    for (size_t i = 0; i < 4; ++i) {
        worst = std::max(worst, std::hypot(read[i].x - truth.corners[i].x, read[i].y - truth.corners[i].y));
    }
    return truth.image.width > 0 ? worst / truth.image.width : 0.0;
}

} // namespace kptest
