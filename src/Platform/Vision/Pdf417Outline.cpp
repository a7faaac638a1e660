// SPDX-License-Identifier: MIT
// The outline of a PDF417 symbol from its start and stop patterns, and the plausibility of a code's corners.
#include "Platform/Vision/Pdf417Outline.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace kp {

namespace {

// Bar and space widths in modules, dark first: every row of a symbol begins with the start pattern and ends with
// the stop pattern, and no codeword holds a bar of more than six modules.
constexpr int kStartPattern[] = {8, 1, 1, 1, 1, 1, 1, 3};
constexpr int kStopPattern[] = {7, 1, 1, 3, 1, 1, 1, 2, 1};
// Every second line is scanned: a row of modules is at least three lines high at the sizes that read.
constexpr int kLineStep = 2;
// A pattern matches when each run is within this many modules of its width and all together within this share
// of the pattern's length.
constexpr double kRunTolerance = 0.8;
constexpr double kPatternTolerance = 0.25;
// Each edge needs at least this many lines with its pattern on the fitted line.
constexpr size_t kMinLines = 4;
// Opposite sides of a plausible outline differ in length by less than this factor.
constexpr double kMaxSideRatio = 2.0;

struct Run {
    double begin;
    double end;
    bool dark;
};

// One pattern found on one line: where along the line its outer edge is, and its module width.
struct Hit {
    double line;
    double pos;
    double module;
};

// The runs of dark and light along a line, split at a threshold that follows the line's local mean brightness;
// run boundaries interpolated between samples (sample i covers [i, i + 1)).
void runsOf(const std::vector<uint8_t>& v, std::vector<int>& prefix, std::vector<Run>& runs) {
    runs.clear();
    const int n = static_cast<int>(v.size());
    if (n < 2) {
        return;
    }
    prefix.assign(static_cast<size_t>(n) + 1, 0);
    for (int i = 0; i < n; ++i) {
        prefix[static_cast<size_t>(i) + 1] = prefix[static_cast<size_t>(i)] + v[static_cast<size_t>(i)];
    }
    const int radius = std::max(16, n / 12);
    const auto threshold = [&](int i) {
        const int a = std::max(0, i - radius);
        const int b = std::min(n, i + radius + 1);
        return static_cast<double>(prefix[static_cast<size_t>(b)] - prefix[static_cast<size_t>(a)]) / (b - a);
    };
    double t = threshold(0);
    bool dark = v[0] < t;
    double begin = 0;
    for (int i = 1; i < n; ++i) {
        t = threshold(i);
        const bool d = v[static_cast<size_t>(i)] < t;
        if (d == dark) {
            continue;
        }
        const double a = v[static_cast<size_t>(i) - 1];
        const double b = v[static_cast<size_t>(i)];
        const double f = a != b ? std::clamp((a - t) / (a - b), 0.0, 1.0) : 0.5;
        const double edge = i - 0.5 + f;
        runs.push_back({begin, edge, dark});
        begin = edge;
        dark = d;
    }
    runs.push_back({begin, static_cast<double>(n), dark});
}

// The module width when runs[k...] (dark first) match the pattern; 0 otherwise.
template <size_t N> double matches(const std::vector<Run>& runs, size_t k, const int (&pattern)[N]) {
    if (k + N > runs.size() || !runs[k].dark) {
        return 0;
    }
    int modules = 0;
    for (int p : pattern) {
        modules += p;
    }
    const double total = runs[k + N - 1].end - runs[k].begin;
    const double m = total / modules;
    if (m < 0.8) {
        return 0;
    }
    double off = 0;
    for (size_t i = 0; i < N; ++i) {
        const double d = std::abs(runs[k + i].end - runs[k + i].begin - pattern[i] * m);
        if (d > kRunTolerance * m) {
            return 0;
        }
        off += d;
    }
    return off <= kPatternTolerance * total ? m : 0;
}

// The start pattern nearest the line's beginning (its outer edge) and the stop pattern nearest its end.
void scanLine(const std::vector<Run>& runs, double line, std::vector<Hit>& starts, std::vector<Hit>& stops) {
    for (size_t k = 0; k < runs.size(); ++k) {
        if (const double m = matches(runs, k, kStartPattern); m > 0) {
            starts.push_back({line, runs[k].begin, m});
            break;
        }
    }
    for (size_t k = runs.size(); k-- > 0;) {
        if (const double m = matches(runs, k, kStopPattern); m > 0) {
            stops.push_back({line, runs[k + std::size(kStopPattern) - 1].end, m});
            break;
        }
    }
}

// An edge: pos = a + b * line over the lines [first, last] where its pattern was found.
struct Edge {
    double a = 0;
    double b = 0;
    double first = 0;
    double last = 0;
    size_t count = 0;
    double at(double line) const { return a + b * line; }
};

// Fits a line through the hits, dropping outliers twice, and keeps the largest run of lines without a long gap.
std::optional<Edge> fitEdge(std::vector<Hit> hits) {
    if (hits.size() < kMinLines) {
        return std::nullopt;
    }
    std::vector<double> modules;
    for (const Hit& h : hits) {
        modules.push_back(h.module);
    }
    std::nth_element(modules.begin(), modules.begin() + static_cast<std::ptrdiff_t>(modules.size() / 2),
                     modules.end());
    const double module = modules[modules.size() / 2];
    // A robust first line (the median slope of pairs half the hits apart, then the median offset) that stray
    // matches cannot pull, then least-squares fits that drop what lies off the line.
    const auto median = [](std::vector<double>& v) {
        std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2), v.end());
        return v[v.size() / 2];
    };
    Edge e;
    std::vector<double> values;
    const size_t half = hits.size() / 2;
    for (size_t i = 0; i + half < hits.size(); ++i) {
        const double dl = hits[i + half].line - hits[i].line;
        if (dl > 0) {
            values.push_back((hits[i + half].pos - hits[i].pos) / dl);
        }
    }
    e.b = values.empty() ? 0.0 : median(values);
    values.clear();
    for (const Hit& h : hits) {
        values.push_back(h.pos - e.b * h.line);
    }
    e.a = median(values);
    const double tolerance = std::max(2.0, 1.5 * module);
    for (int pass = 0; pass < 2; ++pass) {
        std::vector<Hit> kept;
        for (const Hit& h : hits) {
            if (std::abs(h.pos - e.at(h.line)) <= tolerance) {
                kept.push_back(h);
            }
        }
        if (kept.size() < kMinLines) {
            return std::nullopt;
        }
        hits = std::move(kept);
        double sl = 0, sp = 0, sll = 0, slp = 0;
        for (const Hit& h : hits) {
            sl += h.line;
            sp += h.pos;
            sll += h.line * h.line;
            slp += h.line * h.pos;
        }
        const double n = static_cast<double>(hits.size());
        const double det = n * sll - sl * sl;
        e.b = det > 1e-9 ? (n * slp - sl * sp) / det : 0.0;
        e.a = (sp - e.b * sl) / n;
    }
    // Hits are in line order; a gap of more than a few rows of modules separates the symbol from stray matches.
    const double maxGap = std::max(4.0 * kLineStep, 9.0 * module);
    size_t bestBegin = 0, bestEnd = 0;
    for (size_t begin = 0; begin < hits.size();) {
        size_t end = begin + 1;
        while (end < hits.size() && hits[end].line - hits[end - 1].line <= maxGap) {
            ++end;
        }
        if (end - begin > bestEnd - bestBegin) {
            bestBegin = begin;
            bestEnd = end;
        }
        begin = end;
    }
    if (bestEnd - bestBegin < kMinLines) {
        return std::nullopt;
    }
    e.first = hits[bestBegin].line - 0.5 * kLineStep;
    e.last = hits[bestEnd - 1].line + 0.5 * kLineStep;
    e.count = bestEnd - bestBegin;
    return e;
}

