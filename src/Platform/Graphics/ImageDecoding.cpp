// SPDX-License-Identifier: MIT
// Decoding PNG (libspng) and JPEG (libjpeg) row by row, stopping at the first sign of damaged data, with the
// EXIF orientation read through libexif.
#include "Platform/Graphics/Allocation.h"
#include "Platform/Graphics/Codecs.h"
#include "Platform/Graphics/PixelLayout.h"

#include <libexif/exif-data.h>
#include <spng.h>

#include <climits>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

// jpeglib.h needs the size_t and FILE declarations first.
#include <jerror.h>
#include <jpeglib.h>

namespace kp::detail {

namespace {

/// Deflate turns one compressed byte into at most 1032 bytes (a 258-byte match coded in two bits).
constexpr uint64_t kMaxInflateRatio = 1032;

std::nullopt_t fail(ImageReadError* error, ImageReadError::Reason reason, std::string message) {
    if (error != nullptr) {
        error->reason = reason;
        error->message = std::move(message);
    }
    return std::nullopt;
}

std::string sizeText(uint64_t w, uint64_t h) { return std::to_string(w) + " x " + std::to_string(h); }

std::nullopt_t failTooManyPixels(ImageReadError* error, uint64_t w, uint64_t h) {
    return fail(error, ImageReadError::TooManyPixels,
                sizeText(w, h) + " pixels is over the limit of " + std::to_string(maximumDecodedImagePixels()));
}

std::nullopt_t failSizeMismatch(ImageReadError* error, uint64_t w, uint64_t h, uint64_t bytes) {
    return fail(error, ImageReadError::SizeMismatch,
                "claims " + sizeText(w, h) + " pixels but holds only " + std::to_string(bytes) +
                    " bytes of picture data");
}

std::nullopt_t failTruncated(ImageReadError* error, uint64_t rows, uint64_t height) {
    return fail(error, ImageReadError::Truncated,
                "truncated (the data ends after " + std::to_string(rows) + " of " + std::to_string(height) +
                    " rows)");
}

/// The EXIF orientation in raw EXIF bytes (starting with "Exif\0\0" or a whole JPEG); 0 when absent.
int exifOrientationOf(const uint8_t* data, size_t size) {
    if (data == nullptr || size < 8 || size > UINT32_MAX) {
        return 0;
    }
    ExifData* exif = exif_data_new_from_data(data, static_cast<unsigned int>(size));
    if (exif == nullptr) {
        return 0;
    }
    int orientation = 0;
    ExifEntry* entry = exif_data_get_entry(exif, EXIF_TAG_ORIENTATION);
    if (entry != nullptr && entry->format == EXIF_FORMAT_SHORT && entry->components >= 1 && entry->size >= 2 &&
        entry->data != nullptr) {
        orientation = exif_get_short(entry->data, exif_data_get_byte_order(exif));
    }
    exif_data_unref(exif);
    return orientation;
}

std::optional<UIImage> makeImage(size_t w, size_t h, bool gray, std::vector<uint8_t> pixels, int exifOrientation) {
    CGImageRef image =
        gray ? CGImageCreate(w, h, 8, 8, w, CGColorSpaceCreateDeviceGray(), kKPBitmapInfoGray,
                             CGDataProviderCreateWithData(std::move(pixels)))
             : CGImageCreate(w, h, 8, 32, w * 4, CGColorSpaceCreateDeviceRGB(), kKPBitmapInfoRGBA,
                             CGDataProviderCreateWithData(std::move(pixels)));
    if (!image) {
        return std::nullopt;
    }
    return UIImage::imageWithCGImage(std::move(image), 1.0, orientationFromExif(exifOrientation));
}

// ---- PNG ----

uint32_t bigEndian32(const uint8_t* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

struct PngChunks {
    uint64_t idatBytes = 0; ///< the compressed picture bytes present
    bool complete = false;  ///< the data reaches the end chunk
};

/// Walks the chunk list after the signature without decoding anything.
PngChunks walkPngChunks(std::span<const uint8_t> data) {
    PngChunks out;
    size_t pos = 8;
    while (pos + 8 <= data.size()) {
        const uint64_t length = bigEndian32(data.data() + pos);
        const uint8_t* type = data.data() + pos + 4;
        const uint64_t present = std::min<uint64_t>(length, data.size() - pos - 8);
        if (std::memcmp(type, "IDAT", 4) == 0) {
            out.idatBytes += present;
        }
        const uint64_t end = pos + 12 + length;
        if (std::memcmp(type, "IEND", 4) == 0) {
            out.complete = end <= data.size();
            return out;
        }
        if (end > data.size()) {
            return out;
        }
        pos = static_cast<size_t>(end);
    }
    return out;
}

int pngChannels(uint8_t colorType) {
    switch (colorType) {
    case SPNG_COLOR_TYPE_TRUECOLOR: return 3;
    case SPNG_COLOR_TYPE_GRAYSCALE_ALPHA: return 2;
    case SPNG_COLOR_TYPE_TRUECOLOR_ALPHA: return 4;
    default: return 1; // grey, indexed
    }
}

std::optional<UIImage> decodePNG(std::span<const uint8_t> data, ImageReadError* error) {
    std::unique_ptr<spng_ctx, decltype(&spng_ctx_free)> ctx(spng_ctx_new(0), spng_ctx_free);
    if (!ctx) {
        return fail(error, ImageReadError::OutOfMemory, "out of memory");
    }
    const auto spngFailure = [&](int rc, uint64_t rows, uint64_t height) {
        if (rc == SPNG_EOF || rc == SPNG_IO_EOF) {
            return failTruncated(error, rows, height);
        }
        if (rc == SPNG_EMEM) {
            return fail(error, ImageReadError::OutOfMemory, "out of memory");
        }
        return fail(error, ImageReadError::Corrupt, std::string("corrupt PNG data: ") + spng_strerror(rc));
    };
    spng_set_crc_action(ctx.get(), SPNG_CRC_ERROR, SPNG_CRC_DISCARD);
    spng_set_chunk_limits(ctx.get(), 64u << 20, 64u << 20);
    if (const int rc = spng_set_png_buffer(ctx.get(), data.data(), data.size()); rc != 0) {
        return spngFailure(rc, 0, 0);
    }
    spng_ihdr ihdr{};
    if (const int rc = spng_get_ihdr(ctx.get(), &ihdr); rc != 0) {
        return spngFailure(rc, 0, 0);
    }
    const uint64_t w = ihdr.width;
    const uint64_t h = ihdr.height;
    if (!(w > 0 && h > 0 && w * h <= maximumDecodedImagePixels())) {
        return failTooManyPixels(error, w, h);
    }
    // The fewest bytes the filtered rows can take, against the most the compressed bytes can give.
    const uint64_t bitsPerPixel = static_cast<uint64_t>(pngChannels(ihdr.color_type)) * ihdr.bit_depth;
    const uint64_t rawBytes = ihdr.interlace_method == 0 ? h * ((w * bitsPerPixel + 7) / 8 + 1)
                                                         : (w * h * bitsPerPixel + 7) / 8;
    const PngChunks chunks = walkPngChunks(data);
    if (rawBytes > kMaxInflateRatio * chunks.idatBytes) {
        if (!chunks.complete) {
            return failTruncated(error, 0, h);
        }
        return failSizeMismatch(error, w, h, chunks.idatBytes);
    }

    spng_trns trns{};
    const bool hasTrns = spng_get_trns(ctx.get(), &trns) == 0;
    const bool gray = ihdr.color_type == SPNG_COLOR_TYPE_GRAYSCALE && !hasTrns;
    // Grey of 16 bits is decoded through RGBA and narrowed; 8 bits or fewer decode straight to G8.
    const bool direct8 = gray && ihdr.bit_depth <= 8;
    const int fmt = direct8 ? SPNG_FMT_G8 : SPNG_FMT_RGBA8;
    size_t outSize = 0;
    if (const int rc = spng_decoded_image_size(ctx.get(), fmt, &outSize); rc != 0) {
        return spngFailure(rc, 0, h);
    }
    if (const int rc = spng_decode_image(ctx.get(), nullptr, 0, fmt, SPNG_DECODE_TRNS | SPNG_DECODE_PROGRESSIVE);
        rc != 0) {
        return spngFailure(rc, 0, h);
    }
    const size_t rowBytes = outSize / h;
    const bool interlaced = ihdr.interlace_method != 0;
    // Rows in file order grow the buffer as they come, so data that ends early costs only what it holds;
    // interlaced passes fill rows all over the picture and need it whole.
    std::vector<uint8_t> pixels;
    if (interlaced) {
        pixels.resize(outSize);
    } else {
        pixels.reserve(outSize);
    }
    uint64_t rows = 0;
    int rc = 0;
    spng_row_info row{};
    while ((rc = spng_get_row_info(ctx.get(), &row)) == 0) {
        uint8_t* out = nullptr;
        if (interlaced) {
            out = pixels.data() + static_cast<size_t>(row.row_num) * rowBytes;
        } else {
            pixels.resize(pixels.size() + rowBytes);
            out = pixels.data() + pixels.size() - rowBytes;
        }
        rc = spng_decode_row(ctx.get(), out, rowBytes);
        if (rc != 0) {
            break;
        }
        ++rows;
    }
    if (rc != SPNG_EOI) {
        return spngFailure(rc, interlaced ? 0 : rows, h);
    }
    if (gray && !direct8) {
        std::vector<uint8_t> g(w * h);
        for (size_t i = 0; i < w * h; ++i) {
            g[i] = pixels[i * 4];
        }
        pixels = std::move(g);
    }
    int orientation = 0;
    spng_exif exif{};
    if (spng_get_exif(ctx.get(), &exif) == 0 && exif.data != nullptr && exif.length > 0 &&
        exif.length < (64u << 20)) {
        std::vector<uint8_t> withHeader{'E', 'x', 'i', 'f', 0, 0};
        withHeader.insert(withHeader.end(), exif.data, exif.data + exif.length);
        orientation = exifOrientationOf(withHeader.data(), withHeader.size());
    }
    return makeImage(w, h, gray, std::move(pixels), orientation);
}

// ---- JPEG ----

/// libjpeg's error manager, extended with where to jump back to and what went wrong.
struct JpegErrors {
    jpeg_error_mgr manager;
    std::jmp_buf jump;
    ImageReadError::Reason reason;
    char text[JMSG_LENGTH_MAX];
};

void jpegErrorExit(j_common_ptr cinfo) {
    auto* errors = reinterpret_cast<JpegErrors*>(cinfo->err);
    const int code = cinfo->err->msg_code;
    errors->reason = code == JERR_OUT_OF_MEMORY         ? ImageReadError::OutOfMemory
                     : code == JERR_CONVERSION_NOTIMPL ? ImageReadError::Unsupported
                                                       : ImageReadError::Corrupt;
    cinfo->err->format_message(cinfo, errors->text);
    std::longjmp(errors->jump, 1);
}

/// Warnings mean damaged data (the decoder would fill in grey and go on): decoding stops there, except for
/// the few that concern only metadata.
void jpegEmitMessage(j_common_ptr cinfo, int level) {
    if (level >= 0) {
        return; // trace messages
    }
    const int code = cinfo->err->msg_code;
    if (code == JWRN_JFIF_MAJOR || code == JWRN_ADOBE_XFORM || code == JWRN_BOGUS_ICC) {
        return;
    }
    auto* errors = reinterpret_cast<JpegErrors*>(cinfo->err);
    errors->reason = code == JWRN_JPEG_EOF ? ImageReadError::Truncated : ImageReadError::Corrupt;
    cinfo->err->format_message(cinfo, errors->text);
    std::longjmp(errors->jump, 1);
}

/// What the JPEG is, known once its header is read.
struct JpegHeader {
    uint64_t width = 0;
    uint64_t height = 0;
    uint64_t blocks = 0;        ///< 8 x 8 blocks of all components
    uint64_t dataBytes = 0;     ///< bytes from the first scan on
    bool arithmetic = false;
    bool cmyk = false;
    bool gray = false;
};

enum class JpegStep { Done, Failed, Header };

/// The libjpeg calls, in a function of its own that holds nothing with a destructor: an error jumps back to
/// its start. Stops after the header when header is given, else decodes the rows into pixels.
JpegStep runJpeg(jpeg_decompress_struct* cinfo, JpegErrors* errors, std::span<const uint8_t> data,
                 JpegHeader* header, std::vector<uint8_t>* pixels, uint64_t* rows) {
    if (setjmp(errors->jump) != 0) {
        return JpegStep::Failed;
    }
    if (header != nullptr) {
        jpeg_create_decompress(cinfo);
        jpeg_mem_src(cinfo, data.data(), static_cast<unsigned long>(data.size()));
        jpeg_read_header(cinfo, TRUE);
        header->width = cinfo->image_width;
        header->height = cinfo->image_height;
        header->arithmetic = cinfo->arith_code != FALSE;
        header->cmyk = cinfo->jpeg_color_space == JCS_CMYK || cinfo->jpeg_color_space == JCS_YCCK;
        header->gray = cinfo->jpeg_color_space == JCS_GRAYSCALE;
        header->dataBytes = cinfo->src->bytes_in_buffer;
        for (int c = 0; c < cinfo->num_components; ++c) {
            const jpeg_component_info& comp = cinfo->comp_info[c];
            const uint64_t cw = (header->width * static_cast<uint64_t>(comp.h_samp_factor) +
                                 static_cast<uint64_t>(cinfo->max_h_samp_factor) - 1) /
                                static_cast<uint64_t>(cinfo->max_h_samp_factor);
            const uint64_t ch = (header->height * static_cast<uint64_t>(comp.v_samp_factor) +
                                 static_cast<uint64_t>(cinfo->max_v_samp_factor) - 1) /
                                static_cast<uint64_t>(cinfo->max_v_samp_factor);
            header->blocks += ((cw + 7) / 8) * ((ch + 7) / 8);
        }
        return JpegStep::Header;
    }
    const bool gray = cinfo->jpeg_color_space == JCS_GRAYSCALE;
    cinfo->out_color_space = gray ? JCS_GRAYSCALE : JCS_EXT_RGBA;
    cinfo->dct_method = JDCT_ISLOW;
    jpeg_start_decompress(cinfo);
    const size_t rowBytes = static_cast<size_t>(cinfo->output_width) * (gray ? 1 : 4);
    while (cinfo->output_scanline < cinfo->output_height) {
        // Rows grow the buffer as they come, so data that ends early costs only what it holds; its room is
        // reserved beforehand, so this never allocates (nothing may throw here).
        pixels->resize(pixels->size() + rowBytes);
        JSAMPROW row = pixels->data() + pixels->size() - rowBytes;
        if (jpeg_read_scanlines(cinfo, &row, 1) != 1) {
            errors->reason = ImageReadError::Truncated;
            errors->text[0] = '\0';
            return JpegStep::Failed;
        }
        ++*rows;
    }
    jpeg_finish_decompress(cinfo);
    return JpegStep::Done;
}

/// Owns libjpeg's decompressor for one decoding.
struct JpegDecompressor {
    jpeg_decompress_struct cinfo{};
    JpegErrors errors{};
    JpegDecompressor() {
        cinfo.err = jpeg_std_error(&errors.manager);
        errors.manager.error_exit = jpegErrorExit;
        errors.manager.emit_message = jpegEmitMessage;
    }
    ~JpegDecompressor() { jpeg_destroy_decompress(&cinfo); }
    JpegDecompressor(const JpegDecompressor&) = delete;
    JpegDecompressor& operator=(const JpegDecompressor&) = delete;
};

std::optional<UIImage> decodeJPEG(std::span<const uint8_t> data, ImageReadError* error) {
    if (data.size() > ULONG_MAX) {
        return fail(error, ImageReadError::FileTooLarge, "too large");
    }
    JpegDecompressor jpeg;
    JpegHeader header;
    uint64_t rows = 0;
    const auto jpegFailure = [&]() {
        const std::string text = jpeg.errors.text;
        if (jpeg.errors.reason == ImageReadError::Truncated) {
            return failTruncated(error, rows, header.height);
        }
        if (jpeg.errors.reason == ImageReadError::OutOfMemory) {
            return fail(error, ImageReadError::OutOfMemory, "out of memory");
        }
        if (jpeg.errors.reason == ImageReadError::Unsupported) {
            return fail(error, ImageReadError::Unsupported, "a JPEG colour model that is not supported: " + text);
        }
        return fail(error, ImageReadError::Corrupt, "corrupt JPEG data: " + text);
    };
    if (runJpeg(&jpeg.cinfo, &jpeg.errors, data, &header, nullptr, &rows) != JpegStep::Header) {
        return jpegFailure();
    }
    if (!(header.width > 0 && header.height > 0 && header.width * header.height <= maximumDecodedImagePixels())) {
        return failTooManyPixels(error, header.width, header.height);
    }
    if (header.cmyk) {
        return fail(error, ImageReadError::Unsupported, "CMYK JPEG pictures are not supported");
    }
    // Huffman coding spends at least one bit on every block; a header claiming more blocks than the data has
    // bits is forged or cut short, and is refused before any pixel memory is taken.
    if (!header.arithmetic && header.blocks > header.dataBytes * 8) {
        return failSizeMismatch(error, header.width, header.height, header.dataBytes);
    }
    std::vector<uint8_t> pixels;
    pixels.reserve(static_cast<size_t>(header.width * header.height * (header.gray ? 1 : 4)));
    if (runJpeg(&jpeg.cinfo, &jpeg.errors, data, nullptr, &pixels, &rows) != JpegStep::Done) {
        return jpegFailure();
    }
    const int orientation = exifOrientationOf(data.data(), data.size());
    return makeImage(static_cast<size_t>(header.width), static_cast<size_t>(header.height), header.gray,
                     std::move(pixels), orientation);
}

} // namespace

UIImageOrientation orientationFromExif(int exifOrientation) {
    switch (exifOrientation) {
    case 2: return UIImageOrientationUpMirrored;
    case 3: return UIImageOrientationDown;
    case 4: return UIImageOrientationDownMirrored;
    case 5: return UIImageOrientationLeftMirrored;
    case 6: return UIImageOrientationRight;
    case 7: return UIImageOrientationRightMirrored;
    case 8: return UIImageOrientationLeft;
    default: return UIImageOrientationUp;
    }
}

std::optional<UIImage> decodeImage(std::span<const uint8_t> data) { return decodeImage(data, nullptr); }

std::optional<UIImage> decodeImage(std::span<const uint8_t> data, ImageReadError* error) {
    static constexpr uint8_t kPNG[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    bool outOfMemory = false;
    // A small file can announce a large picture: its pixels may not fit in memory.
    std::optional<UIImage> image =
        orOnAllocationFailure<std::optional<UIImage>>(std::nullopt, [&]() -> std::optional<UIImage> {
            outOfMemory = true;
            std::optional<UIImage> decoded;
            if (data.size() >= 8 && std::memcmp(data.data(), kPNG, 8) == 0) {
                decoded = decodePNG(data, error);
            } else if (data.size() >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF) {
                decoded = decodeJPEG(data, error);
            } else {
                decoded = fail(error, ImageReadError::UnknownFormat,
                               data.empty() ? "empty" : "not a PNG or JPEG picture");
            }
            outOfMemory = false;
            return decoded;
        });
    if (outOfMemory && error != nullptr) {
        error->reason = ImageReadError::OutOfMemory;
        error->message.clear(); // the text may not fit either; the reason says it
        onAllocationFailureStop([&] { error->message = "out of memory"; });
    }
    if (image && error != nullptr) {
        *error = ImageReadError{};
    }
    return image;
}

} // namespace kp::detail
