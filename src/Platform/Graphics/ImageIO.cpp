// SPDX-License-Identifier: MIT
// Image files: PNG encoding through libspng, JPEG encoding through libjpeg-turbo, and
// whole-file reads and atomic writes.
#include "KPImage/Platform/ImageIO.h"

#include "Platform/Graphics/Allocation.h"
#include "Platform/Graphics/Codecs.h"
#include "Platform/Graphics/PixelLayout.h"

#include <spng.h>
#include <turbojpeg.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace kp {

namespace {
std::atomic<uint64_t> gMaximumDecodedImagePixels{kKPMaxImagePixels};
} // namespace

uint64_t maximumDecodedImagePixels() { return gMaximumDecodedImagePixels.load(std::memory_order_relaxed); }

void setMaximumDecodedImagePixels(uint64_t pixels) {
    gMaximumDecodedImagePixels.store(pixels == 0 || pixels > kKPMaxImagePixels ? kKPMaxImagePixels : pixels,
                                     std::memory_order_relaxed);
}

namespace detail {
namespace {
constexpr uint64_t kMaxFileBytes = uint64_t{1} << 31;
} // namespace
} // namespace detail

namespace {

/// The bitmap as tight rows of grey, RGB or straight RGBA bytes, with the channel count.
std::optional<std::pair<std::vector<uint8_t>, int>> tightPixels(const UIImage& image) {
    const CGImageRef& cg = image.CGImage();
    if (!cg) {
        return std::nullopt;
    }
    const auto layout = detail::pixelLayoutOf(*cg);
    if (!layout) {
        return std::nullopt;
    }
    const size_t w = cg->width();
    const size_t h = cg->height();
    const int channels = layout->gray ? 1 : (layout->a >= 0 && !layout->alphaSkipped) ? 4 : 3;
    detail::PixelLayout out;
    out.bytesPerPixel = channels;
    out.gray = layout->gray;
    out.r = 0, out.g = 1, out.b = 2, out.a = channels == 4 ? 3 : -1;
    std::vector<uint8_t> pixels(w * h * static_cast<size_t>(channels));
    if (layout->gray || (layout->bytesPerPixel == 3)) {
        const size_t row = w * static_cast<size_t>(channels);
        for (size_t y = 0; y < h; ++y) {
            std::memcpy(pixels.data() + y * row, cg->bytes() + y * cg->bytesPerRow(), row);
        }
    } else if (channels == 4 && !layout->premultiplied) {
        // Straight alpha is copied as it stands; a round trip through premultiplication would lose it.
        for (size_t y = 0; y < h; ++y) {
            const uint8_t* src = cg->bytes() + y * cg->bytesPerRow();
            uint8_t* dst = pixels.data() + y * w * 4;
            for (size_t x = 0; x < w; ++x) {
                dst[x * 4 + 0] = src[x * 4 + static_cast<size_t>(layout->r)];
                dst[x * 4 + 1] = src[x * 4 + static_cast<size_t>(layout->g)];
                dst[x * 4 + 2] = src[x * 4 + static_cast<size_t>(layout->b)];
                dst[x * 4 + 3] = src[x * 4 + static_cast<size_t>(layout->a)];
            }
        }
    } else {
        std::vector<uint32_t> argb(w);
        for (size_t y = 0; y < h; ++y) {
            detail::rowToARGB32(cg->bytes() + y * cg->bytesPerRow(), *layout, w, argb.data());
            detail::rowFromARGB32(argb.data(), w, out, pixels.data() + y * w * static_cast<size_t>(channels));
        }
    }
    return std::make_pair(std::move(pixels), channels);
}

std::optional<std::vector<uint8_t>> encodePNG(const UIImage& image) {
    auto tight = tightPixels(image);
    if (!tight) {
        return std::nullopt;
    }
    const CGImageRef& cg = image.CGImage();
    std::unique_ptr<spng_ctx, decltype(&spng_ctx_free)> ctx(spng_ctx_new(SPNG_CTX_ENCODER), spng_ctx_free);
    if (!ctx) {
        return std::nullopt;
    }
    spng_set_option(ctx.get(), SPNG_ENCODE_TO_BUFFER, 1);
    spng_ihdr ihdr{};
    ihdr.width = static_cast<uint32_t>(cg->width());
    ihdr.height = static_cast<uint32_t>(cg->height());
    ihdr.bit_depth = 8;
    ihdr.color_type = tight->second == 1   ? SPNG_COLOR_TYPE_GRAYSCALE
                      : tight->second == 3 ? SPNG_COLOR_TYPE_TRUECOLOR
                                           : SPNG_COLOR_TYPE_TRUECOLOR_ALPHA;
    if (spng_set_ihdr(ctx.get(), &ihdr) != 0 ||
        spng_encode_image(ctx.get(), tight->first.data(), tight->first.size(), SPNG_FMT_PNG, SPNG_ENCODE_FINALIZE) !=
            0) {
        return std::nullopt;
    }
    size_t size = 0;
    int error = 0;
    void* png = spng_get_png_buffer(ctx.get(), &size, &error);
    if (png == nullptr || error != 0) {
        std::free(png);
        return std::nullopt;
    }
    std::unique_ptr<void, decltype(&std::free)> owned(png, std::free);
    return std::vector<uint8_t>(static_cast<uint8_t*>(png), static_cast<uint8_t*>(png) + size);
}

std::optional<std::vector<uint8_t>> encodeJPEG(const UIImage& image, CGFloat quality) {
    auto tight = tightPixels(image);
    if (!tight) {
        return std::nullopt;
    }
    const CGImageRef& cg = image.CGImage();
    std::unique_ptr<void, decltype(&tjDestroy)> tj(tjInitCompress(), tjDestroy);
    if (!tj || cg->width() > INT32_MAX / 4 || cg->height() > INT32_MAX) {
        return std::nullopt;
    }
    const int q = std::isfinite(quality) ? std::clamp(static_cast<int>(std::lround(quality * 100)), 1, 100) : 75;
    const int channels = tight->second;
    const int pf = channels == 1 ? TJPF_GRAY : channels == 3 ? TJPF_RGB : TJPF_RGBA;
    unsigned char* jpeg = nullptr;
    unsigned long size = 0;
    if (tjCompress2(tj.get(), tight->first.data(), static_cast<int>(cg->width()),
                    static_cast<int>(cg->width()) * channels, static_cast<int>(cg->height()), pf, &jpeg, &size,
                    channels == 1 ? TJSAMP_GRAY : TJSAMP_420, q, TJFLAG_ACCURATEDCT) != 0) {
        tjFree(jpeg);
        return std::nullopt;
    }
    std::unique_ptr<unsigned char, decltype(&tjFree)> owned(jpeg, tjFree);
    return std::vector<uint8_t>(jpeg, jpeg + size);
}

} // namespace

