// SPDX-License-Identifier: MIT
// The movie writer's input: one video track that takes camera frames, with real back-pressure.
#pragma once

#include "KPImage/Platform/AVCaptureTypes.h"
#include "KPImage/Platform/CMSampleBuffer.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

namespace kp {

class MovieWriterCore;

/// One output-settings value: a number or a string.
using AVOutputSettingValue = std::variant<int64_t, double, std::string>;
/// Output settings of a video input. nil (an empty optional) stores frames as delivered, without re-encoding.
/// The compression properties are given in the same dictionary as the codec.
using AVOutputSettings = std::map<std::string, AVOutputSettingValue>;

/// The codec (a string): AVVideoCodecTypeH264, AVVideoCodecTypeHEVC or AVVideoCodecTypeFFV1.
inline constexpr const char* AVVideoCodecKey = "AVVideoCodecKey";
/// Output width and height in pixels (numbers); the frames are scaled to them. Default: the first frame's size.
inline constexpr const char* AVVideoWidthKey = "AVVideoWidthKey";
inline constexpr const char* AVVideoHeightKey = "AVVideoHeightKey";
/// Average bit rate in bits per second (H.264, HEVC). Default: constant quality.
inline constexpr const char* AVVideoAverageBitRateKey = "AverageBitRate";
/// Quality 0 (smallest) .. 1 (best), used without a bit rate (H.264, HEVC). Default 0.5.
inline constexpr const char* AVVideoQualityKey = "Quality";
/// Frames between key frames. Default 30.
inline constexpr const char* AVVideoMaxKeyFrameIntervalKey = "MaxKeyFrameInterval";

/// H.264 (libx264), HEVC (libx265 where installed) and lossless FFV1.
inline constexpr const char* AVVideoCodecTypeH264 = "avc1";
inline constexpr const char* AVVideoCodecTypeHEVC = "hvc1";
inline constexpr const char* AVVideoCodecTypeFFV1 = "FFV1";

/// True when this build's FFmpeg has an encoder for the codec type (AVVideoCodecTypeH264, ...).
bool AVVideoCodecTypeIsAvailable(const std::string& codecType);

/// A video track's input. Frames are handed to the writer's thread through a bounded queue; appends never
/// block. Safe from any thread.
class AVAssetWriterInput {
public:
    /// An input for the media type (only AVMediaTypeVideo can be added to a writer) with the output settings
    /// (nil: frames stored as delivered). Never nil.
    static std::shared_ptr<AVAssetWriterInput> assetWriterInputWithMediaType(
        const AVMediaType& mediaType, std::optional<AVOutputSettings> outputSettings);

    const AVMediaType& mediaType() const { return _mediaType; }
    const std::optional<AVOutputSettings>& outputSettings() const { return _outputSettings; }

    /// Whether the source is live (frames come at their own pace); informational: the queue is bounded either way.
    bool expectsMediaDataInRealTime() const { return _realTime.load(std::memory_order_relaxed); }
    void setExpectsMediaDataInRealTime(bool realTime) { _realTime.store(realTime, std::memory_order_relaxed); }

    /// True while the writer is writing, this input is not finished and its queue has room. NO once the writer
    /// has failed, completed or been cancelled.
    bool isReadyForMoreMediaData() const;

    /// Queues one frame (BGRA or '420f'). NO, at once and without queueing, when the writer is not writing or
    /// its session has not started, after markAsFinished, when the queue is full, for a frame whose data is not
    /// ready, whose time stamp is invalid, or before the session start or not after the previous frame's. A
    /// frame whose size or pixel format differs from the first frame's (another camera) is converted to the
    /// movie's: the centre of its picture at the movie's aspect ratio, scaled to the movie's size.
    bool appendSampleBuffer(const CMSampleBufferRef& sampleBuffer);

    /// No more frames will come; the writer's finish then completes without waiting for this input.
    void markAsFinished();

    /// Frames the queue holds at most.
    static constexpr size_t kQueueCapacity = 8;

    AVAssetWriterInput(const AVMediaType& mediaType, std::optional<AVOutputSettings> outputSettings);
    AVAssetWriterInput(const AVAssetWriterInput&) = delete;
    AVAssetWriterInput& operator=(const AVAssetWriterInput&) = delete;

private:
    friend class AVAssetWriter;
    /// The writer's state, set once by addInput (under the core's lock).
    std::shared_ptr<MovieWriterCore> core() const;

    AVMediaType _mediaType;
    std::optional<AVOutputSettings> _outputSettings;
    std::atomic<bool> _realTime{false};
    mutable std::mutex _mutex;
    std::shared_ptr<MovieWriterCore> _core;
};

} // namespace kp
