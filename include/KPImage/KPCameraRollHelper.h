// SPDX-License-Identifier: MIT
// The camera-data recorder: records the camera stream to numbered movies, hands them to the photo album, and saves
// still images there.
#pragma once

#include "KPImage/Platform/AVAssetWriter.h"
#include "KPImage/Platform/AVAssetWriterInput.h"
#include "KPImage/Platform/CMSampleBuffer.h"
#include "KPImage/Platform/NSURL.h"
#include "KPImage/Platform/UIImage.h"
#include "KPImage/Platform/UIPhotoAlbum.h"
#include "KPImage/SharedField.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kp {

/// How the photo album took a finished movie.
struct KPCameraDataSave {
    /// The movie the recorder handed over (in the working folder, which is emptied right after).
    std::string moviePath;
    /// The file the album wrote ("" when the save failed).
    std::string albumPath;
    /// Why the save failed; nil when it succeeded.
    NSErrorRef error;
};

/// Records the raw camera stream to "FrontCardData%d.mov" in the working folder "SavedCameraData" of the documents
/// directory, hands each finished movie to the photo album and then empties the folder; saves still images to the
/// album. One shared instance (getInstance) serves the process. Start and stop run on the thread that starts and
/// stops the video, appends on the frame queue, the finish block on the writer's queue and the save callbacks on
/// the main queue; the fields are shared between them without locks (relaxed atomics).
///
/// Example:
///     auto recorder = kp::KPCameraRollHelper::getInstance();
///     recorder->startSavingCameraData();
///     // on the frame queue, for every frame: recorder->appendCameraData(frame);
///     recorder->stopSavingCameraData();   // the movie reaches the album, then the folder is emptied
class KPCameraRollHelper : public UIPhotoAlbumSaveTarget, public std::enable_shared_from_this<KPCameraRollHelper> {
public:
    /// The shared instance, created once (under a once) by create().
    static std::shared_ptr<KPCameraRollHelper> getInstance();
    /// A new, independent instance: counter 0, not recording.
    static std::shared_ptr<KPCameraRollHelper> create();

    /// Arms a new recording: a fresh video input (no output settings unless the host set some), the movie path
    /// for the current counter, an emptied working folder and a writer for the movie. NO when already recording
    /// (nothing changes). The writer starts with the first frame.
    bool startSavingCameraData();
    /// Appends one frame on the frame queue; YES when appended. The first frame starts the writer and its
    /// session at the frame's time stamp. Waits (0.1 s steps) while the writer is not ready; the wait also ends
    /// when the writer has failed, completed or been cancelled, or there is none, so a full disk never hangs the
    /// frame queue. Logs "Record Camera Data: ..." lines on failure.
    bool appendCameraData(const CMSampleBufferRef& sampleBuffer);
    /// Finishes the recording: NO when not recording. While armed (no frame yet) nothing happens and it stays
    /// armed. Otherwise the movie is finished; then it goes to the photo album and isRecording becomes NO,
    /// whatever the writer's final status.
    bool stopSavingCameraData();
    /// Saves the image to the photo album (nothing for nil); imageDescription is passed on as the raw context
    /// pointer and not kept alive.
    void saveImageToCameraRoll(const std::optional<UIImage>& image, const std::shared_ptr<void>& imageDescription);

    /// The working folder: the documents path, "//" and "SavedCameraData" (the doubled separator is kept); cached
    /// after the first success. Nil without a documents folder.
    std::optional<std::string> getCameraDataFolderPath();
    /// The file URL of "FrontCardData%d.mov" for the current counter (printed as a signed 32-bit number) in the
    /// working folder; nil without one.
    NSURLRef getCameraDataFilePath();
    /// Removes the working folder with all it holds and creates it again, logging what fails.
    void deleteAndRecreateCameraDataFolder();

    /// The photo album's video callback (main queue): empties the working folder and counts the save, failed or
    /// not (unsigned 32-bit, wrapping).
    void video(const std::string& videoPath, const NSErrorRef& error, void* contextInfo) override;
    /// The outcome of the last movie save the album reported (main queue); nil before the first.
    std::optional<KPCameraDataSave> lastCameraDataSave() const;

    /// The photo album's image callback: does nothing.
    void image(const UIImage& image, const NSErrorRef& error, void* contextInfo) override;

    std::shared_ptr<AVAssetWriterInput> inputWriterBuffer() const { return _inputWriterBuffer.load(); }
    void setInputWriterBuffer(std::shared_ptr<AVAssetWriterInput> input) { _inputWriterBuffer.store(std::move(input)); }
    std::shared_ptr<AVAssetWriter> outputWriter() const { return _outputWriter.load(); }
    void setOutputWriter(std::shared_ptr<AVAssetWriter> writer) { _outputWriter.store(std::move(writer)); }
    NSURLRef videoFilePath() const { return _videoFilePath.load(); }
    void setVideoFilePath(NSURLRef url) { _videoFilePath.store(std::move(url)); }
    bool isRecording() const { return _isRecording.load(std::memory_order_relaxed); }
    void setIsRecording(bool recording) { _isRecording.store(recording, std::memory_order_relaxed); }
    uint32_t cameraDataCounter() const { return _cameraDataCounter.load(std::memory_order_relaxed); }
    void setCameraDataCounter(uint32_t counter) { _cameraDataCounter.store(counter, std::memory_order_relaxed); }

    /// Output settings of the inputs made by later starts: nil (the default) stores frames as delivered; hosts
    /// that want small files can ask for an encoder (AVVideoCodecKey ...).
    std::optional<AVOutputSettings> recordingOutputSettings() const;
    void setRecordingOutputSettings(std::optional<AVOutputSettings> settings);

    KPCameraRollHelper(const KPCameraRollHelper&) = delete;
    KPCameraRollHelper& operator=(const KPCameraRollHelper&) = delete;

private:
    KPCameraRollHelper();

    mutable std::mutex _folderPathMutex;
    std::string savedCameraDataFolderPath;
    std::atomic<bool> _isRecording{false};
    std::atomic<uint32_t> _cameraDataCounter{0};
    SharedField<AVAssetWriterInput> _inputWriterBuffer;
    SharedField<AVAssetWriter> _outputWriter;
    SharedField<const NSURL> _videoFilePath;
    mutable std::mutex _lastSaveMutex;
    std::optional<KPCameraDataSave> _lastSave;
    mutable std::mutex _settingsMutex;
    std::optional<AVOutputSettings> _recordingOutputSettings;
};

} // namespace kp