std::optional<std::vector<uint8_t>> UIImagePNGRepresentation(const UIImage& image) {
    return detail::orOnAllocationFailure<std::optional<std::vector<uint8_t>>>(std::nullopt,
                                                                              [&] { return encodePNG(image); });
}

std::optional<std::vector<uint8_t>> UIImageJPEGRepresentation(const UIImage& image, CGFloat quality) {
    return detail::orOnAllocationFailure<std::optional<std::vector<uint8_t>>>(
        std::nullopt, [&] { return encodeJPEG(image, quality); });
}

namespace {
std::nullopt_t readFailure(ImageReadError* error, ImageReadError::Reason reason, const char* message) {
    if (error != nullptr) {
        error->reason = reason;
        detail::onAllocationFailureStop([&] { error->message = message; });
    }
    return std::nullopt;
}

std::string lowerFirst(std::string text) {
    if (!text.empty() && text[0] >= 'A' && text[0] <= 'Z') {
        text[0] = static_cast<char>(text[0] - 'A' + 'a');
    }
    return text;
}

std::nullopt_t systemFailure(ImageReadError* error, int code) {
    if (code == ENOENT) {
        return readFailure(error, ImageReadError::NoSuchFile, "no such file");
    }
    if (code == EISDIR) {
        return readFailure(error, ImageReadError::IsADirectory, "is a directory");
    }
    if (code == ENOMEM) {
        return readFailure(error, ImageReadError::OutOfMemory, "out of memory");
    }
    char text[256] = "";
    const char* message = ::strerror_r(code, text, sizeof(text));
    return readFailure(error, ImageReadError::Unreadable, lowerFirst(message).c_str());
}
} // namespace