double cross(CGPoint o, CGPoint a, CGPoint b) {
    return (a.x - o.x) * (b.y - o.y) - (a.y - o.y) * (b.x - o.x);
}

} // namespace

bool isPlausibleCodeOutline(const std::array<CGPoint, 4>& c, double minSide) {
    for (size_t i = 0; i < 4; ++i) {
        if (!std::isfinite(c[i].x) || !std::isfinite(c[i].y)) {
            return false;
        }
        for (size_t j = i + 1; j < 4; ++j) {
            if (std::hypot(c[i].x - c[j].x, c[i].y - c[j].y) < minSide) {
                return false;
            }
        }
    }
    // Bottom-left, bottom-right, top-right, top-left turn the same way at every corner (convex, sides not crossing)
    // and that way is an upright code's (counter-clockwise as seen, y down).
    for (size_t i = 0; i < 4; ++i) {
        if (cross(c[i], c[(i + 1) % 4], c[(i + 2) % 4]) >= 0) {
            return false;
        }
    }
    const auto length = [&](size_t i) {
        return std::hypot(c[(i + 1) % 4].x - c[i].x, c[(i + 1) % 4].y - c[i].y);
    };
    for (size_t i = 0; i < 2; ++i) {
        const double a = length(i);
        const double b = length(i + 2);
        if (a > kMaxSideRatio * b || b > kMaxSideRatio * a) {
            return false;
        }
    }
    return true;
}

