// SPDX-License-Identifier: MIT
// Reading movies back with libavformat and libavcodec.
#include "KPImage/Platform/AVAssetReader.h"

#include "PixelConverter.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <cstring>

namespace kp {

struct AVAssetReader::State {
    std::string path;
    AVFormatContext* demuxer = nullptr;
    AVCodecContext* decoder = nullptr;
    AVPacket* packet = nullptr;
    AVFrame* frame = nullptr;
    int stream = -1;
    bool draining = false;
    PixelConverter converter;

    ~State() {
        avcodec_free_context(&decoder);
        avformat_close_input(&demuxer);
        av_packet_free(&packet);
        av_frame_free(&frame);
    }

    // Opens the file and the decoder of its first video stream; an error text otherwise.
    std::string open() {
        int ret = avformat_open_input(&demuxer, path.c_str(), nullptr, nullptr);
        if (ret < 0) {
            return describe(ret);
        }
        ret = avformat_find_stream_info(demuxer, nullptr);
        if (ret < 0) {
            return describe(ret);
        }
        stream = av_find_best_stream(demuxer, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        if (stream < 0) {
            return "it has no video track";
        }
        const AVCodecParameters* par = demuxer->streams[stream]->codecpar;
        const AVCodec* codec = avcodec_find_decoder(par->codec_id);
        decoder = codec != nullptr ? avcodec_alloc_context3(codec) : nullptr;
        packet = av_packet_alloc();
        frame = av_frame_alloc();
        if (decoder == nullptr || packet == nullptr || frame == nullptr ||
            avcodec_parameters_to_context(decoder, par) < 0) {
            return "no decoder for its video";
        }
        decoder->thread_count = 1;
        decoder->pkt_timebase = demuxer->streams[stream]->time_base;
        ret = avcodec_open2(decoder, codec, nullptr);
        return ret < 0 ? describe(ret) : "";
    }

    static std::string describe(int code) {
        char text[AV_ERROR_MAX_STRING_SIZE] = {};
        av_strerror(code, text, sizeof text);
        return text;
    }
};

namespace {

// Copies a decoded frame of the same layout into a new pixel buffer, byte for byte; the 4:2:0 planar
// layout becomes '420f' by interleaving its chroma planes.
CVPixelBufferRef copyExactly(const AVFrame* frame, OSType format) {
    CVPixelBufferRef out;
    if (CVPixelBufferCreate(static_cast<size_t>(frame->width), static_cast<size_t>(frame->height), format, &out) !=
        kCVReturnSuccess) {
        return nullptr;
    }
    CVPixelBufferLockBaseAddress(out, 0);
    const size_t height = out->height();
    if (format == kCVPixelFormatType_32BGRA) {
        auto* dst = static_cast<uint8_t*>(CVPixelBufferGetBaseAddress(out));
        for (size_t y = 0; y < height; ++y) {
            std::memcpy(dst + y * out->plane(0).bytesPerRow, frame->data[0] + y * frame->linesize[0], out->width() * 4);
        }
    } else {
        auto* luma = static_cast<uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(out, 0));
        auto* chroma = static_cast<uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(out, 1));
        const CVPixelBuffer::Plane& cp = out->plane(1);
        for (size_t y = 0; y < height; ++y) {
            std::memcpy(luma + y * out->plane(0).bytesPerRow, frame->data[0] + y * frame->linesize[0], out->width());
        }
        for (size_t y = 0; y < cp.height; ++y) {
            uint8_t* row = chroma + y * cp.bytesPerRow;
            if (frame->format == AV_PIX_FMT_NV12) {
                std::memcpy(row, frame->data[1] + y * frame->linesize[1], cp.width * 2);
            } else {
                for (size_t x = 0; x < cp.width; ++x) {
                    row[2 * x] = frame->data[1][y * frame->linesize[1] + x];
                    row[2 * x + 1] = frame->data[2][y * frame->linesize[2] + x];
                }
            }
        }
    }
    CVPixelBufferUnlockBaseAddress(out, 0);
    return out;
}

bool sameLayout(int frameFormat, OSType format) {
    if (format == kCVPixelFormatType_32BGRA) {
        return frameFormat == AV_PIX_FMT_BGRA;
    }
    return frameFormat == AV_PIX_FMT_NV12 || frameFormat == AV_PIX_FMT_YUV420P || frameFormat == AV_PIX_FMT_YUVJ420P;
}

} // namespace

AVAssetReader::AVAssetReader(std::unique_ptr<State> state) : _state(std::move(state)) {}

AVAssetReader::~AVAssetReader() = default;