std::optional<std::vector<uint8_t>> dataWithContentsOfFile(const std::string& path) {
    return dataWithContentsOfFile(path, nullptr);
}

std::optional<std::vector<uint8_t>> dataWithContentsOfFile(const std::string& path, ImageReadError* error) {
    // Non-blocking, so that opening a FIFO or a device returns at once; the opened file itself is then
    // checked (no gap between the check and the read).
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return systemFailure(error, errno);
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        const int code = errno;
        ::close(fd);
        return systemFailure(error, code);
    }
    if (!S_ISREG(st.st_mode)) {
        ::close(fd);
        return S_ISDIR(st.st_mode) ? readFailure(error, ImageReadError::IsADirectory, "is a directory")
                                   : readFailure(error, ImageReadError::NotARegularFile,
                                                 "not a regular file (a FIFO, device or socket)");
    }
    if (static_cast<uint64_t>(st.st_size) > detail::kMaxFileBytes) {
        ::close(fd);
        return readFailure(error, ImageReadError::FileTooLarge, "larger than 2 GiB");
    }
    std::optional<std::vector<uint8_t>> buffer = detail::orOnAllocationFailure<std::optional<std::vector<uint8_t>>>(
        std::nullopt, [&] { return std::vector<uint8_t>(static_cast<size_t>(st.st_size)); });
    if (!buffer) {
        ::close(fd);
        return readFailure(error, ImageReadError::OutOfMemory, "out of memory");
    }
    std::vector<uint8_t>& bytes = *buffer;
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            const int code = n < 0 ? errno : EIO;
            ::close(fd);
            // A file that shrank while being read.
            return n == 0 ? readFailure(error, ImageReadError::Truncated, "truncated while being read")
                          : systemFailure(error, code);
        }
        done += static_cast<size_t>(n);
    }
    ::close(fd);
    return buffer;
}

namespace {
bool writeAll(int fd, std::span<const uint8_t> bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool writeBytes(std::span<const uint8_t> bytes, const std::string& path, bool atomically) {
    if (path.empty()) {
        return false;
    }
    if (!atomically) {
        // As for reading: a FIFO or device is refused at once instead of waiting for a reader.
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0644);
        if (fd < 0) {
            return false;
        }
        struct stat st {};
        if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            ::close(fd);
            return false;
        }
        const bool ok = writeAll(fd, bytes);
        return ::close(fd) == 0 && ok;
    }
    // Write beside the target and rename over it: readers see the old file or the new one, never a part.
    const std::filesystem::path target(path);
    std::filesystem::path dir = target.parent_path();
    if (dir.empty()) {
        dir = ".";
    }
    // A short name of fixed length, so that any target name that fits the file system has a temporary one.
    std::string tmp = (dir / ".kptmp-XXXXXX").string();
    const int fd = ::mkstemp(tmp.data());
    if (fd < 0) {
        return false;
    }
    bool ok = ::fchmod(fd, 0644) == 0 && writeAll(fd, bytes) && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (ok && ::rename(tmp.c_str(), path.c_str()) == 0) {
        const int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dfd >= 0) {
            ::fsync(dfd);
            ::close(dfd);
        }
        return true;
    }
    ::unlink(tmp.c_str());
    return false;
}

} // namespace

bool writeToFile(std::span<const uint8_t> bytes, const std::string& path, bool atomically) {
    return detail::orOnAllocationFailure(false, [&] { return writeBytes(bytes, path, atomically); });
}

} // namespace kp
