// SPDX-License-Identifier: MIT
// The photo album: copies into a host-chosen folder, never overwriting, with completions on the main queue.
#include "KPImage/Platform/UIPhotoAlbum.h"

#include "KPImage/Platform/Dispatch.h"
#include "KPImage/Platform/ImageIO.h"
#include "KPImage/Platform/NSFileManager.h"
#include "KPImage/Platform/NSSearchPath.h"

extern "C" {
#include <libavformat/avformat.h>
}

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

// The album's state lives until the process ends (never destroyed): saves and their callbacks may still run on
// other threads while the process exits.
std::mutex& albumMutex() {
    static auto* mutex = new std::mutex;
    return *mutex;
}

std::string& albumOverride() {
    static auto* path = new std::string;
    return *path;
}

std::atomic<UIPhotoAlbumImageFormat> gImageFormat{UIPhotoAlbumImageFormat::PNG};

// Saves run one at a time, in order, off the caller's thread.
const dispatch_queue_t& albumQueue() {
    static const auto* queue = new dispatch_queue_t(dispatch_queue_create("UIPhotoAlbumQueue", DISPATCH_QUEUE_SERIAL));
    return *queue;
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

// The album file the save being reported wrote, for the callback running on this thread.
thread_local std::string tSavedFilePath;

// The name a saved file takes in the album: name, else "stem-1.ext", "stem-2.ext", ...
std::string albumName(const std::string& name, int n) {
    if (n == 0) {
        return name;
    }
    const size_t dot = name.rfind('.');
    const std::string stem = dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
    const std::string extension = dot == std::string::npos || dot == 0 ? "" : name.substr(dot);
    return stem + "-" + std::to_string(n) + extension;
}

void syncFolder(const std::string& folder) {
    if (const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dir >= 0) {
        fsync(dir);
        ::close(dir);
    }
}

// Gives the file at source a name in the album that does not exist yet (link never replaces a name), so no
// album file is ever overwritten. Nil on success with *saved set; the link's errno otherwise.
int linkIntoAlbum(const std::string& source, const std::string& album, const std::string& name, std::string* saved) {
    for (int n = 0; n < 100000; ++n) {
        const std::string target = album + "/" + albumName(name, n);
        if (::link(source.c_str(), target.c_str()) == 0) {
            *saved = target;
            return 0;
        }
        if (errno != EEXIST) {
            return errno;
        }
    }
    return EEXIST;
}

NSErrorRef createAlbum(const std::string& album, const std::string& what) {
    NSErrorRef error;
    if (!NSFileManager::defaultManager().createDirectoryAtPath(album, true, &error)) {
        return NSError::errorWithDescription(error->domain(), error->code(),
                                             "Cannot save " + what + " to the photo album: " +
                                                 error->localizedDescription());
    }
    return nullptr;
}

// Puts bytes into the album under name (or a numbered variant): a temporary file, flushed, then linked to a
// name that does not exist yet. Nil on success, with *saved the album file.
template <typename Fill>
NSErrorRef storeInAlbum(const std::string& name, const std::string& what, std::string* saved, Fill fill) {
    const std::string album = savedPhotosAlbumDirectory();
    if (NSErrorRef error = createAlbum(album, what)) {
        return error;
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
    const int code = linkIntoAlbum(temporary, album, name, saved);
    ::unlink(temporary.c_str());
    syncFolder(album); // the new name itself must survive a crash too
    return code == 0 ? nullptr : albumError(code, "Cannot save " + what + " to the photo album \"" + album + "\"");
}

// Why the file is not a movie a player can open (a video track of a known codec), or "" when it is one.
std::string movieProblem(const std::string& path) {
    AVFormatContext* demuxer = nullptr;
    // "file:" keeps a name with a colon from being read as another protocol.
    int ret = avformat_open_input(&demuxer, ("file:" + path).c_str(), nullptr, nullptr);
    if (ret < 0) {
        char text[AV_ERROR_MAX_STRING_SIZE] = {};
        av_strerror(ret, text, sizeof text);
        return text;
    }
    std::string problem;
    ret = avformat_find_stream_info(demuxer, nullptr);
    const int video = ret < 0 ? ret : av_find_best_stream(demuxer, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (video < 0) {
        problem = "it has no video track";
    } else if (const AVCodecParameters* par = demuxer->streams[video]->codecpar;
               par->codec_id == AV_CODEC_ID_NONE || par->width <= 0 || par->height <= 0) {
        problem = "its video track cannot be read";
    }
    avformat_close_input(&demuxer);
    return problem;
}

NSErrorRef saveVideo(const std::string& videoPath, std::string* saved) {
    const int source = ::open(videoPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (source < 0) {
        return albumError(errno, "Cannot save the movie \"" + videoPath + "\" to the photo album");
    }
    struct stat st {};
    if (fstat(source, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(source);
        return albumError(EINVAL, "Cannot save \"" + videoPath + "\" to the photo album: not a movie file");
    }
    if (const std::string problem = movieProblem(videoPath); !problem.empty()) {
        ::close(source);
        return NSError::errorWithDescription(NSPOSIXErrorDomain, EINVAL,
                                             "Cannot save \"" + videoPath + "\" to the photo album: not a movie (" +
                                                 problem + ")");
    }
    const size_t slash = videoPath.rfind('/');
    std::string name = slash == std::string::npos ? videoPath : videoPath.substr(slash + 1);
    if (name.empty() || name[0] == '.') {
        name = "movie" + name;
    }
    const std::string what = "the movie \"" + videoPath + "\"";
    const std::string album = savedPhotosAlbumDirectory();
    if (NSErrorRef error = createAlbum(album, what)) {
        ::close(source);
        return error;
    }
    // On the same file system the movie gets a second name in the album: no extra space, nothing half-written.
    // Its data is flushed first, as a copy's would be.
    if (fsync(source) == 0) {
        const int code = linkIntoAlbum(videoPath, album, name, saved);
        if (code == 0) {
            syncFolder(album);
            ::close(source);
            return nullptr;
        }
        if (code != EXDEV && code != EPERM && code != EMLINK && code != ENOTSUP && code != EOPNOTSUPP) {
            ::close(source);
            return albumError(code, "Cannot save " + what + " to the photo album \"" + album + "\"");
        }
    }
    NSErrorRef error = storeInAlbum(name, what, saved, [&](int fd) {
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

NSErrorRef saveImage(const UIImage& image, UIPhotoAlbumImageFormat format, std::string* saved) {
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
    return storeInAlbum(std::string(stamp) + (jpeg ? ".jpg" : ".png"), "the image", saved, [&](int fd) {
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

std::string savedPhotosAlbumFilePath() { return tSavedFilePath; }

void setSavedPhotosAlbumImageFormat(UIPhotoAlbumImageFormat format) {
    gImageFormat.store(format, std::memory_order_relaxed);
}

void UISaveVideoAtPathToSavedPhotosAlbum(const std::string& videoPath, UIVideoSaveCompletion completion,
                                         void* contextInfo) {
    dispatch_async(albumQueue(), [videoPath, completion = std::move(completion), contextInfo] {
        std::string saved;
        NSErrorRef error = saveVideo(videoPath, &saved);
        if (completion) {
            dispatch_async(dispatch_get_main_queue(), [videoPath, completion, error, contextInfo, saved] {
                tSavedFilePath = saved;
                completion(videoPath, error, contextInfo);
                tSavedFilePath.clear();
            });
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
        std::string saved;
        NSErrorRef error = saveImage(image, format, &saved);
        if (completion) {
            dispatch_async(dispatch_get_main_queue(), [image, completion, error, contextInfo, saved] {
                tSavedFilePath = saved;
                completion(image, error, contextInfo);
                tSavedFilePath.clear();
            });
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
