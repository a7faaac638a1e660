// SPDX-License-Identifier: MIT
// Image file codecs of the platform layer: PNG (libspng) and JPEG (libjpeg-turbo) with size limits.
//
// Decoding memory: a small file can announce a picture of up to kKPMaxImagePixels (2^30) pixels, which takes
// 4 GiB as RGBA. Files announcing more than maximumDecodedImagePixels() are refused before any pixel is
// allocated; a host with less memory to spare lowers the limit once with setMaximumDecodedImagePixels (for
// example to 50 million pixels). A picture within the limit that still does not fit in memory gives nil too:
// no function here throws.
//
// Damaged data: decoding stops at the first error or warning of the decoder (data that ends early, a bad
// code, a bad checksum of a critical chunk), and a file whose header announces more pixels than its data
// could possibly encode is refused before any pixel is decoded, so a few bytes claiming a huge picture fail
// at once instead of being decoded into grey.
#pragma once

#include "KPImage/Platform/UIImage.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kp {

/// Why a picture could not be read. Example:
///     kp::ImageReadError error;
///     if (!kp::UIImage::imageWithContentsOfFile(path, &error)) {
///         std::cerr << "cannot read an image from " << path << ": " << error.message << "\n";
///     }
struct ImageReadError {
    enum Reason : int32_t {
        None = 0,
        NoSuchFile,      ///< the path names nothing
        IsADirectory,    ///< the path names a directory
        NotARegularFile, ///< a FIFO, device or socket (never waited on)
        Unreadable,      ///< the system refused the read (permission, I/O error); message has its words
        FileTooLarge,    ///< a file of over 2 GiB
        UnknownFormat,   ///< neither PNG nor JPEG
        Truncated,       ///< the data ends before the picture does
        Corrupt,         ///< the decoder found damaged data; message has its words
        Unsupported,     ///< a valid file of a kind not decoded here (CMYK JPEG)
        TooManyPixels,   ///< over maximumDecodedImagePixels()
        SizeMismatch,    ///< the header claims more pixels than the data could encode
        OutOfMemory,     ///< the pixels do not fit in memory
    };
    Reason reason = None;
    /// One line saying what is wrong, without the file's name ("truncated", "is a directory",
    /// "claims 16000 x 16000 pixels but holds only 10240 bytes of picture data"); empty for None.
    std::string message;
};

/// The most pixels an image decoded from a file or data may have; kKPMaxImagePixels unless lowered.
uint64_t maximumDecodedImagePixels();
/// Sets that limit for every decoding from now on, process-wide, from any thread: 1 to kKPMaxImagePixels
/// are taken as they are; 0 or anything larger restores kKPMaxImagePixels (the limit cannot be raised).
void setMaximumDecodedImagePixels(uint64_t pixels);

/// The PNG encoding of the image's bitmap (grey stays grey, RGB stays RGB, 32-bit becomes straight RGBA);
/// nil without a bitmap, for a layout PNG cannot hold, or when memory runs out.
std::optional<std::vector<uint8_t>> UIImagePNGRepresentation(const UIImage& image);
/// The JPEG encoding of the bitmap at quality 0..1 (grey or RGB); nil without a bitmap or memory.
std::optional<std::vector<uint8_t>> UIImageJPEGRepresentation(const UIImage& image, CGFloat quality);

/// Reads a whole regular file; nil when it cannot be read, is over 2 GiB or is not a regular file (a FIFO,
/// device or directory is refused at once, never waited on).
std::optional<std::vector<uint8_t>> dataWithContentsOfFile(const std::string& path);
/// dataWithContentsOfFile that, on failure, says why in *error when error is not null.
std::optional<std::vector<uint8_t>> dataWithContentsOfFile(const std::string& path, ImageReadError* error);
/// Writes bytes to path. Atomically: into a temporary file of a short fixed-length name (".kptmp-" and six
/// random characters) in the same directory, flushed, then renamed over path, so path holds either the old
/// or the new bytes and every name the file system takes can be written. Not atomically: straight into path,
/// which must be (or become) a regular file; a FIFO or device is refused at once. False on any failure.
bool writeToFile(std::span<const uint8_t> bytes, const std::string& path, bool atomically);

} // namespace kp