namespace {

// The outline at quarter turns whose bit is set in turns: 0 upright (rows of modules along the picture's rows, read
// left to right), 1 turned a quarter clockwise, 2 upside down, 3 a quarter counter-clockwise.
std::optional<std::array<CGPoint, 4>> outlineAt(const LumaImage& image, unsigned turns) {
    const int w = image.width;
    const int h = image.height;
    // Hits per quarter turn; lines are numbered along the symbol's downward direction.
    std::vector<Hit> starts[4];
    std::vector<Hit> stops[4];
    std::vector<uint8_t> line;
    std::vector<int> prefix;
    std::vector<Run> runs;
    if ((turns & 0b0101) != 0) {
        for (int y = 0; y < h; y += kLineStep) {
            line.assign(image.row(y), image.row(y) + w);
            if ((turns & 0b0001) != 0) {
                runsOf(line, prefix, runs);
                scanLine(runs, y + 0.5, starts[0], stops[0]);
            }
            if ((turns & 0b0100) != 0) {
                std::reverse(line.begin(), line.end());
                runsOf(line, prefix, runs);
                scanLine(runs, h - (y + 0.5), starts[2], stops[2]);
            }
        }
    }
    if ((turns & 0b1010) != 0) {
        line.resize(static_cast<size_t>(h));
        for (int x = 0; x < w; x += kLineStep) {
            for (int y = 0; y < h; ++y) {
                line[static_cast<size_t>(y)] = image.row(y)[x];
            }
            if ((turns & 0b0010) != 0) {
                runsOf(line, prefix, runs);
                scanLine(runs, w - (x + 0.5), starts[1], stops[1]);
            }
            if ((turns & 0b1000) != 0) {
                std::reverse(line.begin(), line.end());
                runsOf(line, prefix, runs);
                scanLine(runs, x + 0.5, starts[3], stops[3]);
            }
        }
    }
    // Lines were collected in picture order; the fit wants them in line order.
    for (int q = 0; q < 4; ++q) {
        for (auto* hits : {&starts[q], &stops[q]}) {
            std::sort(hits->begin(), hits->end(), [](const Hit& a, const Hit& b) { return a.line < b.line; });
        }
    }
    std::optional<std::array<CGPoint, 4>> best;
    size_t bestCount = 0;
    for (int q = 0; q < 4; ++q) {
        if (std::min(starts[q].size(), stops[q].size()) <= bestCount) {
            continue;
        }
        const auto left = fitEdge(starts[q]);
        const auto right = fitEdge(stops[q]);
        if (!left || !right) {
            continue;
        }
        // Runs are measured with sample i covering [i, i + 1); the picture's pixel i is centred on i.
        const auto toPicture = [&](double pos, double ln) {
            switch (q) {
            case 0:
                return CGPointMake(pos - 0.5, ln - 0.5);
            case 1:
                return CGPointMake(w - ln - 0.5, pos - 0.5);
            case 2:
                return CGPointMake(w - pos - 0.5, h - ln - 0.5);
            default:
                return CGPointMake(ln - 0.5, h - pos - 0.5);
            }
        };
        const std::array<CGPoint, 4> corners{
            toPicture(left->at(left->last), left->last), toPicture(right->at(right->last), right->last),
            toPicture(right->at(right->first), right->first), toPicture(left->at(left->first), left->first)};
        const double minSide = 8.0 * kLineStep;
        const size_t count = std::min(left->count, right->count);
        if (count > bestCount && isPlausibleCodeOutline(corners, minSide)) {
            best = corners;
            bestCount = count;
        }
    }
    return best;
}

} // namespace

std::optional<std::array<CGPoint, 4>> findPdf417Outline(const LumaImage& image, std::optional<CGPoint> down) {
    if (image.empty() || image.width < 8 || image.height < 8) {
        return std::nullopt;
    }
    unsigned first = 0b1111;
    if (down) {
        // Down is +y upright, -x turned a quarter clockwise, -y upside down, +x a quarter counter-clockwise.
        first = std::abs(down->y) >= std::abs(down->x) ? (down->y >= 0 ? 0b0001 : 0b0100)
                                                       : (down->x <= 0 ? 0b0010 : 0b1000);
    }
    if (auto outline = outlineAt(image, first)) {
        return outline;
    }
    return first != 0b1111 ? outlineAt(image, 0b1111 & ~first) : std::nullopt;
}

} // namespace kp
