// SPDX-License-Identifier: MIT
// Pictures of machine-readable codes with their true corners.
#include "support/CodePictures.h"

#include <ZXing/BarcodeFormat.h>
#include <ZXing/BitMatrix.h>
#include <ZXing/MultiFormatWriter.h>
#include <zint.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <stdexcept>

namespace kptest {

namespace {

ZXing::BarcodeFormat formatOf(CodeKind kind) {
    switch (kind) {
    case CodeKind::PDF417:
        return ZXing::BarcodeFormat::PDF417;
    case CodeKind::QR:
        return ZXing::BarcodeFormat::QRCode;
    case CodeKind::DataMatrix:
        return ZXing::BarcodeFormat::DataMatrix;
    case CodeKind::Aztec:
        return ZXing::BarcodeFormat::Aztec;
    case CodeKind::Code128:
        return ZXing::BarcodeFormat::Code128;
    case CodeKind::EAN13:
        return ZXing::BarcodeFormat::EAN13;
    }
    return ZXing::BarcodeFormat::QRCode;
}

// A code's modules: width x height, row-major, nonzero for dark; each row printed rowModules modules high.
struct Modules {
    int width = 0;
    int height = 0;
    int rowModules = 1;
    std::vector<uint8_t> dark;
    bool get(int x, int y) const { return dark[static_cast<size_t>(y) * static_cast<size_t>(width) + x] != 0; }
};

// PDF417 and QR come from zint, an encoder independent of the reader's library; the other kinds from ZXing-cpp's
// writer. Throws when the text cannot be encoded.
Modules encode(CodeKind kind, const std::string& text, int columns) {
    Modules m;
    if (kind == CodeKind::PDF417 || kind == CodeKind::QR) {
        zint_symbol* symbol = ZBarcode_Create();
        if (symbol == nullptr) {
            throw std::bad_alloc();
        }
        symbol->symbology = kind == CodeKind::PDF417 ? BARCODE_PDF417 : BARCODE_QRCODE;
        symbol->input_mode = DATA_MODE;
        if (kind == CodeKind::PDF417 && columns > 0) {
            symbol->option_2 = columns;
        }
        const int status =
            ZBarcode_Encode(symbol, reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
        if (status >= ZINT_ERROR) {
            ZBarcode_Delete(symbol);
            throw std::invalid_argument("zint cannot encode the text");
        }
        m.width = symbol->width;
        m.height = symbol->rows;
        m.rowModules = kind == CodeKind::PDF417 ? 3 : 1;
        m.dark.resize(static_cast<size_t>(m.width) * static_cast<size_t>(m.height));
        for (int y = 0; y < m.height; ++y) {
            for (int x = 0; x < m.width; ++x) {
                m.dark[static_cast<size_t>(y) * static_cast<size_t>(m.width) + x] =
                    (symbol->encoded_data[y][x >> 3] >> (x & 7)) & 1;
            }
        }
        ZBarcode_Delete(symbol);
        return m;
    }
    ZXing::MultiFormatWriter writer(formatOf(kind));
    writer.setMargin(0);
    const ZXing::BitMatrix b = writer.encode(text, 0, 0);
    m.width = b.width();
    m.height = b.height();
    m.dark.resize(static_cast<size_t>(m.width) * static_cast<size_t>(m.height));
    for (int y = 0; y < m.height; ++y) {
        for (int x = 0; x < m.width; ++x) {
            m.dark[static_cast<size_t>(y) * static_cast<size_t>(m.width) + x] = b.get(x, y) ? 1 : 0;
        }
    }
    return m;
}

// Three box blurs of radius r have the variance of a Gaussian of sigma when (2r + 1)^2 = 4 sigma^2 + 1.
void blur(kp::LumaImage& img, double sigma) {
    const int r = sigma > 0 ? static_cast<int>(std::lround((std::sqrt(4.0 * sigma * sigma + 1.0) - 1.0) / 2.0)) : 0;
    if (r <= 0) {
        return;
    }
    std::vector<int> line;
    for (int pass = 0; pass < 3; ++pass) {
        for (int dir = 0; dir < 2; ++dir) {
            const int n = dir == 0 ? img.width : img.height;
            const int lines = dir == 0 ? img.height : img.width;
            line.resize(static_cast<size_t>(n));
            for (int l = 0; l < lines; ++l) {
                const auto at = [&](int i) -> uint8_t& { return dir == 0 ? img.row(l)[i] : img.row(i)[l]; };
                for (int i = 0; i < n; ++i) {
                    line[static_cast<size_t>(i)] = at(i);
                }
                for (int i = 0; i < n; ++i) {
                    int sum = 0;
                    for (int k = -r; k <= r; ++k) {
                        sum += line[static_cast<size_t>(std::clamp(i + k, 0, n - 1))];
                    }
                    at(i) = static_cast<uint8_t>(sum / (2 * r + 1));
                }
            }
        }
    }
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
    const Modules m = encode(kind, text, p.columns);
    // Linear codes come as one row; print them a third as high as wide.
    const bool linear = m.height <= 1;
    const double w = m.width * p.moduleSize;
    const double rowHeight = p.moduleSize * m.rowModules;
    const double h = linear ? w / 3 : m.height * rowHeight;
    const double quiet = (linear ? 10 : kind == CodeKind::QR ? 4 : 2) * p.moduleSize;
    const double a = p.angleDegrees * std::numbers::pi / 180.0;
    const double c = std::cos(a);
    const double s = std::sin(a);
    const auto toPicture = [&](double u, double v) {
        return kp::CGPointMake(p.centreX + u * c - v * s, p.centreY + u * s + v * c);
    };
    // Each picture pixel averages 3 x 3 samples of the code seen through the inverse turn; only pixels near the
    // code with its quiet zone can change.
    const double reach = std::hypot(w / 2 + quiet, h / 2 + quiet) + 2;
    const int x0 = std::clamp(static_cast<int>(p.centreX - reach), 0, image.width);
    const int x1 = std::clamp(static_cast<int>(p.centreX + reach) + 1, 0, image.width);
    const int y0 = std::clamp(static_cast<int>(p.centreY - reach), 0, image.height);
    const int y1 = std::clamp(static_cast<int>(p.centreY + reach) + 1, 0, image.height);
    for (int y = y0; y < y1; ++y) {
        for (int x = x0; x < x1; ++x) {
            int sum = 0;
            int inside = 0;
            for (int sy = 0; sy < 3; ++sy) {
                for (int sx = 0; sx < 3; ++sx) {
                    const double dx = x + (sx + 0.5) / 3 - 0.5 - p.centreX;
                    const double dy = y + (sy + 0.5) / 3 - 0.5 - p.centreY;
                    const double u = dx * c + dy * s + w / 2;
                    const double v = -dx * s + dy * c + h / 2;
                    if (u < -quiet || v < -quiet || u >= w + quiet || v >= h + quiet) {
                        sum += image.row(y)[x];
                        continue;
                    }
                    ++inside;
                    bool black = false;
                    if (u >= 0 && v >= 0 && u < w && v < h) {
                        const int col = std::min(m.width - 1, static_cast<int>(u / p.moduleSize));
                        const int row = linear ? 0 : std::min(m.height - 1, static_cast<int>(v / rowHeight));
                        black = m.get(col, row);
                    }
                    sum += black ? 25 : 235;
                }
            }
            if (inside > 0) {
                image.row(y)[x] = static_cast<uint8_t>(sum / 9);
            }
        }
    }
    return {toPicture(-w / 2, h / 2), toPicture(w / 2, h / 2), toPicture(w / 2, -h / 2), toPicture(-w / 2, -h / 2)};
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
    blur(out.image, p.blurSigma);
    if (p.noise > 0) {
        std::mt19937 rng(p.seed);
        std::normal_distribution<double> n(0.0, p.noise);
        for (uint8_t& px : out.image.pixels) {
            px = static_cast<uint8_t>(std::clamp(px + n(rng), 0.0, 255.0));
        }
    }
    return out;
}

std::vector<CodeSetPicture> codeSet() {
    struct Family {
        CodeKind kind;
        std::string text;
        double moduleSize;
        int columns;
    };
    const Family families[] = {
        {CodeKind::PDF417, licenceText(), 2.0, 8},
        {CodeKind::PDF417, licenceText(), 4.0, 4},
        {CodeKind::QR, "https://example.org/kpimage/card/T64235789", 3.0, 0},
        {CodeKind::QR, "https://example.org/kpimage/card/T64235789", 6.0, 0},
    };
    std::vector<CodeSetPicture> set;
    uint32_t seed = 0;
    for (const Family& f : families) {
        for (int i = 0; i < 13; ++i) {
            const double tilt = 2.0 * i;
            const double angle = 90.0 * (i % 4) + (i % 2 == 0 ? tilt : -tilt);
            CodePlacement p;
            p.centreX = 640;
            p.centreY = 360;
            p.angleDegrees = angle;
            p.moduleSize = f.moduleSize;
            p.blurSigma = (i % 3) * 0.4;
            p.noise = (i % 2) * 5.0;
            p.seed = ++seed;
            p.columns = f.columns;
            CodeSetPicture pic{(f.kind == CodeKind::PDF417 ? "PDF417" : "QR") + std::string(" module ") +
                                   std::to_string(f.moduleSize).substr(0, 3) + " angle " +
                                   std::to_string(static_cast<int>(angle)),
                               f.kind, f.text, renderCode(f.kind, f.text, 1280, 720, p)};
            set.push_back(std::move(pic));
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