std::unique_ptr<AVAssetReader> AVAssetReader::assetReaderWithURL(const NSURLRef& url, NSErrorRef* error) {
    const auto fail = [&](const std::string& path, const std::string& cause) -> std::unique_ptr<AVAssetReader> {
        if (error != nullptr) {
            *error = NSError::errorWithDescription(AVFoundationErrorDomain, -11829,
                                                   "Cannot read the movie \"" + path + "\": " + cause);
        }
        return nullptr;
    };
    if (!url) {
        return fail("", "no URL");
    }
    // One pass to count the samples, then a fresh open for decoding from the start.
    AVAssetVideoTrackInfo info;
    {
        State scan;
        scan.path = url->path();
        if (const std::string cause = scan.open(); !cause.empty()) {
            return fail(url->path(), cause);
        }
        const AVStream* st = scan.demuxer->streams[scan.stream];
        const AVCodecParameters* par = st->codecpar;
        info.codec = avcodec_get_name(par->codec_id);
        char tag[5] = {};
        for (int i = 0; i < 4; ++i) {
            const char c = static_cast<char>((par->codec_tag >> (8 * i)) & 0xFF);
            tag[i] = c >= 0x20 && c < 0x7F ? c : '?';
        }
        info.codecTag = tag;
        const char* pixelName = av_get_pix_fmt_name(static_cast<AVPixelFormat>(par->format));
        info.pixelFormat = pixelName != nullptr ? pixelName : "";
        info.width = par->width;
        info.height = par->height;
        int64_t first = AV_NOPTS_VALUE;
        int64_t end = AV_NOPTS_VALUE;
        while (av_read_frame(scan.demuxer, scan.packet) >= 0) {
            if (scan.packet->stream_index == scan.stream) {
                ++info.frames;
                const int64_t pts = scan.packet->pts != AV_NOPTS_VALUE ? scan.packet->pts : scan.packet->dts;
                if (pts != AV_NOPTS_VALUE) {
                    first = first == AV_NOPTS_VALUE ? pts : std::min(first, pts);
                    end = end == AV_NOPTS_VALUE ? pts + scan.packet->duration
                                                : std::max(end, pts + scan.packet->duration);
                }
            }
            av_packet_unref(scan.packet);
        }
        if (first != AV_NOPTS_VALUE) {
            info.startTime = static_cast<double>(first) * av_q2d(st->time_base);
            // Fragments may not give each sample's duration; the track's duration covers the last one.
            const int64_t whole = st->duration != AV_NOPTS_VALUE ? std::max(st->duration, end - first) : end - first;
            info.duration = static_cast<double>(whole) * av_q2d(st->time_base);
        }
    }
    auto state = std::make_unique<State>();
    state->path = url->path();
    if (const std::string cause = state->open(); !cause.empty()) {
        return fail(url->path(), cause);
    }
    auto reader = std::make_unique<AVAssetReader>(std::move(state));
    reader->_info = std::move(info);
    return reader;
}

CMSampleBufferRef AVAssetReader::copyNextSampleBuffer(OSType pixelFormat) {
    if (pixelFormat != kCVPixelFormatType_32BGRA && pixelFormat != kCVPixelFormatType_420YpCbCr8BiPlanarFullRange) {
        return nullptr;
    }
    State& s = *_state;
    for (;;) {
        const int received = avcodec_receive_frame(s.decoder, s.frame);
        if (received == 0) {
            break;
        }
        if (received != AVERROR(EAGAIN) || s.draining) {
            return nullptr;
        }
        int read = 0;
        while ((read = av_read_frame(s.demuxer, s.packet)) >= 0 && s.packet->stream_index != s.stream) {
            av_packet_unref(s.packet);
        }
        if (read < 0) {
            s.draining = true;
            avcodec_send_packet(s.decoder, nullptr);
            continue;
        }
        const int sent = avcodec_send_packet(s.decoder, s.packet);
        av_packet_unref(s.packet);
        if (sent < 0) {
            return nullptr;
        }
    }
    const AVFrame* frame = s.frame;
    CVPixelBufferRef pixels = sameLayout(frame->format, pixelFormat)
                                  ? copyExactly(frame, pixelFormat)
                                  : s.converter.convertFrame(frame, pixelFormat, static_cast<size_t>(frame->width),
                                                             static_cast<size_t>(frame->height));
    const AVRational tb = s.demuxer->streams[s.stream]->time_base;
    CMSampleTimingInfo timing;
    const int64_t pts = frame->best_effort_timestamp;
    if (pts != AV_NOPTS_VALUE && tb.num == 1) {
        timing.presentationTimeStamp = CMTimeMake(pts, tb.den);
        if (frame->pkt_duration > 0) {
            timing.duration = CMTimeMake(frame->pkt_duration, tb.den);
        }
    } else if (pts != AV_NOPTS_VALUE) {
        timing.presentationTimeStamp = CMTimeMakeWithSeconds(static_cast<double>(pts) * av_q2d(tb), 1000000);
    }
    av_frame_unref(s.frame);
    CMSampleBufferRef sample;
    if (!pixels || CMSampleBufferCreateForImageBuffer(pixels, true, timing, &sample) != noErr) {
        return nullptr;
    }
    return sample;
}

} // namespace kp
