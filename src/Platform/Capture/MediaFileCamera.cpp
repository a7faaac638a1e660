// SPDX-License-Identifier: MIT
// A camera that plays a video file in real time with libavformat and libavcodec.
#include "Platform/Capture/MediaFileCamera.h"

#include "Platform/Media/PixelConverter.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
}

#include <chrono>
#include <filesystem>

namespace kp {

namespace {
NSErrorRef fileError(const std::string& text) {
    return NSError::errorWithDescription(AVFoundationErrorDomain, AVErrorInvalidSourceMedia, text);
}

// An open file with its video decoder; closes everything when it goes away.
struct Decoder {
    AVFormatContext* format = nullptr;
    AVCodecContext* codec = nullptr;
    int stream = -1;

    ~Decoder() {
        avcodec_free_context(&codec);
        avformat_close_input(&format);
    }

    bool open(const std::string& path) {
        if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0) {
            format = nullptr;
            return false;
        }
        if (avformat_find_stream_info(format, nullptr) < 0) {
            return false;
        }
        const AVCodec* decoder = nullptr;
        stream = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
        if (stream < 0 || decoder == nullptr) {
            return false;
        }
        codec = avcodec_alloc_context3(decoder);
        if (codec == nullptr || avcodec_parameters_to_context(codec, format->streams[stream]->codecpar) < 0) {
            return false;
        }
        codec->thread_count = 1;
        return avcodec_open2(codec, decoder, nullptr) >= 0 && codec->width > 0 && codec->height > 0;
    }
};
} // namespace

std::shared_ptr<MediaFileCamera> MediaFileCamera::open(const std::string& path, NSErrorRef* error) {
    if (error != nullptr) {
        *error = nullptr;
    }
    Decoder decoder;
    if (!decoder.open(path)) {
        if (error != nullptr) {
            *error = fileError("The file has no video stream that can be decoded: " + path);
        }
        return nullptr;
    }
    const CaptureFormat size{decoder.codec->width, decoder.codec->height};
    if (static_cast<size_t>(size.width) > kCVPixelBufferMaxDimension ||
        static_cast<size_t>(size.height) > kCVPixelBufferMaxDimension) {
        if (error != nullptr) {
            *error = fileError("The video's frames are too large: " + path);
        }
        return nullptr;
    }
    return std::make_shared<MediaFileCamera>(path, size);
}

MediaFileCamera::~MediaFileCamera() { stopStream(); }

std::string MediaFileCamera::localizedName() const {
    return "Media File " + std::filesystem::path(_path).filename().string();
}

CaptureCapabilities MediaFileCamera::capabilities() const { return CaptureCapabilities{}; }

bool MediaFileCamera::isConnected() const {
    std::error_code ec;
    return std::filesystem::is_regular_file(_path, ec);
}

CaptureFormat MediaFileCamera::formatForPreset(const AVCaptureSessionPreset& preset) const {
    return AVCaptureSessionPresetIsKnown(preset) ? _size : CaptureFormat{};
}

NSErrorRef MediaFileCamera::startStream(const CaptureStreamRequest& request, std::shared_ptr<CaptureFrameSink> sink) {
    stopStream();
    if (!isConnected()) {
        return NSError::errorWithDescription(AVFoundationErrorDomain, AVErrorDeviceNotConnected,
                                             "The video file is gone: " + _path);
    }
    // The loop keeps the camera alive: the last reference may go while a frame is being delivered.
    _stream.start([this, keepAlive = weak_from_this().lock(), request, sink = std::move(sink)](const StreamStop& stop) {
        run(request, sink, stop);
    });
    return nullptr;
}

void MediaFileCamera::stopStream() {
    // Stopped from a frame callback on the stream's own thread, the run ends by itself after the current frame.
    _stream.stop();
}

void MediaFileCamera::run(CaptureStreamRequest request, std::shared_ptr<CaptureFrameSink> sink,
                          const StreamStop& stop) {
    using Clock = std::chrono::steady_clock;
    PixelConverter converter;
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    const auto fail = [&](const std::string& text) {
        sink->didFailWithError(fileError(text));
        av_frame_free(&frame);
        av_packet_free(&packet);
    };
    if (packet == nullptr || frame == nullptr) {
        fail("No memory to decode the video file.");
        return;
    }
    auto loopStart = Clock::now();
    double lastOffset = 0; // seconds into the file of the previous frame, to pace files without time stamps
    int64_t framesThisLoop = 0;
    while (!stop.requested()) {
        Decoder decoder;
        if (!decoder.open(_path)) {
            fail("The video file can no longer be decoded: " + _path);
            return;
        }
        const AVStream* stream = decoder.format->streams[decoder.stream];
        const double timeBase = av_q2d(stream->time_base);
        const AVRational rate = av_guess_frame_rate(decoder.format, const_cast<AVStream*>(stream), nullptr);
        const double frameInterval = rate.num > 0 && rate.den > 0 ? av_q2d(av_inv_q(rate)) : 1.0 / 30.0;
        const int64_t startPts = stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0;
        framesThisLoop = 0;
        bool draining = false;
        while (!stop.requested()) {
            int got = avcodec_receive_frame(decoder.codec, frame);
            if (got == AVERROR(EAGAIN)) {
                if (draining) {
                    break;
                }
                const int read = av_read_frame(decoder.format, packet);
                if (read < 0) {
                    avcodec_send_packet(decoder.codec, nullptr); // end of file: flush the decoder
                    draining = true;
                } else {
                    if (packet->stream_index == decoder.stream) {
                        avcodec_send_packet(decoder.codec, packet);
                    }
                    av_packet_unref(packet);
                }
                continue;
            }
            if (got < 0) {
                break; // end of stream (or a broken tail): start the next loop
            }
            double offset = lastOffset + frameInterval;
            if (frame->best_effort_timestamp != AV_NOPTS_VALUE) {
                offset = static_cast<double>(frame->best_effort_timestamp - startPts) * timeBase;
            } else if (framesThisLoop == 0) {
                offset = 0;
            }
            lastOffset = offset;
            ++framesThisLoop;
            // Real time: each frame is shown when its time in the file has come; a stop ends the wait at once.
            if (!stop.sleepUntil(loopStart + std::chrono::duration_cast<Clock::duration>(
                                                 std::chrono::duration<double>(std::max(0.0, offset))))) {
                break;
            }
            CVPixelBufferRef pixels = converter.convertFrame(frame, request.pixelFormat, _size.width, _size.height);
            av_frame_unref(frame);
            if (!pixels) {
                continue;
            }
            CMSampleTimingInfo timing;
            timing.presentationTimeStamp = CMClockGetHostTimeNow();
            timing.duration = CMTimeMakeWithSeconds(frameInterval, 1000000);
            CMSampleBufferRef sample;
            CMSampleBufferCreateForImageBuffer(pixels, true, timing, &sample);
            sink->didCaptureFrame(sample);
        }
        if (framesThisLoop == 0 && !stop.requested()) {
            fail("The video file has no frames: " + _path);
            return;
        }
        // The next loop starts one frame interval after the last frame.
        loopStart += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(lastOffset + frameInterval));
        lastOffset = -frameInterval;
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
}

} // namespace kp
