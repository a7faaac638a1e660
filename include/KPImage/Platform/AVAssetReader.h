// SPDX-License-Identifier: MIT
// Reading movies back: what a movie's video track holds, and its frames decoded into pixel buffers.
#pragma once

#include "KPImage/Platform/CMSampleBuffer.h"
#include "KPImage/Platform/NSError.h"
#include "KPImage/Platform/NSURL.h"

#include <cstdint>
#include <memory>
#include <string>

namespace kp {

/// What a reader finds in a movie's first video track.
struct AVAssetVideoTrackInfo {
    std::string codec;       ///< FFmpeg's codec name: "rawvideo", "h264", "hevc", "ffv1", ...
    std::string codecTag;    ///< The sample description's four characters ("BGRA", "NV12", "avc1", ...).
    std::string pixelFormat; ///< FFmpeg's name of the decoded pixel format ("bgra", "nv12", "yuv420p", ...).
    int32_t width = 0;
    int32_t height = 0;
    int64_t frames = 0;     ///< Samples in the track (every one read).
    double duration = 0;    ///< From the first sample's start to the last sample's end, in seconds.
    double startTime = 0;   ///< The first sample's time stamp, in seconds.
};

/// Reads a movie's video frames in order. Not for concurrent use.
class AVAssetReader {
public:
    /// Opens the movie and reads through it once to count its samples. Nil with *error (the file and the
    /// cause) when it cannot be read or has no video track.
    static std::unique_ptr<AVAssetReader> assetReaderWithURL(const NSURLRef& url, NSErrorRef* error);

    const AVAssetVideoTrackInfo& videoTrack() const { return _info; }

    /// The next frame in BGRA or '420f' (converted when stored otherwise; copied exactly when stored so), with
    /// its time stamp and duration in the movie's timescale. Nil at the end, on a decoding error or for another
    /// pixel format.
    CMSampleBufferRef copyNextSampleBuffer(OSType pixelFormat);

    ~AVAssetReader();
    AVAssetReader(const AVAssetReader&) = delete;
    AVAssetReader& operator=(const AVAssetReader&) = delete;

    struct State;
    explicit AVAssetReader(std::unique_ptr<State> state);

private:
    std::unique_ptr<State> _state;
    AVAssetVideoTrackInfo _info;
};

} // namespace kp
