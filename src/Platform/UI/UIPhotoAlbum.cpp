// SPDX-License-Identifier: MIT
// The photo album: copies into a host-chosen folder, never overwriting, with completions on the main queue.
#include "KPImage/Platform/UIPhotoAlbum.h"

#include "KPImage/Platform/Dispatch.h"
#include "KPImage/Platform/ImageIO.h"
#include "KPImage/Platform/NSFileManager.h"
#include "KPImage/Platform/NSSearchPath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>
#include <span>
#include <vector>

namespace kp {

void UIPhotoAlbumSaveTarget::video(const std::string&, const NSErrorRef&, void*) {}
void UIPhotoAlbumSaveTarget::image(const UIImage&, const NSErrorRef&, void*) {}

namespace {

constexpr double kJPEGQuality = 0.9;

std::mutex& albumMutex() {
    static std::mutex mutex;
    return mutex;
}

std::string& albumOverride() {
    static std::string path;
    return path;
}

std::atomic<UIPhotoAlbumImageFormat> gImageFormat{UIPhotoAlbumImageFormat::PNG};

// Saves run one at a time, in order, off the caller's thread.
const dispatch_queue_t& albumQueue() {
    static const dispatch_queue_t queue = dispatch_queue_create("UIPhotoAlbumQueue", DISPATCH_QUEUE_SERIAL);
    return queue;
}

NSErrorRef albumError(int code, const std::string& what) {
    return NSError::errorWithDescription(NSPOSIXErrorDomain, code, what + ": " + std::strerror(code));
}

bool writeAll(int fd, const uint8_t* bytes, size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, bytes, size);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        bytes += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Puts bytes into the album under name (or a numbered variant): a temporary file, flushed, then linked to a
// name that does not exist yet, so no album file is ever replaced. Nil on success.
template <typename Fill> NSErrorRef storeInAlbum(const std::string& name, const std::string& what, Fill fill) {
    const std::string album = savedPhotosAlbumDirectory();
    NSErrorRef error;
    if (!NSFileManager::defaultManager().createDirectoryAtPath(album, true, &error)) {
        return NSError::errorWithDescription(error->domain(), error->code(),
                                             "Cannot save " + what + " to the photo album: " +
                                                 error->localizedDescription());
    }
    std::string temporary = album + "/.kpimage-save-XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        return albumError(errno, "Cannot save " + what + " to the photo album \"" + album + "\"");
    }
    const auto failWith = [&](int code) {
        ::close(fd);
        ::unlink(temporary.c_str());
        return albumError(code, "Cannot save " + what + " to the photo album \"" + album + "\"");
    };
    if (const int code = fill(fd); code != 0) {
        return failWith(code);
    }
    if (fsync(fd) != 0 || fchmod(fd, 0644) != 0) {
        return failWith(errno);
    }
    if (::close(fd) != 0) {
        const int code = errno;
        ::unlink(temporary.c_str());
        return albumError(code, "Cannot save " + what + " to the photo album \"" + album + "\"");
    }
    const size_t dot = name.rfind('.');
    const std::string stem = dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
    const std::string extension = dot == std::string::npos || dot == 0 ? "" : name.substr(dot);
    for (int n = 0; n < 100000; ++n) {
        const std::string target = album + "/" + (n == 0 ? name : stem + "-" + std::to_string(n) + extension);
        if (::link(temporary.c_str(), target.c_str()) == 0) {
            ::unlink(temporary.c_str());
            // The new name itself must survive a crash too.
            if (const int dir = ::open(album.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dir >= 0) {
                fsync(dir);
                ::close(dir);
            }
            return nullptr;
        }
        if (errno != EEXIST) {
            const int code = errno;
            ::unlink(temporary.c_str());
            return albumError(code, "Cannot save " + what + " to the photo album \"" + album + "\"");
        }
    }
    ::unlink(temporary.c_str());
    return albumError(EEXIST, "Cannot save " + what + " to the photo album \"" + album + "\"");
}

NSErrorRef saveVideo(const std::string& videoPath) {
    const int source = ::open(videoPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (source < 0) {
        return albumError(errno, "Cannot save the movie \"" + videoPath + "\" to the photo album");
    }
    struct stat st {};
    if (fstat(source, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(source);
        return albumError(EINVAL, "Cannot save \"" + videoPath + "\" to the photo album: not a movie file");
    }
    const size_t slash = videoPath.rfind('/');
    std::string name = slash == std::string::npos ? videoPath : videoPath.substr(slash + 1);
    if (name.empty() || name[0] == '.') {
        name = "movie" + name;
    }
    NSErrorRef error = storeInAlbum(name, "the movie \"" + videoPath + "\"", [&](int fd) {
        std::vector<uint8_t> buffer(1 << 20);
        for (;;) {
            const ssize_t n = ::read(source, buffer.data(), buffer.size());
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0) {
                return errno;
            }
            if (n == 0) {
                return 0;
            }
            if (!writeAll(fd, buffer.data(), static_cast<size_t>(n))) {
                return errno;
            }
        }
    });
    ::close(source);
    return error;
}

NSErrorRef saveImage(const UIImage& image, UIPhotoAlbumImageFormat format) {
    const bool jpeg = format == UIPhotoAlbumImageFormat::JPEG;
    const auto bytes = jpeg ? UIImageJPEGRepresentation(image, kJPEGQuality) : UIImagePNGRepresentation(image);
    if (!bytes) {
        return NSError::errorWithDescription(NSPOSIXErrorDomain, EINVAL,
                                             "Cannot save the image to the photo album: it has no bitmap to encode");
    }
    char stamp[32] = {};
    const std::time_t now = std::time(nullptr);
    std::tm local {};
    localtime_r(&now, &local);
    std::strftime(stamp, sizeof stamp, "IMG_%Y%m%d_%H%M%S", &local);
    return storeInAlbum(std::string(stamp) + (jpeg ? ".jpg" : ".png"), "the image", [&](int fd) {
        return writeAll(fd, bytes->data(), bytes->size()) ? 0 : errno;
    });
}

} // namespace

void setSavedPhotosAlbumDirectory(std::string path) {
    std::lock_guard lock(albumMutex());
    albumOverride() = std::move(path);
}

std::string savedPhotosAlbumDirectory() {
    {
        std::lock_guard lock(albumMutex());
        if (!albumOverride().empty()) {
            return albumOverride();
        }
    }
    const auto pictures = NSSearchPathForDirectoriesInDomains(NSPicturesDirectory, NSUserDomainMask, true);
    return stringByAppendingPathComponent(pictures.empty() ? NSHomeDirectory() + "/Pictures" : pictures.front(),
                                          "KPImage");
}

void setSavedPhotosAlbumImageFormat(UIPhotoAlbumImageFormat format) {
    gImageFormat.store(format, std::memory_order_relaxed);
}

void UISaveVideoAtPathToSavedPhotosAlbum(const std::string& videoPath, UIVideoSaveCompletion completion,
                                         void* contextInfo) {
    dispatch_async(albumQueue(), [videoPath, completion = std::move(completion), contextInfo] {
        NSErrorRef error = saveVideo(videoPath);
        if (completion) {
            dispatch_async(dispatch_get_main_queue(),
                           [videoPath, completion, error, contextInfo] { completion(videoPath, error, contextInfo); });
        }
    });
}

void UISaveVideoAtPathToSavedPhotosAlbum(const std::string& videoPath,
                                         std::shared_ptr<UIPhotoAlbumSaveTarget> completionTarget, void* contextInfo) {
    UIVideoSaveCompletion completion;
    if (completionTarget) {
        completion = [target = std::move(completionTarget)](const std::string& path, const NSErrorRef& error,
                                                            void* context) { target->video(path, error, context); };
    }
    UISaveVideoAtPathToSavedPhotosAlbum(videoPath, std::move(completion), contextInfo);
}

void UIImageWriteToSavedPhotosAlbum(const UIImage& image, UIImageSaveCompletion completion, void* contextInfo) {
    // The format in force when the save is asked for.
    const UIPhotoAlbumImageFormat format = gImageFormat.load(std::memory_order_relaxed);
    dispatch_async(albumQueue(), [image, format, completion = std::move(completion), contextInfo] {
        NSErrorRef error = saveImage(image, format);
        if (completion) {
            dispatch_async(dispatch_get_main_queue(),
                           [image, completion, error, contextInfo] { completion(image, error, contextInfo); });
        }
    });
}

void UIImageWriteToSavedPhotosAlbum(const UIImage& image, std::shared_ptr<UIPhotoAlbumSaveTarget> completionTarget,
                                    void* contextInfo) {
    UIImageSaveCompletion completion;
    if (completionTarget) {
        completion = [target = std::move(completionTarget)](const UIImage& saved, const NSErrorRef& error,
                                                            void* context) { target->image(saved, error, context); };
    }
    UIImageWriteToSavedPhotosAlbum(image, std::move(completion), contextInfo);
}

} // namespace kp
