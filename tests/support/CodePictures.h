// SPDX-License-Identifier: MIT
// Pictures of machine-readable codes at known places, turns, module sizes, blur and noise, with their true corners.
#pragma once

#include "Platform/Vision/LumaImage.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace kptest {

/// Where and how a code is printed into a picture.
struct CodePlacement {
    double centreX = 0; ///< pixels
    double centreY = 0;
    double angleDegrees = 0; ///< the code turned clockwise as seen
    double moduleSize = 3;   ///< pixels per module (PDF417 rows are three modules high)
    double blurSigma = 0;    ///< Gaussian-like blur, pixels (in steps of about 0.7)
    double noise = 0;        ///< standard deviation of the noise added around the code, grey levels
    uint32_t seed = 1;
    int columns = 0; ///< PDF417 data columns; 0 lets the writer choose
};

/// Which code to print.
enum class CodeKind { PDF417, QR, DataMatrix, Aztec, Code128, EAN13 };

/// A picture with one code and the code's true corners, [0] bottom-left, [1] bottom-right, [2] top-right,
/// [3] top-left of the code as seen upright, in pixels.
struct CodePicture {
    kp::LumaImage image;
    std::array<kp::CGPoint, 4> corners{};
};

/// Prints the code of text on a mid-grey background with a white quiet zone; an empty picture when the writer
/// cannot encode the text.
CodePicture renderCode(CodeKind kind, const std::string& text, int width, int height, const CodePlacement& placement);

/// Prints the code into an existing picture (for several codes in one picture); returns the true corners.
std::array<kp::CGPoint, 4> printCode(kp::LumaImage& image, CodeKind kind, const std::string& text,
                                     const CodePlacement& placement);

/// A long text like a driving licence's PDF417 content.
const std::string& licenceText();

/// One picture of the code set, with what it holds.
struct CodeSetPicture {
    std::string name; ///< kind, module size and angle, for messages
    CodeKind kind;
    std::string text;
    CodePicture picture;
};
/// The code set: PDF417 (the licence text, 2 pixels per module in 8 columns and 4 in 4) and QR codes (3 and 6) in
/// 1280 x 720 pictures, each kind and module size at 13 angles (tilts of 0 to 24 degrees either way on all four
/// quarter turns), a third of them blurred, half noisy.
std::vector<CodeSetPicture> codeSet();
/// The largest distance of a read corner from the true one in the same place, as a share of the picture's width.
double cornerError(const std::array<kp::CGPoint, 4>& read, const CodePicture& truth);

} // namespace kptest
