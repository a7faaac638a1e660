// SPDX-License-Identifier: MIT
// The code reader of the metadata output: machine-readable codes with their text and upright corner order.
#pragma once

#include "Platform/Vision/LumaImage.h"

#include "KPImage/Platform/AVCaptureTypes.h"
#include "KPImage/Platform/Geometry.h"

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace kp {

/// One code found in a picture.
struct MachineCode {
    AVMetadataObjectType type;
    /// The decoded text; empty when the content is binary.
    std::optional<std::string> text;
    /// Pixel corners (top-left origin): [0] bottom-left, [1] bottom-right, [2] top-right, [3] top-left of the code
    /// as seen upright, whatever its rotation in the picture.
    std::array<CGPoint, 4> corners{};
};

/// Reads the enabled symbologies with ZXing-cpp. PDF417 codes, and QR codes that the library misses on the whole
/// frame, are read from code-like regions: textured regions with aligned edges are located, their skew is measured,
/// and an upright, enlarged crop of each is read (the library loses PDF417 codes tilted by more than a few degrees
/// or printed with fewer than three pixels per module); the corners are mapped back to the frame.
/// A PDF417 code's corners are those of its start and stop patterns; corners that cannot outline a code (two
/// equal, sides crossing, a side far longer than its opposite) are never reported: such a code is read again or
/// left out of that picture.
/// An instance is used by one thread at a time. For video it remembers where the previous pictures' codes were
/// (codes the library read over the whole picture are looked for around their place in the next pictures, the
/// whole picture being read again in every fourth one or when a code is not found again, and in every enabled
/// format in every thirty-second) and where code-like regions held none (those are left alone for a few
/// pictures). A single picture is always read as the plain library does as well, so it never yields less.
class MachineCodeReader {
public:
    /// Video: a sequence of frames of one stream; Picture: every picture read on its own, in full.
    enum class Mode { Video, Picture };

    /// The code types the reader can find, in the order the metadata output offers them.
    static const std::vector<AVMetadataObjectType>& supportedTypes();

    /// A reader for the supported types among types (others are ignored).
    explicit MachineCodeReader(const std::vector<AVMetadataObjectType>& types, Mode mode = Mode::Video);

    /// True when none of the types given is a code type.
    bool empty() const { return _formats == 0; }
    /// The codes in the picture, ordered by the top, then the left edge of their boxes; none on any failure.
    std::vector<MachineCode> read(const LumaImage& image) const;

    /// Where a region looks like a printed code (dense, aligned edges): pixel box, skew in degrees (-45, 45] (the
    /// angle of the region's dominant edge direction, clockwise as seen) and its extent along its own axes.
    struct Candidate {
        CGRect box;
        double skewDegrees = 0;
        /// The region's centre and its extent along its own (skewed) axes, pixels.
        CGPoint centre{};
        double uprightWidth = 0;
        double uprightHeight = 0;
    };
    /// The code-like regions of a picture outside the excluded boxes, largest first (at most maxCount).
    static std::vector<Candidate> findCandidates(const LumaImage& image, size_t maxCount,
                                                 const std::vector<CGRect>& excluded = {});

private:
    // downscale also reads the picture at a third of its size when it is large (as the plain library does; it
    // finds large, blurred codes): the video's look over the whole picture and the crops of the second look skip
    // it, the full reads keep it.
    std::vector<MachineCode> readWithLibrary(const LumaImage& image, uint32_t formats, bool tryRotate,
                                             bool tryHarder = false, bool downscale = true) const;
    // The same for an area of the picture (clipped to it), read in place; corners in picture pixels.
    std::vector<MachineCode> readWithLibrary(const LumaImage& image, CGRect area, uint32_t formats, bool tryRotate,
                                             bool tryHarder = false, bool downscale = true) const;
    // Gives the PDF417 codes read over the whole picture the corners of their outline, and leaves out codes whose
    // corners stay implausible.
    void outlineCodes(const LumaImage& image, std::vector<MachineCode>& codes) const;
    // Reads an upright, enlarged crop of the candidate turned by skewDegrees into codes (source pixel corners);
    // true if any was read. outlines tells whether a PDF417 code's corners came from its start and stop patterns.
    // rowStep 2 reads the crop at half its rows, each sampled between two (a PDF417 code's rows are three modules
    // high: half the rows read as well, at half the cost).
    bool secondLookAt(const LumaImage& image, const Candidate& cand, double skewDegrees, double w, double h,
                      uint32_t formats, std::vector<MachineCode>& codes, bool& outlines, int rowStep = 1) const;
    bool accept(uint32_t format, const std::string& text, AVMetadataObjectType& type) const;

    // Where the previous picture's second look read a code, at which skew and in which formats: the next picture
    // tries that first.
    struct Hint {
        CGRect box;
        double skewDegrees;
        uint32_t formats;
        // The code's extent along its own axes, pixels.
        double width = 0;
        double height = 0;
    };
    mutable std::vector<Hint> _hints;
    // Where no angle read a code, for how many more pictures that region is left alone, and how many times in a
    // row it was tried in vain.
    struct Rest {
        CGRect box;
        int pictures;
        int strikes = 1;
    };
    mutable std::vector<Rest> _resting;
    // Where the first look (the library over the picture) read codes in the previous picture, and how many pictures
    // ago it last read the whole picture.
    mutable std::vector<CGRect> _looked;
    mutable int _picturesSinceWholeLook = 0;
    mutable int _picturesSinceFullRead = 0;
    Mode _mode;
    uint32_t _formats = 0; // ZXing::BarcodeFormat bits
    std::vector<AVMetadataObjectType> _types;
};

} // namespace kp
