// SPDX-License-Identifier: MIT
// The code reader of the metadata output, on ZXing-cpp, with a skew-correcting second look for PDF417 and QR.
#include "Platform/Vision/MachineCodeReader.h"

#include "Platform/Vision/Pdf417Outline.h"

// The library's inline text() returns a wide string unless ZX_USE_UTF8 is defined; every user in one program must
// see the same definition, so the wide form is used everywhere and converted here.
#include <ZXing/BarcodeFormat.h>
#include <ZXing/DecodeHints.h>
#include <ZXing/ReadBarcode.h>
#include <ZXing/TextUtfEncoding.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

namespace kp {

namespace {

using ZXing::BarcodeFormat;

struct TypeFormat {
    const AVMetadataObjectType* type;
    uint32_t formats;
};

uint32_t bits(BarcodeFormat f) {
    return static_cast<uint32_t>(f);
}

const std::vector<TypeFormat>& typeFormats() {
    // UPC-A is a subset of EAN-13 and is reported as an EAN-13 code, as the platform does.
    static const std::vector<TypeFormat> table{
        {&AVMetadataObjectTypePDF417Code, bits(BarcodeFormat::PDF417)},
        {&AVMetadataObjectTypeQRCode, bits(BarcodeFormat::QRCode)},
        {&AVMetadataObjectTypeEAN13Code, bits(BarcodeFormat::EAN13) | bits(BarcodeFormat::UPCA)},
        {&AVMetadataObjectTypeEAN8Code, bits(BarcodeFormat::EAN8)},
        {&AVMetadataObjectTypeUPCECode, bits(BarcodeFormat::UPCE)},
        {&AVMetadataObjectTypeCode39Code, bits(BarcodeFormat::Code39)},
        {&AVMetadataObjectTypeCode93Code, bits(BarcodeFormat::Code93)},
        {&AVMetadataObjectTypeCode128Code, bits(BarcodeFormat::Code128)},
        {&AVMetadataObjectTypeITF14Code, bits(BarcodeFormat::ITF)},
        {&AVMetadataObjectTypeInterleaved2of5Code, bits(BarcodeFormat::ITF)},
        {&AVMetadataObjectTypeAztecCode, bits(BarcodeFormat::Aztec)},
        {&AVMetadataObjectTypeDataMatrixCode, bits(BarcodeFormat::DataMatrix)},
    };
    return table;
}

// The library's formats of a code type (0 for a type it does not read).
uint32_t formatsOf(const AVMetadataObjectType& type) {
    for (const auto& tf : typeFormats()) {
        if (*tf.type == type) {
            return tf.formats;
        }
    }
    return 0;
}

constexpr uint32_t kSecondLookFormats =
    static_cast<uint32_t>(BarcodeFormat::PDF417) | static_cast<uint32_t>(BarcodeFormat::QRCode);
// Edges weaker than this (sum of absolute central differences) are not counted.
constexpr int kEdgeThreshold = 48;
// Square cells of the candidate search, in pixels, and the share of sampled points that must be edges.
constexpr int kCell = 16;
constexpr double kCellEdgeShare = 0.30;
// How well a cell's edges must agree on one direction (modulo 90 degrees), 0..1.
constexpr double kCellCoherence = 0.35;
// Regions smaller than this many cells are not codes the second look could read.
constexpr size_t kMinCandidateCells = 6;
constexpr size_t kMaxCandidates = 4;
// The second look enlarges its crops: fine modules survive the turn better, and the library reads them faster.
constexpr double kCropEnlargement = 1.5;
constexpr int kMaxCropSide = 2400;
// A skew this small does not need a second look unless the crop is enlarged.
constexpr double kSkewWorthRetry = 0.5;
// Angles tried around the measured skew, in this order, until one reads.
constexpr double kSkewRetryOffsets[] = {0.0, 3.0, -3.0};
// The skew is sharpened within this many degrees of the edge-direction estimate, in these steps.
constexpr double kSkewSearchDegrees = 7.0;
constexpr double kSkewSearchStep = 1.0;
// A code read in the previous picture is looked for at its angle then when the region's skew is within this many
// degrees of it (fine modules bias the region's skew by up to about the search span, and the code turns meanwhile).
constexpr double kHintSkewTolerance = 12.0;
// A code read at an angle this far (degrees) from its own is read again at its own: the library's corners drift
// with the crop's remaining skew (by about 3 pixels at 2.5 degrees, too little to pay a second read for).
constexpr double kSkewRefineThreshold = 3.0;
// Codes read by the first look are looked for again in the next pictures in their box grown by this fraction of
// its size on every side (a code moves little between analysed frames); the whole picture is read again in every
// kWholeLookEvery-th picture (new codes elsewhere show within that many pictures).
constexpr double kLookAroundFactor = 0.5;
constexpr int kWholeLookEvery = 4;
// Every kFullReadEvery-th frame of a video is read whole in every enabled format (about two seconds at the
// worker's rate), so nothing the plain library reads stays unread for long; trying harder, as for a single
// picture, would cost several times as much.
constexpr int kFullReadEvery = 32;
// A code region at least this high (pixels) is tall enough to be read at half its rows.
constexpr double kMinHalvedHeight = 80.0;
// A region whose longer side is at most this many times the longer side of the code read there (plus a cell on
// each side) holds little more than that code.
constexpr double kCodeSizedRegion = 1.3;
// Regions whose longer side is shorter than this (pixels) are tried at one angle.
constexpr double kSmallRegionSide = 200.0;
// Crops read per frame at most (a frame full of text must not cost a read per word).
constexpr int kMaxSecondLookReads = 5;
// A region where no angle read is left alone for this many pictures (text and patterns stay where they are from
// frame to frame; a code that appears there is read at most this many pictures late). A region that comes back
// from its rest is tried at one angle only, the next of the retry angles each time, and rests kLongRest pictures
// when that does not read either: text seen for a while costs a read every few pictures, not three every third.
constexpr int kFailedRegionRest = 3;
constexpr int kLongRest = 6;
// A failed region and a candidate are the same place when their boxes overlap by this much (intersection over
// union: a small region next to or inside a code's is another place).
constexpr double kSameRegionOverlap = 0.5;

double intersectionOverUnion(CGRect a, CGRect b) {
    const double w = std::min(a.origin.x + a.size.width, b.origin.x + b.size.width) - std::max(a.origin.x, b.origin.x);
    const double h =
        std::min(a.origin.y + a.size.height, b.origin.y + b.size.height) - std::max(a.origin.y, b.origin.y);
    if (!(w > 0 && h > 0)) {
        return 0.0;
    }
    const double inter = w * h;
    return inter / (a.size.width * a.size.height + b.size.width * b.size.height - inter);
}

// Whether four corners (bottom-left, bottom-right, top-right, top-left) make opposite sides of about the same
// length and direction, as a code seen roughly face-on does.
bool isNearRectangle(const std::array<CGPoint, 4>& c) {
    const auto sideGap = [](CGPoint a0, CGPoint a1, CGPoint b0, CGPoint b1) {
        const double ax = a1.x - a0.x, ay = a1.y - a0.y, bx = b1.x - b0.x, by = b1.y - b0.y;
        return std::hypot(ax - bx, ay - by) / std::max(1.0, std::max(std::hypot(ax, ay), std::hypot(bx, by)));
    };
    constexpr double kTolerance = 0.15;
    return sideGap(c[0], c[1], c[3], c[2]) <= kTolerance && sideGap(c[0], c[3], c[1], c[2]) <= kTolerance;
}

CGPoint centreOf(const std::array<CGPoint, 4>& c) {
    return {(c[0].x + c[1].x + c[2].x + c[3].x) / 4, (c[0].y + c[1].y + c[2].y + c[3].y) / 4};
}

// Whether p lies inside the convex quadrilateral (either winding).
bool containsPoint(const std::array<CGPoint, 4>& c, CGPoint p) {
    int sign = 0;
    for (size_t i = 0; i < 4; ++i) {
        const CGPoint a = c[i];
        const CGPoint b = c[(i + 1) % 4];
        const double cr = (b.x - a.x) * (p.y - a.y) - (b.y - a.y) * (p.x - a.x);
        const int s = cr > 0 ? 1 : cr < 0 ? -1 : 0;
        if (s != 0) {
            if (sign != 0 && s != sign) {
                return false;
            }
            sign = s;
        }
    }
    return true;
}

// Whether two regions' boxes show the same place: either holds the other's centre (a region merely touching a
// code's, text beside it, is another place).
bool samePlace(CGRect a, CGRect b) {
    return CGRectContainsPoint(a, {CGRectGetMidX(b), CGRectGetMidY(b)}) ||
           CGRectContainsPoint(b, {CGRectGetMidX(a), CGRectGetMidY(a)});
}

bool rectsOverlap(CGRect a, CGRect b) {
    return a.origin.x < b.origin.x + b.size.width && b.origin.x < a.origin.x + a.size.width &&
           a.origin.y < b.origin.y + b.size.height && b.origin.y < a.origin.y + a.size.height;
}

// The crop's pixels with rowStep crop rows to a row, each sampled midway between the first and last of its rows
// (one-row crops through the source).
LumaImage sampleRows(const RotatedCrop& crop, const LumaImage& source, int rowStep) {
    if (rowStep <= 1) {
        return crop.sample(source);
    }
    LumaImage out;
    if (!out.resize(crop.width, crop.height / rowStep)) {
        return out;
    }
    RotatedCrop line = crop;
    line.height = 1;
    for (int k = 0; k < out.height; ++k) {
        line.centre = crop.toSource({crop.width / 2.0, k * rowStep + 0.5 * (rowStep - 1) + 0.5});
        const LumaImage row = line.sample(source);
        if (row.empty()) {
            return {};
        }
        std::copy(row.row(0), row.row(0) + row.width, out.row(k));
    }
    return out;
}

// The source point of a point of a crop read with rowStep crop rows to a row.
CGPoint fromCrop(const RotatedCrop& crop, CGPoint p, int rowStep) {
    return crop.toSource({p.x, p.y * rowStep + 0.5 * (rowStep - 1)});
}

// The outline of the PDF417 symbol in an upright crop (sampled, rowStep crop rows to a row), in picture pixels. down
// is the symbol's downward direction in the picture when known. An outline that runs into the crop's border (the
// region held only part of the code) is looked for again in a crop around that outline, turned to upright and grown
// on every side.
std::optional<std::array<CGPoint, 4>> outlineInCrop(const LumaImage& image, const RotatedCrop& crop,
                                                    const LumaImage& sampled, std::optional<CGPoint> down,
                                                    bool again = true, int rowStep = 1) {
    std::optional<CGPoint> downInCrop;
    if (down) {
        const double c = std::cos(crop.angle);
        const double s = std::sin(crop.angle);
        downInCrop = CGPoint{down->x * c + down->y * s, (-down->x * s + down->y * c) / rowStep};
    }
    auto outline = findPdf417Outline(sampled, downInCrop);
    if (!outline) {
        return std::nullopt;
    }
    constexpr double kBorder = 3.0;
    const bool touches = std::any_of(outline->begin(), outline->end(), [&](CGPoint p) {
        return p.x < kBorder || p.y < kBorder / rowStep || p.x > sampled.width - 1 - kBorder ||
               p.y > sampled.height - 1 - kBorder / rowStep;
    });
    for (CGPoint& p : *outline) {
        p = fromCrop(crop, p, rowStep);
    }
    if (!touches || !again) {
        return outline;
    }
    const auto& c = *outline;
    const double width = std::hypot(c[1].x - c[0].x, c[1].y - c[0].y);
    const double height = std::hypot(c[3].x - c[0].x, c[3].y - c[0].y);
    const double margin = 0.25 * std::max(width, height) + kCell;
    RotatedCrop grown;
    grown.centre = centreOf(c);
    grown.angle = std::atan2(c[1].y - c[0].y, c[1].x - c[0].x);
    grown.scale = std::min(kCropEnlargement, kMaxCropSide / (std::max(width, height) + 2 * margin));
    grown.width = static_cast<int>((width + 2 * margin) * grown.scale);
    grown.height = static_cast<int>((height + 2 * margin) * grown.scale);
    if (auto again2 = outlineInCrop(image, grown, grown.sample(image), CGPoint{c[0].x - c[3].x, c[0].y - c[3].y},
                                    false)) {
        return again2;
    }
    return outline;
}

// The skew at which the region's rows of modules line up best: the brightness projected across the code (summed
// along its bars) varies most when the projection runs exactly along the bars. Searched around the edge-direction
// estimate, which fine modules bias by a few degrees.
double sharpestSkew(const LumaImage& image, CGPoint centre, double w, double h, double estimate) {
    double best = estimate;
    double bestScore = -1;
    const int bins = static_cast<int>(std::hypot(w, h)) + 4;
    std::vector<double> sum(static_cast<size_t>(bins));
    std::vector<int> count(static_cast<size_t>(bins));
    const int x0 = std::max(0, static_cast<int>(centre.x - std::max(w, h) / 2));
    const int x1 = std::min(image.width, static_cast<int>(centre.x + std::max(w, h) / 2));
    const int y0 = std::max(0, static_cast<int>(centre.y - std::max(w, h) / 2));
    const int y1 = std::min(image.height, static_cast<int>(centre.y + std::max(w, h) / 2));
    for (double d = -kSkewSearchDegrees; d <= kSkewSearchDegrees; d += kSkewSearchStep) {
        const double a = (estimate + d) * std::numbers::pi / 180.0;
        const double ca = std::cos(a);
        const double sa = std::sin(a);
        std::fill(sum.begin(), sum.end(), 0.0);
        std::fill(count.begin(), count.end(), 0);
        for (int y = y0; y < y1; y += 2) {
            const uint8_t* row = image.row(y);
            const double dy = y - centre.y;
            // The pixels of the row inside the turned box lie between two bounds of dx (one pixel of slack on
            // each side; the test below keeps exactly those inside).
            double lo = x0 - centre.x;
            double hi = x1 - centre.x;
            const auto within = [&](double k, double offset, double half) {
                // k * dx + offset in [-half, half].
                if (std::abs(k) < 1e-12) {
                    if (std::abs(offset) > half) {
                        hi = lo - 1;
                    }
                    return;
                }
                const double from = (-half - offset) / k;
                const double to = (half - offset) / k;
                lo = std::max(lo, std::min(from, to) - 1);
                hi = std::min(hi, std::max(from, to) + 1);
            };
            within(ca, dy * sa, w / 2);
            within(-sa, dy * ca, h / 2);
            if (hi < lo) {
                continue;
            }
            const int first = x0 + 2 * std::max(0, static_cast<int>(std::ceil((centre.x + lo - x0) / 2)));
            const int last = std::min(x1, static_cast<int>(centre.x + hi) + 1);
            for (int x = first; x < last; x += 2) {
                const double dx = x - centre.x;
                const double u = dx * ca + dy * sa;
                const double v = -dx * sa + dy * ca;
                if (std::abs(u) > w / 2 || std::abs(v) > h / 2) {
                    continue;
                }
                const auto bin = static_cast<size_t>(u + bins / 2.0);
                sum[bin] += row[x];
                ++count[bin];
            }
        }
        double mean = 0;
        double squares = 0;
        int used = 0;
        for (size_t b = 0; b < sum.size(); ++b) {
            if (count[b] > 0) {
                const double m = sum[b] / count[b];
                mean += m;
                squares += m * m;
                ++used;
            }
        }
        if (used > 1) {
            mean /= used;
            const double score = squares / used - mean * mean;
            if (score > bestScore) {
                bestScore = score;
                best = estimate + d;
            }
        }
    }
    return best;
}

} // namespace

const std::vector<AVMetadataObjectType>& MachineCodeReader::supportedTypes() {
    static const std::vector<AVMetadataObjectType> types = [] {
        std::vector<AVMetadataObjectType> t;
        for (const auto& tf : typeFormats()) {
            t.push_back(*tf.type);
        }
        return t;
    }();
    return types;
}

MachineCodeReader::MachineCodeReader(const std::vector<AVMetadataObjectType>& types, Mode mode) : _mode(mode) {
    for (const auto& type : types) {
        for (const auto& tf : typeFormats()) {
            if (*tf.type == type && std::find(_types.begin(), _types.end(), type) == _types.end()) {
                _types.push_back(type);
                _formats |= tf.formats;
            }
        }
    }
}

bool MachineCodeReader::accept(uint32_t format, const std::string& text, AVMetadataObjectType& type) const {
    const auto enabled = [this](const AVMetadataObjectType& t) {
        return std::find(_types.begin(), _types.end(), t) != _types.end();
    };
    if (format == bits(BarcodeFormat::ITF)) {
        // ITF-14 is the 14-digit use of Interleaved 2 of 5.
        if (text.size() == 14 && enabled(AVMetadataObjectTypeITF14Code)) {
            type = AVMetadataObjectTypeITF14Code;
            return true;
        }
        type = AVMetadataObjectTypeInterleaved2of5Code;
        return enabled(type);
    }
    for (const auto& tf : typeFormats()) {
        if ((tf.formats & format) != 0 && enabled(*tf.type)) {
            type = *tf.type;
            return true;
        }
    }
    return false;
}

std::vector<MachineCode> MachineCodeReader::readWithLibrary(const LumaImage& image, uint32_t formats, bool tryRotate,
                                                            bool tryHarder, bool downscale) const {
    return readWithLibrary(image, CGRectMake(0, 0, image.width, image.height), formats, tryRotate, tryHarder,
                           downscale);
}

std::vector<MachineCode> MachineCodeReader::readWithLibrary(const LumaImage& image, CGRect area, uint32_t formats,
                                                            bool tryRotate, bool tryHarder, bool downscale) const {
    std::vector<MachineCode> codes;
    // The whole pixels of the area within the picture; the library reads them in place.
    const int x0 = std::clamp(static_cast<int>(std::floor(area.origin.x)), 0, image.width);
    const int y0 = std::clamp(static_cast<int>(std::floor(area.origin.y)), 0, image.height);
    const int x1 = std::clamp(static_cast<int>(std::ceil(area.origin.x + area.size.width)), x0, image.width);
    const int y1 = std::clamp(static_cast<int>(std::ceil(area.origin.y + area.size.height)), y0, image.height);
    if (image.empty() || formats == 0 || x1 <= x0 || y1 <= y0) {
        return codes;
    }
    ZXing::DecodeHints hints;
    hints.setFormats(static_cast<BarcodeFormat>(formats));
    hints.setTryRotate(tryRotate);
    hints.setTryHarder(tryHarder);
    hints.setTryDownscale(downscale);
    const ZXing::ImageView view(image.row(y0) + x0, x1 - x0, y1 - y0, ZXing::ImageFormat::Lum, image.width);
    for (const ZXing::Result& r : ZXing::ReadBarcodes(view, hints)) {
        if (!r.isValid()) {
            continue;
        }
        MachineCode code;
        std::string text = ZXing::TextUtfEncoding::ToUtf8(r.text());
        const uint32_t format = bits(r.format());
        if (format == bits(BarcodeFormat::UPCA)) {
            text = "0" + text;
        }
        if (!accept(format, text, code.type)) {
            continue;
        }
        // Control characters (the separators of an ID card's data) make the library call a content binary; it
        // is text all the same unless it holds bytes that are no text at all.
        const auto& raw = r.bytes();
        const bool binary = r.contentType() == ZXing::ContentType::Binary &&
                            std::any_of(raw.begin(), raw.end(), [](uint8_t b) { return b == 0 || b >= 0x80; });
        if (!binary) {
            code.text = std::move(text);
        }
        // The library's position runs top-left, top-right, bottom-right, bottom-left of the symbol.
        const auto& q = r.position();
        const auto pt = [x0, y0](const ZXing::PointI& p) {
            return CGPointMake(static_cast<double>(p.x + x0), static_cast<double>(p.y + y0));
        };
        code.corners = {pt(q.bottomLeft()), pt(q.bottomRight()), pt(q.topRight()), pt(q.topLeft())};
        codes.push_back(std::move(code));
    }
    return codes;
}

std::vector<MachineCodeReader::Candidate> MachineCodeReader::findCandidates(const LumaImage& image, size_t maxCount,
                                                                            const std::vector<CGRect>& excluded) {
    std::vector<Candidate> out;
    if (image.width < 3 * kCell || image.height < 3 * kCell) {
        return out;
    }
    const int cols = image.width / kCell;
    const int rows = image.height / kCell;
    struct Cell {
        double c4 = 0, s4 = 0, weight = 0;
        int edges = 0, samples = 0;
        bool textured = false;
    };
    std::vector<Cell> cells(static_cast<size_t>(cols) * static_cast<size_t>(rows));
    // Gradients at every second pixel of every second row: fine modules still give full-strength edges.
    for (int y = 1; y < rows * kCell - 1; y += 2) {
        const uint8_t* up = image.row(y - 1);
        const uint8_t* mid = image.row(y);
        const uint8_t* down = image.row(y + 1);
        Cell* cellRow = &cells[static_cast<size_t>(y / kCell) * static_cast<size_t>(cols)];
        for (int cx = 0; cx < cols; ++cx) {
            Cell& cell = cellRow[cx];
            const int xEnd = std::min((cx + 1) * kCell, cols * kCell - 1);
            for (int x = cx * kCell + 1; x < xEnd; x += 2) {
                ++cell.samples;
                const int gx = mid[x + 1] - mid[x - 1];
                const int gy = down[x] - up[x];
                if (std::abs(gx) + std::abs(gy) < kEdgeThreshold) {
                    continue;
                }
                ++cell.edges;
                // Doubling the angle twice makes directions 90 degrees apart agree (a code's two edge families):
                // with c2 = (gx^2 - gy^2) / m^2 and s2 = 2 gx gy / m^2, the cell sums m (c2^2 - s2^2) and
                // m (2 c2 s2), here with one division.
                const double xx = gx * gx;
                const double yy = gy * gy;
                const double m2 = xx + yy;
                const double m = std::sqrt(m2);
                const double k = 1.0 / (m2 * m);
                const double d = xx - yy;
                const double p = 2.0 * gx * gy;
                cell.c4 += (d * d - p * p) * k;
                cell.s4 += 2.0 * d * p * k;
                cell.weight += m;
            }
        }
    }
    for (size_t i = 0; i < cells.size(); ++i) {
        Cell& c = cells[i];
        c.textured = c.samples > 0 && c.edges >= kCellEdgeShare * c.samples && c.weight > 0 &&
                     std::hypot(c.c4, c.s4) >= kCellCoherence * c.weight;
        const double cx = (static_cast<double>(i % static_cast<size_t>(cols)) + 0.5) * kCell;
        const double cy = (static_cast<double>(i / static_cast<size_t>(cols)) + 0.5) * kCell;
        for (const CGRect& r : excluded) {
            if (cx >= r.origin.x - kCell && cx <= r.origin.x + r.size.width + kCell && cy >= r.origin.y - kCell &&
                cy <= r.origin.y + r.size.height + kCell) {
                c.textured = false;
            }
        }
    }
    // Regions: 8-connected textured cells, bridging single-cell gaps (quiet rows inside a code).
    std::vector<int> label(cells.size(), -1);
    struct Region {
        int x0, y0, x1, y1;
        size_t count = 0;
        double c4 = 0, s4 = 0;
        int id = 0;
    };
    std::vector<Region> regions;
    std::vector<int> stack;
    for (int cy = 0; cy < rows; ++cy) {
        for (int cx = 0; cx < cols; ++cx) {
            const size_t i = static_cast<size_t>(cy) * static_cast<size_t>(cols) + static_cast<size_t>(cx);
            if (!cells[i].textured || label[i] >= 0) {
                continue;
            }
            Region reg{cx, cy, cx, cy};
            const int id = static_cast<int>(regions.size());
            reg.id = id;
            label[i] = id;
            stack.assign(1, static_cast<int>(i));
            while (!stack.empty()) {
                const int j = stack.back();
                stack.pop_back();
                const int jx = j % cols;
                const int jy = j / cols;
                reg.x0 = std::min(reg.x0, jx);
                reg.x1 = std::max(reg.x1, jx);
                reg.y0 = std::min(reg.y0, jy);
                reg.y1 = std::max(reg.y1, jy);
                ++reg.count;
                reg.c4 += cells[static_cast<size_t>(j)].c4;
                reg.s4 += cells[static_cast<size_t>(j)].s4;
                for (int dy = -2; dy <= 2; ++dy) {
                    for (int dx = -2; dx <= 2; ++dx) {
                        const int nx = jx + dx;
                        const int ny = jy + dy;
                        if (nx < 0 || ny < 0 || nx >= cols || ny >= rows) {
                            continue;
                        }
                        const size_t k = static_cast<size_t>(ny) * static_cast<size_t>(cols) + static_cast<size_t>(nx);
                        if (cells[k].textured && label[k] < 0) {
                            label[k] = id;
                            stack.push_back(static_cast<int>(k));
                        }
                    }
                }
            }
            regions.push_back(reg);
        }
    }
    std::sort(regions.begin(), regions.end(), [](const Region& a, const Region& b) { return a.count > b.count; });
    for (const Region& r : regions) {
        if (out.size() >= maxCount || r.count < kMinCandidateCells) {
            break;
        }
        Candidate c;
        c.box = CGRectMake(r.x0 * kCell, r.y0 * kCell, (r.x1 - r.x0 + 1) * kCell, (r.y1 - r.y0 + 1) * kCell);
        c.skewDegrees = 0.25 * std::atan2(r.s4, r.c4) * 180.0 / std::numbers::pi;
        // The region's extent along its own axes: an upright crop of that needs no empty corners.
        const double a = c.skewDegrees * std::numbers::pi / 180.0;
        const double ca = std::cos(a);
        const double sa = std::sin(a);
        double u0 = 1e18, u1 = -1e18, v0 = 1e18, v1 = -1e18;
        for (int cy = r.y0; cy <= r.y1; ++cy) {
            for (int cx = r.x0; cx <= r.x1; ++cx) {
                if (label[static_cast<size_t>(cy) * static_cast<size_t>(cols) + static_cast<size_t>(cx)] != r.id) {
                    continue;
                }
                const double px = (cx + 0.5) * kCell;
                const double py = (cy + 0.5) * kCell;
                const double u = px * ca + py * sa;
                const double v = -px * sa + py * ca;
                u0 = std::min(u0, u);
                u1 = std::max(u1, u);
                v0 = std::min(v0, v);
                v1 = std::max(v1, v);
            }
        }
        const double uc = (u0 + u1) / 2;
        const double vc = (v0 + v1) / 2;
        c.centre = {uc * ca - vc * sa, uc * sa + vc * ca};
        c.uprightWidth = u1 - u0 + kCell;
        c.uprightHeight = v1 - v0 + kCell;
        out.push_back(c);
    }
    return out;
}

bool MachineCodeReader::secondLookAt(const LumaImage& image, const Candidate& cand, double skewDegrees, double w,
                                     double h, uint32_t formats, std::vector<MachineCode>& codes, bool& outlines,
                                     int rowStep) const {
    outlines = false;
    // w x h is the region's upright extent at its measured skew; a slightly different angle needs a little more.
    const double d = (skewDegrees - cand.skewDegrees) * std::numbers::pi / 180.0;
    const double uprightW = w * std::abs(std::cos(d)) + h * std::abs(std::sin(d));
    const double uprightH = w * std::abs(std::sin(d)) + h * std::abs(std::cos(d));
    RotatedCrop crop;
    crop.centre = cand.centre;
    crop.angle = skewDegrees * std::numbers::pi / 180.0;
    crop.scale = std::min(kCropEnlargement, kMaxCropSide / std::max(uprightW, uprightH));
    if (std::abs(skewDegrees) < kSkewWorthRetry && crop.scale <= 1.0) {
        return false;
    }
    crop.width = static_cast<int>(uprightW * crop.scale);
    crop.height = static_cast<int>(uprightH * crop.scale);
    const LumaImage sampled = sampleRows(crop, image, rowStep);
    std::optional<std::array<CGPoint, 4>> outline;
    bool outlined = false;
    for (MachineCode& c : readWithLibrary(sampled, formats, true, false, false)) {
        for (CGPoint& p : c.corners) {
            p = fromCrop(crop, p, rowStep);
        }
        // The library's PDF417 corners may put the right-hand ones anywhere; the start and stop patterns do not.
        if (c.type == AVMetadataObjectTypePDF417Code) {
            if (!outlined) {
                const CGPoint down{c.corners[0].x - c.corners[3].x, c.corners[0].y - c.corners[3].y};
                outline = outlineInCrop(image, crop, sampled, down, true, rowStep);
                outlined = true;
            }
            if (outline && containsPoint(*outline, centreOf(c.corners))) {
                c.corners = *outline;
                outlines = true;
            }
        }
        if (isPlausibleCodeOutline(c.corners)) {
            codes.push_back(std::move(c));
        }
    }
    return !codes.empty();
}

void MachineCodeReader::outlineCodes(const LumaImage& image, std::vector<MachineCode>& codes) const {
    std::vector<Candidate> candidates;
    bool searched = false;
    std::vector<MachineCode> kept;
    for (MachineCode& c : codes) {
        if (c.type == AVMetadataObjectTypePDF417Code) {
            if (!searched) {
                candidates = findCandidates(image, 2 * kMaxCandidates);
                searched = true;
            }
            const CGPoint centre = centreOf(c.corners);
            const auto region = std::find_if(candidates.begin(), candidates.end(), [&](const Candidate& cand) {
                return CGRectContainsPoint(cand.box, centre);
            });
            RotatedCrop crop;
            double w = 0;
            double h = 0;
            if (region != candidates.end()) {
                const double margin = 0.1 * std::max(region->uprightWidth, region->uprightHeight) + kCell;
                w = region->uprightWidth + 2 * margin;
                h = region->uprightHeight + 2 * margin;
                crop.centre = region->centre;
                crop.angle = sharpestSkew(image, region->centre, region->uprightWidth, region->uprightHeight,
                                          region->skewDegrees) *
                             std::numbers::pi / 180.0;
            } else {
                // No region around it (a picture holding little more than the code): the code's own corners give
                // the place and the skew, its left side at least being right.
                const CGRect box = boundingRectOfPoints(c.corners);
                w = h = 1.6 * std::max(box.size.width, box.size.height) + 2 * kCell;
                crop.centre = centre;
                const double up = std::atan2(c.corners[3].y - c.corners[0].y, c.corners[3].x - c.corners[0].x);
                const double quarter = std::numbers::pi / 2;
                crop.angle = up + quarter - quarter * std::round((up + quarter) / quarter);
            }
            crop.scale = std::min(kCropEnlargement, kMaxCropSide / std::max(w, h));
            crop.width = static_cast<int>(w * crop.scale);
            crop.height = static_cast<int>(h * crop.scale);
            // The code's downward direction: its left side, top to bottom.
            const CGPoint down{c.corners[0].x - c.corners[3].x, c.corners[0].y - c.corners[3].y};
            const auto outline = outlineInCrop(image, crop, crop.sample(image), down);
            if (outline && containsPoint(*outline, centre)) {
                c.corners = *outline;
            }
        }
        // Linear codes are found along a line and have no outline to judge.
        const bool area = c.type == AVMetadataObjectTypePDF417Code || c.type == AVMetadataObjectTypeQRCode;
        if (!area || isPlausibleCodeOutline(c.corners)) {
            kept.push_back(std::move(c));
        }
    }
    codes = std::move(kept);
}

std::vector<MachineCode> MachineCodeReader::read(const LumaImage& image) const {
    std::vector<MachineCode> codes;
    if (image.empty() || _formats == 0) {
        return codes;
    }
    try {
        // PDF417 over the whole frame is slow and misses tilted or fine codes anyway: PDF417 codes are read from
        // the candidate regions only. Linear codes are read in both directions.
        const uint32_t pdf417 = bits(BarcodeFormat::PDF417);
        const uint32_t firstLook = _formats & ~pdf417;
        const bool linear = (_formats & bits(BarcodeFormat::LinearCodes)) != 0;
        // A single picture is read as the plain library reads it (all enabled formats, trying harder), and so is
        // every kFullReadEvery-th frame, without trying harder. Otherwise codes the first look read in the previous picture are looked for around
        // where they were; the whole picture is read in every kWholeLookEvery-th picture, and whenever one of them
        // is not found again.
        const bool full = _mode == Mode::Picture || ++_picturesSinceFullRead >= kFullReadEvery;
        bool whole = !full && (_looked.empty() || ++_picturesSinceWholeLook >= kWholeLookEvery);
        if (full) {
            codes = readWithLibrary(image, _formats, true, _mode == Mode::Picture);
            outlineCodes(image, codes);
            _picturesSinceFullRead = 0;
            _picturesSinceWholeLook = 0;
        } else if (!whole) {
            for (const CGRect& box : _looked) {
                const double grow = kLookAroundFactor * std::max(box.size.width, box.size.height) + kCell;
                auto found = readWithLibrary(image, CGRectInset(box, -grow, -grow), firstLook, linear);
                if (found.empty()) {
                    whole = true;
                    break;
                }
                for (MachineCode& c : found) {
                    const CGRect b = boundingRectOfPoints(c.corners);
                    const bool duplicate = std::any_of(codes.begin(), codes.end(), [&](const MachineCode& k) {
                        return k.type == c.type && k.text == c.text && rectsOverlap(boundingRectOfPoints(k.corners), b);
                    });
                    if (!duplicate) {
                        codes.push_back(std::move(c));
                    }
                }
            }
        }
        if (whole) {
            codes = readWithLibrary(image, firstLook, linear, false, false);
            _picturesSinceWholeLook = 0;
        }
        if (!full) {
            outlineCodes(image, codes);
        }
        // PDF417 codes are followed by the second look, which finds them again at their region.
        _looked.clear();
        for (const MachineCode& c : codes) {
            if (c.type != AVMetadataObjectTypePDF417Code) {
                _looked.push_back(boundingRectOfPoints(c.corners));
            }
        }
        const uint32_t secondLook = _formats & kSecondLookFormats;
        int readsLeft = kMaxSecondLookReads;
        std::vector<Hint> hints;
        std::vector<Rest> resting;
        for (Rest r : _resting) {
            if (--r.pictures > 0) {
                resting.push_back(r);
            }
        }
        if (secondLook != 0) {
            // Codes the first look read need no second one.
            std::vector<CGRect> known;
            for (const MachineCode& c : codes) {
                known.push_back(boundingRectOfPoints(c.corners));
            }
            for (const Candidate& cand : findCandidates(image, kMaxCandidates, known)) {
                // A region that no angle read in the last pictures rests, unless a code was read there last time.
                const bool hinted = std::any_of(_hints.begin(), _hints.end(),
                                                [&](const Hint& hint) { return samePlace(hint.box, cand.box); });
                if (!hinted && std::any_of(_resting.begin(), _resting.end(), [&](const Rest& r) {
                        return r.pictures > 1 && intersectionOverUnion(r.box, cand.box) >= kSameRegionOverlap;
                    })) {
                    continue;
                }
                const double margin = 0.1 * std::max(cand.uprightWidth, cand.uprightHeight) + kCell;
                const double w = cand.uprightWidth + 2 * margin;
                const double h = cand.uprightHeight + 2 * margin;
                // Fine modules bias the skew measure by a few degrees; neighbouring angles are tried next. A code
                // read here in the previous frame is tried first at the angle it had then.
                // Such a code is looked for in its own format only: a PDF417 crop costs a QR search as much again.
                std::vector<Hint> angles;
                for (const Hint& hint : _hints) {
                    if (samePlace(hint.box, cand.box) &&
                        std::abs(hint.skewDegrees - cand.skewDegrees) <= kHintSkewTolerance) {
                        angles.push_back(hint);
                    }
                }
                // look is the region the crop shows (the candidate, or a code's own extent at its own angle) and
                // lw x lh its size with the margin.
                const auto attempt = [&](double tried, uint32_t formats, int rowStep = 1,
                                         const Candidate* tight = nullptr) {
                    const Candidate& look = tight != nullptr ? *tight : cand;
                    const double lm = 0.1 * std::max(look.uprightWidth, look.uprightHeight) + kCell;
                    const double lw = tight != nullptr ? look.uprightWidth + 2 * lm : w;
                    const double lh = tight != nullptr ? look.uprightHeight + 2 * lm : h;
                    std::vector<MachineCode> found;
                    bool outlined = false;
                    if (!secondLookAt(image, look, tried, lw, lh, formats, found, outlined, rowStep)) {
                        return false;
                    }
                    // The library's corners drift when the crop is still skewed, and now and then it reports a
                    // skewed code's far corners at the wrong end; a crop turned by the code's own measured angle
                    // gives exact ones. The next picture starts from the code's own angle.
                    // The angle of the code's bottom edge, or of its left edge when the far corners are off.
                    const auto angleOf = [](const MachineCode& code, double near) {
                        const auto& c = code.corners;
                        const bool square = isNearRectangle(c);
                        const CGPoint from = c[0];
                        const CGPoint to = square ? c[1] : c[3];
                        double a = std::atan2(to.y - from.y, to.x - from.x) * 180.0 / std::numbers::pi;
                        a += square ? 0.0 : 90.0;
                        return a - 90.0 * std::round((a - near) / 90.0);
                    };
                    const double measured = angleOf(found.front(), tried);
                    // Corners from the start and stop patterns are exact at any angle.
                    if (!outlined && (std::abs(measured - tried) > kSkewRefineThreshold ||
                                      !isNearRectangle(found.front().corners))) {
                        std::vector<MachineCode> refined;
                        bool refinedOutlines = false;
                        if (secondLookAt(image, look, measured, lw, lh, formats, refined, refinedOutlines, rowStep) &&
                            isNearRectangle(refined.front().corners)) {
                            found = std::move(refined);
                        }
                    }
                    // A crop that only shows again a code read already (a neighbour within the margin) reads
                    // nothing new: the region's own code is looked for further.
                    size_t added = 0;
                    uint32_t addedFormats = 0;
                    for (MachineCode& c : found) {
                        const CGRect b = boundingRectOfPoints(c.corners);
                        const bool duplicate = std::any_of(codes.begin(), codes.end(), [&](const MachineCode& k) {
                            return k.type == c.type && k.text == c.text &&
                                   rectsOverlap(boundingRectOfPoints(k.corners), b);
                        });
                        if (!duplicate) {
                            addedFormats |= formatsOf(c.type);
                            codes.push_back(std::move(c));
                            ++added;
                        }
                    }
                    if (added > 0) {
                        const auto& c = codes.back().corners;
                        hints.push_back({cand.box, measured, addedFormats & secondLook,
                                         std::hypot(c[1].x - c[0].x, c[1].y - c[0].y),
                                         std::hypot(c[3].x - c[0].x, c[3].y - c[0].y)});
                    }
                    return added > 0;
                };
                // The skew is sharpened only when the previous frame's angles do not read.
                // A PDF417 code followed from the previous frame is read at half its rows first.
                // When the region is about the code's size, the crop is the code's own extent at its own angle
                // (the region's, at its biased skew, holds more).
                bool read = false;
                for (const Hint& hint : angles) {
                    const bool halve = hint.formats == pdf417 && cand.uprightHeight >= kMinHalvedHeight;
                    Candidate own = cand;
                    own.skewDegrees = hint.skewDegrees;
                    own.uprightWidth = hint.width;
                    own.uprightHeight = hint.height;
                    const bool fits = std::max(cand.uprightWidth, cand.uprightHeight) <=
                                      kCodeSizedRegion * std::max(hint.width, hint.height) + 2 * kCell;
                    if (halve && readsLeft > 1) {
                        --readsLeft;
                        if ((read = attempt(hint.skewDegrees, hint.formats, 2, fits ? &own : nullptr))) {
                            break;
                        }
                    }
                    if (readsLeft-- <= 0 || (read = attempt(hint.skewDegrees, hint.formats))) {
                        break;
                    }
                }
                if (!read && readsLeft > 0) {
                    const double skew =
                        sharpestSkew(image, cand.centre, cand.uprightWidth, cand.uprightHeight, cand.skewDegrees);
                    const auto back = std::find_if(_resting.begin(), _resting.end(), [&](const Rest& r) {
                        return r.pictures == 1 && intersectionOverUnion(r.box, cand.box) >= kSameRegionOverlap;
                    });
                    const int strikes = back == _resting.end() ? 0 : back->strikes;
                    // A small region is tried at its measured skew only: a few degrees off shift its rows by little.
                    const bool small = std::max(cand.uprightWidth, cand.uprightHeight) < kSmallRegionSide;
                    constexpr size_t kOffsets = std::size(kSkewRetryOffsets);
                    bool tried = false;
                    for (size_t i = 0; i < (strikes == 0 && !small ? kOffsets : 1); ++i) {
                        if (readsLeft-- <= 0) {
                            break;
                        }
                        tried = true;
                        const size_t which = strikes == 0 ? i : static_cast<size_t>(strikes - 1) % kOffsets;
                        if ((read = attempt(skew + kSkewRetryOffsets[which], secondLook))) {
                            break;
                        }
                    }
                    if (tried && !read) {
                        resting.push_back({cand.box, strikes == 0 ? kFailedRegionRest : kLongRest, strikes + 1});
                    }
                }
            }
        }
        _hints = std::move(hints);
        _resting = std::move(resting);
    } catch (...) {
        // The library reports allocation failures by exception; the frame then yields no codes.
        codes.clear();
        _hints.clear();
        _resting.clear();
        _looked.clear();
    }
    std::sort(codes.begin(), codes.end(), [](const MachineCode& a, const MachineCode& b) {
        const CGRect ra = boundingRectOfPoints(a.corners);
        const CGRect rb = boundingRectOfPoints(b.corners);
        return std::pair(ra.origin.y, ra.origin.x) < std::pair(rb.origin.y, rb.origin.x);
    });
    return codes;
}

} // namespace kp
