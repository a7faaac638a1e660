// SPDX-License-Identifier: MIT
// The movie writer: QuickTime (.mov) files written on a thread of the writer's own, in fragments of about a second.
#pragma once

#include "KPImage/Platform/AVAssetWriterInput.h"
#include "KPImage/Platform/CMTime.h"
#include "KPImage/Platform/Dispatch.h"
#include "KPImage/Platform/NSError.h"
#include "KPImage/Platform/NSURL.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kp {

using AVFileType = std::string;
/// QuickTime movie (.mov).
inline const AVFileType AVFileTypeQuickTimeMovie = "com.apple.quicktime-movie";

/// Codes of the writer's errors (domain AVFoundationErrorDomain; the description names the file and the cause,
/// and user info "NSUnderlyingErrorCode" holds the errno of a file-system failure).
/// Besides these: AVErrorNoDataCaptured (finished without a frame), AVErrorFormatUnsupported (no encoder for the
/// codec, or a frame layout it cannot take), AVErrorUnknown (an encoder or muxer failure).
inline constexpr NSInteger AVErrorDiskFull = -11807;
inline constexpr NSInteger AVErrorFileFailedToWrite = -11821;

enum AVAssetWriterStatus : int64_t {
    AVAssetWriterStatusUnknown = 0,
    AVAssetWriterStatusWriting = 1,
    AVAssetWriterStatusCompleted = 2,
    AVAssetWriterStatusFailed = 3,
    AVAssetWriterStatusCancelled = 4,
};

/// Writes one video track to a QuickTime movie. The movie is fragmented (a fragment about every second), so a
/// process killed while recording leaves a movie that plays up to its last whole fragment. Frames are written
/// on a thread of the writer's own; failures (disk full, folder removed, permission) are sticky: the status
/// becomes failed with an error naming the cause, and every later append returns NO at once. Safe from any
/// thread.
class AVAssetWriter {
public:
    /// A writer for the file URL (AVFileTypeQuickTimeMovie only). Nothing is created on disk yet. Nil with
    /// *error for a nil URL or another file type. A file already at the URL is never overwritten: startWriting
    /// then fails (status failed, with an error naming the file).
    static std::shared_ptr<AVAssetWriter> assetWriterWithURL(const NSURLRef& outputURL, const AVFileType& fileType,
                                                             NSErrorRef* error);

    const NSURLRef& outputURL() const { return _url; }
    const AVFileType& outputFileType() const { return _fileType; }

    /// YES for a video input not yet added anywhere, while the writer has not started and has no video input.
    bool canAddInput(const std::shared_ptr<AVAssetWriterInput>& input) const;
    /// Adds the input when canAddInput allows it; otherwise nothing happens.
    void addInput(const std::shared_ptr<AVAssetWriterInput>& input);
    std::vector<std::shared_ptr<AVAssetWriterInput>> inputs() const;

    /// 0 unknown (not started), 1 writing, 2 completed, 3 failed, 4 cancelled.
    AVAssetWriterStatus status() const;
    /// Why the writer failed; nil otherwise.
    NSErrorRef error() const;

    /// Creates the file and starts the writer thread: YES and status writing; NO and status failed (with error)
    /// when the file cannot be created or there is no input; NO without change unless the status is unknown.
    bool startWriting();
    /// Frame time stamps are written relative to this time. Only once, while writing; later calls are ignored.
    void startSessionAtSourceTime(CMTime startTime);
    /// Writes what is queued, closes the file and then runs the handler on a serial queue of the writer's own,
    /// whatever the final status (completed, or failed with error). Returns at once. When the writer is not
    /// writing, the handler runs (on that queue) with the status unchanged.
    void finishWritingWithCompletionHandler(std::function<void()> handler);
    /// Stops writing, drops queued frames and deletes the partial file; status cancelled. Waits for the writer
    /// thread. Nothing happens once completed, failed or cancelled.
    void cancelWriting();

    ~AVAssetWriter();
    AVAssetWriter(const AVAssetWriter&) = delete;
    AVAssetWriter& operator=(const AVAssetWriter&) = delete;
    AVAssetWriter(NSURLRef url, AVFileType fileType);

private:
    NSURLRef _url;
    AVFileType _fileType;
    std::shared_ptr<MovieWriterCore> _core;
    dispatch_queue_t _completionQueue;
    mutable std::mutex _mutex;
    std::vector<std::shared_ptr<AVAssetWriterInput>> _inputs;
};

} // namespace kp
