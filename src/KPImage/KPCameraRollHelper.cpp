// SPDX-License-Identifier: MIT
// The camera-data recorder.
#include "KPImage/KPCameraRollHelper.h"

#include "KPImage/Platform/Dispatch.h"
#include "KPImage/Platform/NSFileManager.h"
#include "KPImage/Platform/NSThread.h"
#include "KPImage/Platform/SystemLog.h"

namespace kp {

namespace {

constexpr double kReadinessPollSeconds = 0.1;

// An error as the log prints an object: its domain, code and description, or "(null)".
std::string describe(const NSErrorRef& error) {
    if (!error) {
        return "(null)";
    }
    return stringWithFormat("Error Domain=%s Code=%lld \"%s\"", error->domain().c_str(),
                            static_cast<long long>(error->code()), error->localizedDescription().c_str());
}

} // namespace

KPCameraRollHelper::KPCameraRollHelper() {
    setCameraDataCounter(0);
    setIsRecording(false);
}

std::shared_ptr<KPCameraRollHelper> KPCameraRollHelper::create() {
    return std::shared_ptr<KPCameraRollHelper>(new KPCameraRollHelper());
}

std::shared_ptr<KPCameraRollHelper> KPCameraRollHelper::getInstance() {
    // Never destroyed: frame queues and pool threads may still hand it frames while the process exits.
    static dispatch_once_t once;
    static std::shared_ptr<KPCameraRollHelper>* shared = nullptr;
    dispatch_once(&once, [] { shared = new std::shared_ptr<KPCameraRollHelper>(create()); });
    return *shared;
}

std::optional<AVOutputSettings> KPCameraRollHelper::recordingOutputSettings() const {
    std::lock_guard lock(_settingsMutex);
    return _recordingOutputSettings;
}

void KPCameraRollHelper::setRecordingOutputSettings(std::optional<AVOutputSettings> settings) {
    std::lock_guard lock(_settingsMutex);
    _recordingOutputSettings = std::move(settings);
}

std::optional<std::string> KPCameraRollHelper::getCameraDataFolderPath() {
    std::lock_guard lock(_folderPathMutex);
    if (savedCameraDataFolderPath.empty()) {
        const auto urls = NSFileManager::defaultManager().URLsForDirectory(NSDocumentDirectory, NSUserDomainMask);
        if (!urls.empty()) {
            savedCameraDataFolderPath = urls.front()->path() + stringWithFormat("/%s", "/SavedCameraData");
        }
    }
    if (savedCameraDataFolderPath.empty()) {
        return std::nullopt;
    }
    return savedCameraDataFolderPath;
}

NSURLRef KPCameraRollHelper::getCameraDataFilePath() {
    // The counter is unsigned; the name prints it as a signed 32-bit number.
    const std::string fileName = stringWithFormat("FrontCardData%d.mov", static_cast<int32_t>(cameraDataCounter()));
    const auto folder = getCameraDataFolderPath();
    if (!folder || folder->empty()) {
        return nullptr;
    }
    return NSURL::fileURLWithPath(*folder + stringWithFormat("/%s", fileName.c_str()));
}

void KPCameraRollHelper::deleteAndRecreateCameraDataFolder() {
    const auto folder = getCameraDataFolderPath();
    const std::string path = folder.value_or("");
    const char* shown = folder ? path.c_str() : "(null)";
    NSFileManager& files = NSFileManager::defaultManager();
    NSErrorRef error;
    if (!files.removeItemAtPath(path, &error)) {
        NSLog("Record Camera Data: Error removing folder at path: %s, %s", shown,
              error ? error->localizedDescription().c_str() : "(null)");
    }
    error = nullptr;
    if (!files.createDirectoryAtPath(path, false, &error)) {
        NSLog("Record Camera Data: Error creating folder at path: %s, %s", shown,
              error ? error->localizedDescription().c_str() : "(null)");
    }
}

bool KPCameraRollHelper::startSavingCameraData() {
    if (isRecording()) {
        return false;
    }
    setIsRecording(true);
    setInputWriterBuffer(AVAssetWriterInput::assetWriterInputWithMediaType(AVMediaTypeVideo, recordingOutputSettings()));
    inputWriterBuffer()->setExpectsMediaDataInRealTime(true);
    setVideoFilePath(getCameraDataFilePath());
    deleteAndRecreateCameraDataFolder();
    NSErrorRef error; // not examined: a writer that cannot be made stays nil
    setOutputWriter(AVAssetWriter::assetWriterWithURL(videoFilePath(), AVFileTypeQuickTimeMovie, &error));
    if (const auto writer = outputWriter()) {
        writer->addInput(inputWriterBuffer());
    }
    return true;
}

bool KPCameraRollHelper::appendCameraData(const CMSampleBufferRef& sampleBuffer) {
    if (!isRecording() || !CMSampleBufferDataIsReady(sampleBuffer)) {
        return false;
    }
    const CMTime timestamp = CMSampleBufferGetPresentationTimeStamp(sampleBuffer);
    const auto writer = outputWriter();
    const auto input = inputWriterBuffer();
    // A nil writer reads as status 0.
    const auto status = [&] { return writer ? writer->status() : AVAssetWriterStatusUnknown; };
    if (status() == AVAssetWriterStatusFailed) {
        NSLog("Record Camera Data: An error has occured recording the camera. %s", describe(writer->error()).c_str());
        return false;
    }
    if (status() < AVAssetWriterStatusWriting && writer) {
        writer->startWriting();
        writer->startSessionAtSourceTime(timestamp);
    }
    while (!(input && input->isReadyForMoreMediaData())) {
        // A writer that can no longer take frames never becomes ready: stop waiting instead of holding the
        // frame queue for ever.
        const AVAssetWriterStatus now = status();
        if (!writer || now == AVAssetWriterStatusFailed || now == AVAssetWriterStatusCancelled ||
            now == AVAssetWriterStatusCompleted) {
            break;
        }
        NSThread::sleepForTimeInterval(kReadinessPollSeconds);
    }
    if (input && input->appendSampleBuffer(sampleBuffer)) {
        return true;
    }
    NSLog("Record Camera Data: Unable to append video sample to writer: %ld, %s", static_cast<long>(status()),
          describe(writer ? writer->error() : nullptr).c_str());
    return false;
}

bool KPCameraRollHelper::stopSavingCameraData() {
    if (!isRecording()) {
        return false;
    }
    const auto writer = outputWriter();
    const auto status = [&] { return writer ? writer->status() : AVAssetWriterStatusUnknown; };
    if (status() == AVAssetWriterStatusWriting) {
        inputWriterBuffer()->markAsFinished();
    }
    if (status() == AVAssetWriterStatusUnknown) {
        return true; // armed: no frame came, nothing to save; the same writer takes the next frame
    }
    auto self = shared_from_this();
    writer->finishWritingWithCompletionHandler([self] {
        const auto url = self->videoFilePath();
        UISaveVideoAtPathToSavedPhotosAlbum(url ? url->path() : std::string(),
                                            std::static_pointer_cast<UIPhotoAlbumSaveTarget>(self), nullptr);
        self->setIsRecording(false);
    });
    return true;
}

void KPCameraRollHelper::video(const std::string& videoPath, const NSErrorRef& error, void*) {
    {
        std::lock_guard lock(_lastSaveMutex);
        _lastSave = KPCameraDataSave{videoPath, error ? std::string() : savedPhotosAlbumFilePath(), error};
    }
    deleteAndRecreateCameraDataFolder();
    _cameraDataCounter.fetch_add(1, std::memory_order_relaxed); // unsigned: wraps to 0
}

std::optional<KPCameraDataSave> KPCameraRollHelper::lastCameraDataSave() const {
    std::lock_guard lock(_lastSaveMutex);
    return _lastSave;
}

void KPCameraRollHelper::image(const UIImage&, const NSErrorRef&, void*) {}

void KPCameraRollHelper::saveImageToCameraRoll(const std::optional<UIImage>& image,
                                               const std::shared_ptr<void>& imageDescription) {
    if (!image) {
        return;
    }
    UIImageWriteToSavedPhotosAlbum(*image, std::static_pointer_cast<UIPhotoAlbumSaveTarget>(shared_from_this()),
                                   imageDescription.get());
}

} // namespace kp
