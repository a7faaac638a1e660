// SPDX-License-Identifier: MIT
// The photo album: a folder the host chooses; saves copy movies and images into it and call back on the main queue.
#pragma once

#include "KPImage/Platform/NSError.h"
#include "KPImage/Platform/UIImage.h"

#include <functional>
#include <memory>
#include <string>

namespace kp {

/// The target of a save: the platform's completion selectors as virtual methods. Both do nothing by default.
class UIPhotoAlbumSaveTarget {
public:
    virtual ~UIPhotoAlbumSaveTarget() = default;
    /// After UISaveVideoAtPathToSavedPhotosAlbum, on the main queue: the source path, nil or why it failed.
    virtual void video(const std::string& videoPath, const NSErrorRef& error, void* contextInfo);
    /// After UIImageWriteToSavedPhotosAlbum, on the main queue: the image, nil or why it failed.
    virtual void image(const UIImage& image, const NSErrorRef& error, void* contextInfo);
};

using UIVideoSaveCompletion = std::function<void(const std::string& videoPath, const NSErrorRef& error, void* contextInfo)>;
using UIImageSaveCompletion = std::function<void(const UIImage& image, const NSErrorRef& error, void* contextInfo)>;

/// Sets the album folder for the whole process (thread-safe); empty restores the default, the user's pictures
/// folder (XDG_PICTURES_DIR, else ~/Pictures) with the subfolder "KPImage". The folder is created on the first
/// save.
void setSavedPhotosAlbumDirectory(std::string path);
/// The album folder saves go to now.
std::string savedPhotosAlbumDirectory();

/// How images are stored: PNG (the default) or JPEG at quality 0.9.
enum class UIPhotoAlbumImageFormat { PNG, JPEG };
void setSavedPhotosAlbumImageFormat(UIPhotoAlbumImageFormat format);

/// Puts the movie into the album under a new name (the source's name, numbered "-1", "-2", ... when taken; an
/// album file is never overwritten). Only a file that opens as a movie with a video track is taken. On the
/// album's file system the movie gets a second name there (a hard link: no extra space, nothing half-written);
/// elsewhere it is copied to a temporary file, flushed, then given its name. Works on a queue of the album's
/// own and returns at once; then calls the target's video(...) on the main queue with nil or an
/// NSPOSIXErrorDomain error naming the file and the cause. A null target: no callback.
void UISaveVideoAtPathToSavedPhotosAlbum(const std::string& videoPath,
                                         std::shared_ptr<UIPhotoAlbumSaveTarget> completionTarget, void* contextInfo);
void UISaveVideoAtPathToSavedPhotosAlbum(const std::string& videoPath, UIVideoSaveCompletion completion,
                                         void* contextInfo);

/// Inside a video(...) or image(...) callback (on the main queue): the album file the reported save wrote, ""
/// when it failed. "" elsewhere.
std::string savedPhotosAlbumFilePath();

/// Stores the image in the album as "IMG_YYYYMMDD_HHMMSS.png" (or .jpg; numbered when taken), the same way, and
/// calls the target's image(...) on the main queue. An image without a bitmap fails with an error.
void UIImageWriteToSavedPhotosAlbum(const UIImage& image, std::shared_ptr<UIPhotoAlbumSaveTarget> completionTarget,
                                    void* contextInfo);
void UIImageWriteToSavedPhotosAlbum(const UIImage& image, UIImageSaveCompletion completion, void* contextInfo);

} // namespace kp
