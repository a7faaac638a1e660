// SPDX-License-Identifier: MIT
// The movie writer's thread: frames from a bounded queue into a fragmented QuickTime movie (libavformat),
// stored as delivered or encoded (libavcodec: libx264, libx265, FFV1).
#include "MovieWriterCore.h"

#include "KPImage/Platform/AVAssetWriter.h"
#include "Platform/Media/PixelConverter.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <mutex>
#include <variant>

namespace kp {

namespace {

// A fragment every second, so a killed process leaves everything up to its last whole second; large raw frames
// close a fragment sooner, at 16 MB, so the muxer never holds a second of them in memory.
constexpr int64_t kFragmentMicroseconds = 1000000;
constexpr int64_t kFragmentBytes = 16 << 20;
constexpr int kIOBufferSize = 1 << 18;
constexpr int64_t kDefaultKeyFrameInterval = 30;

struct WriteFailure {
    int64_t code = AVErrorUnknown;
    std::string description;
    int posixCode = 0;
};

const char* encoderName(const std::string& codecType) {
    if (codecType == AVVideoCodecTypeH264) {
        return "libx264";
    }
    if (codecType == AVVideoCodecTypeHEVC) {
        return "libx265";
    }
    if (codecType == AVVideoCodecTypeFFV1) {
        return "ffv1";
    }
    return nullptr;
}

std::optional<double> numberSetting(const AVOutputSettings& settings, const char* key) {
    const auto it = settings.find(key);
    if (it == settings.end()) {
        return std::nullopt;
    }
    if (const auto* i = std::get_if<int64_t>(&it->second)) {
        return static_cast<double>(*i);
    }
    if (const auto* d = std::get_if<double>(&it->second)) {
        return *d;
    }
    return std::nullopt;
}

std::string stringSetting(const AVOutputSettings& settings, const char* key) {
    const auto it = settings.find(key);
    if (it == settings.end()) {
        return "";
    }
    const auto* s = std::get_if<std::string>(&it->second);
    return s != nullptr ? *s : "";
}

std::string ffmpegError(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

// The movie file: owned and used by the writer thread only.
class MovieFile {
public:
    MovieFile(int fd, std::string path, std::optional<AVOutputSettings> settings)
        : _fd(fd), _path(std::move(path)), _settings(std::move(settings)) {}
    ~MovieFile() { release(); }
    MovieFile(const MovieFile&) = delete;
    MovieFile& operator=(const MovieFile&) = delete;

    std::optional<WriteFailure> write(const CMSampleBufferRef& sample, CMTime sessionStart);
    std::optional<WriteFailure> close();
    /// Stops without completing the movie; the file keeps its whole fragments.
    void abandon() { release(); }

private:
    std::optional<WriteFailure> open(const CVPixelBufferRef& first, CMTime firstTime);
    CMSampleBufferRef conform(const CMSampleBufferRef& sample);
    std::optional<WriteFailure> writeRaw(const CMSampleBufferRef& sample, int64_t pts, int64_t duration);
    std::optional<WriteFailure> encode(const CMSampleBufferRef& sample, int64_t pts);
    std::optional<WriteFailure> drainEncoder();
    std::optional<WriteFailure> writePacket(AVPacket* packet);
    std::optional<WriteFailure> ioFailure(int ret, const char* what);
    std::optional<WriteFailure> checkStillThere() const;
    int64_t ticks(CMTime time, CMTime sessionStart) const;
    void release();

    static int writeCallback(void* opaque, uint8_t* buffer, int size);
    static int64_t seekCallback(void* opaque, int64_t offset, int whence);

    int _fd;
    const std::string _path;
    const std::optional<AVOutputSettings> _settings;
    int _ioErrno = 0;
    AVFormatContext* _muxer = nullptr;
    AVIOContext* _io = nullptr;
    AVStream* _stream = nullptr;
    AVRational _timeBase{1, 600};
    AVCodecContext* _encoder = nullptr;
    SwsContext* _scaler = nullptr;
    AVFrame* _frame = nullptr;
    AVPacket* _packet = nullptr;
    CMSampleBufferRef _pending; // raw frames wait for the next one, which gives their exact duration
    int64_t _pendingPts = 0;
    int64_t _lastPts = -1;
    int64_t _lastDuration = 0;
    int64_t _nextCheck = 0;
    OSType _sourceFormat = 0;
    size_t _sourceWidth = 0;
    size_t _sourceHeight = 0;
    PixelConverter _converter;
};

int MovieFile::writeCallback(void* opaque, uint8_t* buffer, int size) {
    auto* self = static_cast<MovieFile*>(opaque);
    int done = 0;
    while (done < size) {
        const ssize_t n = ::write(self->_fd, buffer + done, static_cast<size_t>(size - done));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            self->_ioErrno = errno;
            return AVERROR(errno);
        }
        done += static_cast<int>(n);
    }
    return size;
}

int64_t MovieFile::seekCallback(void* opaque, int64_t offset, int whence) {
    auto* self = static_cast<MovieFile*>(opaque);
    if (whence == AVSEEK_SIZE) {
        struct stat st {};
        return fstat(self->_fd, &st) == 0 ? static_cast<int64_t>(st.st_size) : AVERROR(errno);
    }
    const off_t at = lseek(self->_fd, offset, whence & ~AVSEEK_FORCE);
    return at < 0 ? AVERROR(errno) : static_cast<int64_t>(at);
}

int64_t MovieFile::ticks(CMTime time, CMTime sessionStart) const {
    const CMTime relative = CMTimeSubtract(time, sessionStart);
    if (CMTIME_IS_INVALID(relative) || relative.timescale <= 0) {
        return _lastPts + 1;
    }
    return av_rescale_q(relative.value, AVRational{1, relative.timescale}, _timeBase);
}

std::optional<WriteFailure> MovieFile::ioFailure(int ret, const char* what) {
    const int posix = _ioErrno != 0 ? _ioErrno : (ret == AVERROR(ENOSPC) ? ENOSPC : 0);
    WriteFailure failure;
    failure.posixCode = posix;
    if (posix == ENOSPC) {
        failure.code = AVErrorDiskFull;
        failure.description = "Cannot write the movie \"" + _path + "\": no space left on the disk";
    } else if (posix != 0) {
        failure.code = AVErrorFileFailedToWrite;
        failure.description = "Cannot write the movie \"" + _path + "\": " + std::strerror(posix);
    } else {
        failure.description = std::string("Cannot ") + what + " the movie \"" + _path + "\": " + ffmpegError(ret);
    }
    return failure;
}

std::optional<WriteFailure> MovieFile::checkStillThere() const {
    struct stat mine {};
    struct stat named {};
    if (fstat(_fd, &mine) != 0 || stat(_path.c_str(), &named) != 0 || mine.st_ino != named.st_ino ||
        mine.st_dev != named.st_dev) {
        return WriteFailure{AVErrorFileFailedToWrite,
                            "The movie \"" + _path + "\" was removed while it was being written (its folder was "
                            "deleted or the file replaced)",
                            ENOENT};
    }
    return std::nullopt;
}

std::optional<WriteFailure> MovieFile::open(const CVPixelBufferRef& first, CMTime firstTime) {
    _sourceFormat = first->pixelFormat();
    _sourceWidth = first->width();
    _sourceHeight = first->height();
    const int width = static_cast<int>(first->width());
    const int height = static_cast<int>(first->height());
    // The movie's clock is the frames' own: time stamps stay exact.
    _timeBase = AVRational{1, firstTime.timescale > 0 ? firstTime.timescale : 600};

    if (avformat_alloc_output_context2(&_muxer, nullptr, "mov", nullptr) < 0 || _muxer == nullptr) {
        return WriteFailure{AVErrorUnknown, "Cannot create a QuickTime muxer", 0};
    }
    auto* ioBuffer = static_cast<uint8_t*>(av_malloc(kIOBufferSize));
    _io = ioBuffer != nullptr ? avio_alloc_context(ioBuffer, kIOBufferSize, 1, this, nullptr, &writeCallback,
                                                   &seekCallback)
                              : nullptr;
    if (_io == nullptr) {
        av_free(ioBuffer);
        return WriteFailure{AVErrorOutOfMemory, "Out of memory", ENOMEM};
    }
    _muxer->pb = _io;
    _muxer->flags |= AVFMT_FLAG_CUSTOM_IO | AVFMT_FLAG_FLUSH_PACKETS;
    _muxer->flush_packets = 1;
    // 'NV12' raw video is not an official QuickTime sample type, though FFmpeg readers take it.
    _muxer->strict_std_compliance = FF_COMPLIANCE_UNOFFICIAL;
    _stream = avformat_new_stream(_muxer, nullptr);
    _packet = av_packet_alloc();
    if (_stream == nullptr || _packet == nullptr) {
        return WriteFailure{AVErrorOutOfMemory, "Out of memory", ENOMEM};
    }
    _stream->time_base = _timeBase;

    const bool nv12 = _sourceFormat == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
    if (!_settings) {
        AVCodecParameters* par = _stream->codecpar;
        par->codec_type = AVMEDIA_TYPE_VIDEO;
        par->codec_id = AV_CODEC_ID_RAWVIDEO;
        par->format = nv12 ? AV_PIX_FMT_NV12 : AV_PIX_FMT_BGRA;
        par->codec_tag = nv12 ? MKTAG('N', 'V', '1', '2') : MKTAG('B', 'G', 'R', 'A');
        par->color_range = nv12 ? AVCOL_RANGE_JPEG : AVCOL_RANGE_UNSPECIFIED;
        par->width = width;
        par->height = height;
    } else {
        const std::string codecType = stringSetting(*_settings, AVVideoCodecKey);
        const char* name = encoderName(codecType);
        const AVCodec* codec = name != nullptr ? avcodec_find_encoder_by_name(name) : nullptr;
        if (codec == nullptr) {
            return WriteFailure{AVErrorFormatUnsupported,
                                "No encoder for the codec \"" + codecType + "\" in this FFmpeg build", 0};
        }
        _encoder = avcodec_alloc_context3(codec);
        _frame = av_frame_alloc();
        if (_encoder == nullptr || _frame == nullptr) {
            return WriteFailure{AVErrorOutOfMemory, "Out of memory", ENOMEM};
        }
        const double outWidth = numberSetting(*_settings, AVVideoWidthKey).value_or(width);
        const double outHeight = numberSetting(*_settings, AVVideoHeightKey).value_or(height);
        if (!(outWidth >= 2 && outWidth <= 16384 && outHeight >= 2 && outHeight <= 16384)) {
            return WriteFailure{AVErrorFormatUnsupported, "The output size must be 2..16384 pixels a side", 0};
        }
        const bool ffv1 = codecType == AVVideoCodecTypeFFV1;
        _encoder->width = static_cast<int>(outWidth);
        _encoder->height = static_cast<int>(outHeight);
        if (!ffv1) {
            // 4:2:0 needs even sizes.
            _encoder->width &= ~1;
            _encoder->height &= ~1;
        }
        _encoder->pix_fmt = ffv1 && !nv12 ? AV_PIX_FMT_BGRA : AV_PIX_FMT_YUV420P;
        _encoder->color_range = nv12 ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
        _encoder->time_base = _timeBase;
        _encoder->framerate = AVRational{30, 1};
        _encoder->gop_size =
            static_cast<int>(numberSetting(*_settings, AVVideoMaxKeyFrameIntervalKey).value_or(kDefaultKeyFrameInterval));
        _encoder->max_b_frames = 0;
        // One core per recording: the camera and the analysis need the others.
        _encoder->thread_count = 1;
        if (_muxer->oformat->flags & AVFMT_GLOBALHEADER) {
            _encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        }
        if (!ffv1) {
            av_opt_set(_encoder->priv_data, "preset", codecType == AVVideoCodecTypeHEVC ? "ultrafast" : "veryfast", 0);
            av_opt_set(_encoder->priv_data, "tune", "zerolatency", 0);
            if (codecType == AVVideoCodecTypeHEVC) {
                av_opt_set(_encoder->priv_data, "x265-params", "log-level=error", 0);
                _encoder->codec_tag = MKTAG('h', 'v', 'c', '1');
            }
            if (const auto bitRate = numberSetting(*_settings, AVVideoAverageBitRateKey); bitRate && *bitRate > 0) {
                _encoder->bit_rate = static_cast<int64_t>(*bitRate);
            } else {
                const double quality = std::clamp(numberSetting(*_settings, AVVideoQualityKey).value_or(0.5), 0.0, 1.0);
                av_opt_set_double(_encoder->priv_data, "crf", 40.0 - 28.0 * quality, 0);
            }
        }
        const int opened = avcodec_open2(_encoder, codec, nullptr);
        if (opened < 0) {
            return WriteFailure{AVErrorUnknown, "Cannot open the " + codecType + " encoder: " + ffmpegError(opened), 0};
        }
        avcodec_parameters_from_context(_stream->codecpar, _encoder);
        if (ffv1) {
            _stream->codecpar->codec_tag = MKTAG('F', 'F', 'V', '1');
        }
        _frame->format = _encoder->pix_fmt;
        _frame->width = _encoder->width;
        _frame->height = _encoder->height;
        _frame->color_range = _encoder->color_range;
        if (av_frame_get_buffer(_frame, 0) < 0) {
            return WriteFailure{AVErrorOutOfMemory, "Out of memory", ENOMEM};
        }
        _scaler = sws_getContext(width, height, nv12 ? AV_PIX_FMT_NV12 : AV_PIX_FMT_BGRA, _encoder->width,
                                 _encoder->height, _encoder->pix_fmt, SWS_BICUBIC | SWS_ACCURATE_RND, nullptr, nullptr,
                                 nullptr);
        if (_scaler == nullptr) {
            return WriteFailure{AVErrorFormatUnsupported, "Cannot convert the frames for the encoder", 0};
        }
    }

    AVDictionary* options = nullptr;
    av_dict_set(&options, "movflags", "empty_moov+default_base_moof", 0);
    av_dict_set_int(&options, "frag_duration", kFragmentMicroseconds, 0);
    av_dict_set_int(&options, "frag_size", kFragmentBytes, 0);
    const int header = avformat_write_header(_muxer, &options);
    av_dict_free(&options);
    if (header < 0) {
        return ioFailure(header, "start");
    }
    _nextCheck = av_rescale_q(kFragmentMicroseconds, AVRational{1, 1000000}, _stream->time_base);
    return std::nullopt;
}

// A frame of another size or format (the camera was switched) as one of the movie's: the centre of the
// picture at the movie's aspect ratio, scaled to its size, in its format. Nil when it cannot be converted.
CMSampleBufferRef MovieFile::conform(const CMSampleBufferRef& sample) {
    const CVPixelBufferRef pixels = CMSampleBufferGetImageBuffer(sample);
    const uint64_t width = pixels->width();
    const uint64_t height = pixels->height();
    if (width == _sourceWidth && height == _sourceHeight && pixels->pixelFormat() == _sourceFormat) {
        return sample;
    }
    uint64_t cropWidth = width;
    uint64_t cropHeight = height;
    if (width * _sourceHeight > height * _sourceWidth) {
        cropWidth = std::max<uint64_t>(1, (height * _sourceWidth + _sourceHeight / 2) / _sourceHeight);
    } else {
        cropHeight = std::max<uint64_t>(1, (width * _sourceHeight + _sourceWidth / 2) / _sourceWidth);
    }
    CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    const CVPixelBufferRef converted =
        _converter.convert(pixels, _sourceFormat, _sourceWidth, _sourceHeight, (width - cropWidth) / 2,
                           (height - cropHeight) / 2, cropWidth, cropHeight);
    CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    if (!converted) {
        return nullptr;
    }
    CMSampleTimingInfo timing;
    timing.presentationTimeStamp = CMSampleBufferGetPresentationTimeStamp(sample);
    timing.duration = CMSampleBufferGetDuration(sample);
    CMSampleBufferRef out;
    CMSampleBufferCreateForImageBuffer(converted, true, timing, &out);
    return out;
}

std::optional<WriteFailure> MovieFile::write(const CMSampleBufferRef& delivered, CMTime sessionStart) {
    CMSampleBufferRef sample = delivered;
    if (_muxer == nullptr) {
        if (auto failure = open(CMSampleBufferGetImageBuffer(sample), CMSampleBufferGetPresentationTimeStamp(sample))) {
            return failure;
        }
    } else if (sample = conform(delivered); !sample) {
        return WriteFailure{AVErrorFormatUnsupported, "Cannot convert a frame to the movie's size and format", 0};
    }
    int64_t pts = ticks(CMSampleBufferGetPresentationTimeStamp(sample), sessionStart);
    if (pts <= _lastPts) {
        pts = _lastPts + 1; // two stamps that round to one tick
    }
    _lastPts = pts;
    std::optional<WriteFailure> failure;
    if (_encoder != nullptr) {
        failure = encode(sample, pts);
    } else {
        if (_pending) {
            _lastDuration = pts - _pendingPts;
            failure = writeRaw(_pending, _pendingPts, _lastDuration);
        }
        _pending = sample;
        _pendingPts = pts;
    }
    if (failure) {
        return failure;
    }
    const int64_t written = av_rescale_q(pts, _timeBase, _stream->time_base);
    if (written >= _nextCheck) {
        _nextCheck = written + av_rescale_q(kFragmentMicroseconds, AVRational{1, 1000000}, _stream->time_base);
        return checkStillThere();
    }
    return std::nullopt;
}

std::optional<WriteFailure> MovieFile::writeRaw(const CMSampleBufferRef& sample, int64_t pts, int64_t duration) {
    const CVPixelBufferRef pixels = CMSampleBufferGetImageBuffer(sample);
    const bool nv12 = _sourceFormat == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
    const uint64_t width = pixels->width();
    const uint64_t height = pixels->height();
    // Rows are stored tightly, as readers of raw QuickTime video expect.
    const uint64_t lumaRow = nv12 ? width : width * 4;
    const uint64_t chromaRow = nv12 ? (width + 1) / 2 * 2 : 0;
    const uint64_t chromaRows = nv12 ? (height + 1) / 2 : 0;
    const uint64_t size = lumaRow * height + chromaRow * chromaRows;
    if (size > static_cast<uint64_t>(INT32_MAX)) {
        return WriteFailure{AVErrorFormatUnsupported, "The frames are too large for a QuickTime movie", 0};
    }
    av_packet_unref(_packet);
    CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    const bool tight = CVPixelBufferGetBytesPerRowOfPlane(pixels, 0) == lumaRow &&
                       (!nv12 || (CVPixelBufferGetBytesPerRowOfPlane(pixels, 1) == chromaRow &&
                                  pixels->plane(1).offset == lumaRow * height));
    if (tight) {
        // Rows without padding are written straight from the frame: the muxer copies them before this returns.
        _packet->buf = av_buffer_create(pixels->bytes(), static_cast<int>(size), [](void*, uint8_t*) {}, nullptr,
                                        AV_BUFFER_FLAG_READONLY);
        if (_packet->buf == nullptr) {
            CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
            return WriteFailure{AVErrorOutOfMemory, "Out of memory", ENOMEM};
        }
        _packet->data = _packet->buf->data;
        _packet->size = static_cast<int>(size);
    } else if (av_new_packet(_packet, static_cast<int>(size)) < 0) {
        CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
        return WriteFailure{AVErrorOutOfMemory, "Out of memory", ENOMEM};
    }
    uint8_t* out = _packet->data;
    const auto copyPlane = [&](const uint8_t* source, size_t stride, uint64_t rowBytes, uint64_t rows) {
        for (uint64_t y = 0; y < rows; ++y) {
            std::memcpy(out, source + y * stride, rowBytes);
            out += rowBytes;
        }
    };
    if (tight) {
        // already in place
    } else if (nv12) {
        copyPlane(static_cast<const uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(pixels, 0)),
                  CVPixelBufferGetBytesPerRowOfPlane(pixels, 0), lumaRow, height);
        copyPlane(static_cast<const uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(pixels, 1)),
                  CVPixelBufferGetBytesPerRowOfPlane(pixels, 1), chromaRow, chromaRows);
    } else {
        copyPlane(static_cast<const uint8_t*>(CVPixelBufferGetBaseAddress(pixels)),
                  CVPixelBufferGetBytesPerRow(pixels), lumaRow, height);
    }
    _packet->pts = pts;
    _packet->dts = pts;
    _packet->duration = duration;
    _packet->flags |= AV_PKT_FLAG_KEY;
    av_packet_rescale_ts(_packet, _timeBase, _stream->time_base);
    auto failure = writePacket(_packet);
    av_packet_unref(_packet);
    CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    return failure;
}

std::optional<WriteFailure> MovieFile::encode(const CMSampleBufferRef& sample, int64_t pts) {
    const CVPixelBufferRef pixels = CMSampleBufferGetImageBuffer(sample);
    if (av_frame_make_writable(_frame) < 0) {
        return WriteFailure{AVErrorOutOfMemory, "Out of memory", ENOMEM};
    }
    const bool nv12 = _sourceFormat == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
    CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    const uint8_t* planes[4] = {};
    int strides[4] = {};
    if (nv12) {
        for (size_t i = 0; i < 2; ++i) {
            planes[i] = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(pixels, i));
            strides[i] = static_cast<int>(CVPixelBufferGetBytesPerRowOfPlane(pixels, i));
        }
    } else {
        planes[0] = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddress(pixels));
        strides[0] = static_cast<int>(CVPixelBufferGetBytesPerRow(pixels));
    }
    sws_scale(_scaler, planes, strides, 0, static_cast<int>(pixels->height()), _frame->data, _frame->linesize);
    CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    _frame->pts = pts;
    const int sent = avcodec_send_frame(_encoder, _frame);
    if (sent < 0) {
        return WriteFailure{AVErrorUnknown, "Cannot encode a frame: " + ffmpegError(sent), 0};
    }
    return drainEncoder();
}

std::optional<WriteFailure> MovieFile::drainEncoder() {
    for (;;) {
        av_packet_unref(_packet);
        const int received = avcodec_receive_packet(_encoder, _packet);
        if (received == AVERROR(EAGAIN) || received == AVERROR_EOF) {
            return std::nullopt;
        }
        if (received < 0) {
            return WriteFailure{AVErrorUnknown, "Cannot encode a frame: " + ffmpegError(received), 0};
        }
        if (_packet->duration <= 0) {
            _packet->duration = av_rescale_q(1, AVRational{1, 30}, _timeBase);
        }
        av_packet_rescale_ts(_packet, _encoder->time_base, _stream->time_base);
        if (auto failure = writePacket(_packet)) {
            return failure;
        }
    }
}

std::optional<WriteFailure> MovieFile::writePacket(AVPacket* packet) {
    packet->stream_index = 0;
    const int ret = av_write_frame(_muxer, packet);
    if (ret < 0 || _io->error < 0) {
        return ioFailure(ret < 0 ? ret : _io->error, "write");
    }
    return std::nullopt;
}

std::optional<WriteFailure> MovieFile::close() {
    if (_muxer == nullptr) {
        return WriteFailure{AVErrorNoDataCaptured, "No frame was appended; the movie \"" + _path + "\" is empty", 0};
    }
    if (_pending) {
        const CMTime frameDuration = CMSampleBufferGetDuration(_pending);
        int64_t duration = _lastDuration;
        if (CMTIME_IS_VALID(frameDuration) && frameDuration.timescale > 0 && frameDuration.value > 0) {
            duration = av_rescale_q(frameDuration.value, AVRational{1, frameDuration.timescale}, _timeBase);
        }
        if (duration <= 0) {
            duration = std::max<int64_t>(1, av_rescale_q(1, AVRational{1, 30}, _timeBase));
        }
        auto failure = writeRaw(_pending, _pendingPts, duration);
        _pending.reset();
        if (failure) {
            return failure;
        }
    }
    if (_encoder != nullptr) {
        avcodec_send_frame(_encoder, nullptr);
        if (auto failure = drainEncoder()) {
            return failure;
        }
    }
    const int trailer = av_write_trailer(_muxer);
    avio_flush(_io);
    if (trailer < 0 || _io->error < 0) {
        return ioFailure(trailer < 0 ? trailer : _io->error, "finish");
    }
    if (fsync(_fd) != 0 && errno != EINVAL) {
        _ioErrno = errno;
        return ioFailure(AVERROR(errno), "finish");
    }
    if (auto failure = checkStillThere()) {
        return failure;
    }
    const int fd = _fd;
    _fd = -1;
    if (::close(fd) != 0 && errno != EINTR) {
        _ioErrno = errno;
        return ioFailure(AVERROR(errno), "finish");
    }
    return std::nullopt;
}

void MovieFile::release() {
    if (_io != nullptr) {
        av_freep(&_io->buffer);
        avio_context_free(&_io);
    }
    if (_muxer != nullptr) {
        _muxer->pb = nullptr;
        avformat_free_context(_muxer);
        _muxer = nullptr;
    }
    avcodec_free_context(&_encoder);
    av_frame_free(&_frame);
    av_packet_free(&_packet);
    sws_freeContext(_scaler);
    _scaler = nullptr;
    _pending.reset();
    if (_fd >= 0) {
        ::close(_fd);
        _fd = -1;
    }
}

} // namespace

bool AVVideoCodecTypeIsAvailable(const std::string& codecType) {
    const char* name = encoderName(codecType);
    return name != nullptr && avcodec_find_encoder_by_name(name) != nullptr;
}

MovieWriterCore::MovieWriterCore(std::string path) : _path(std::move(path)) {
    // The encoders report their statistics at info level; the writer reports failures itself.
    static std::once_flag quiet;
    std::call_once(quiet, [] {
        if (av_log_get_level() > AV_LOG_ERROR) {
            av_log_set_level(AV_LOG_ERROR);
        }
    });
}

MovieWriterCore::~MovieWriterCore() {
    shutdown();
    if (_fd >= 0) {
        ::close(_fd);
    }
}

NSErrorRef MovieWriterCore::error() const {
    std::lock_guard lock(_mutex);
    return _error;
}

bool MovieWriterCore::bindInput(std::optional<AVOutputSettings> settings) {
    std::lock_guard lock(_mutex);
    if (_bound || status() != AVAssetWriterStatusUnknown) {
        return false;
    }
    _bound = true;
    _settings = std::move(settings);
    return true;
}

bool MovieWriterCore::hasInput() const {
    std::lock_guard lock(_mutex);
    return _bound;
}

void MovieWriterCore::failLocked(int64_t code, const std::string& description, int posixCode) {
    NSError::UserInfo info{{NSLocalizedDescriptionKey, description}};
    if (posixCode != 0) {
        info["NSUnderlyingErrorCode"] = std::to_string(posixCode);
        info["NSUnderlyingErrorDomain"] = NSPOSIXErrorDomain;
    }
    _error = NSError::errorWithDomain(AVFoundationErrorDomain, code, std::move(info));
    _status.store(AVAssetWriterStatusFailed, std::memory_order_release);
    _queue.clear();
}

bool MovieWriterCore::start() {
    std::lock_guard lock(_mutex);
    if (status() != AVAssetWriterStatusUnknown) {
        return false;
    }
    if (!_bound) {
        failLocked(AVErrorUnknown, "The writer for \"" + _path + "\" has no input", 0);
        return false;
    }
    _fd = ::open(_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (_fd < 0) {
        const int code = errno;
        failLocked(code == ENOSPC ? AVErrorDiskFull : AVErrorFileFailedToWrite,
                   "Cannot create the movie \"" + _path + "\": " + std::strerror(code), code);
        return false;
    }
    _status.store(AVAssetWriterStatusWriting, std::memory_order_release);
    _thread = std::thread([this] { run(); });
    return true;
}

void MovieWriterCore::startSession(CMTime startTime) {
    std::lock_guard lock(_mutex);
    if (status() == AVAssetWriterStatusWriting && !_sessionStarted && CMTIME_IS_VALID(startTime)) {
        _sessionStarted = true;
        _sessionStart = startTime;
    }
}

bool MovieWriterCore::ready() const {
    std::lock_guard lock(_mutex);
    return status() == AVAssetWriterStatusWriting && !_inputFinished && !_finishRequested &&
           _queue.size() < AVAssetWriterInput::kQueueCapacity;
}

bool MovieWriterCore::append(const CMSampleBufferRef& sample) {
    if (!CMSampleBufferDataIsReady(sample)) {
        return false;
    }
    const CVPixelBufferRef pixels = CMSampleBufferGetImageBuffer(sample);
    const CMTime time = CMSampleBufferGetPresentationTimeStamp(sample);
    if (!pixels || CMTIME_IS_INVALID(time) || time.timescale <= 0 ||
        (pixels->pixelFormat() != kCVPixelFormatType_32BGRA &&
         pixels->pixelFormat() != kCVPixelFormatType_420YpCbCr8BiPlanarFullRange)) {
        return false;
    }
    std::lock_guard lock(_mutex);
    if (status() != AVAssetWriterStatusWriting || !_sessionStarted || _inputFinished || _finishRequested ||
        _queue.size() >= AVAssetWriterInput::kQueueCapacity || CMTimeCompare(time, _sessionStart) < 0 ||
        (CMTIME_IS_VALID(_lastTime) && CMTimeCompare(time, _lastTime) <= 0)) {
        return false;
    }
    _queue.push_back(sample);
    _lastTime = time;
    _wake.notify_all();
    return true;
}

void MovieWriterCore::markInputFinished() {
    std::lock_guard lock(_mutex);
    _inputFinished = true;
}

void MovieWriterCore::finish(std::function<void()> onClosed) {
    {
        std::lock_guard lock(_mutex);
        if (status() == AVAssetWriterStatusWriting && !_threadDone && !_finishRequested) {
            _finishRequested = true;
            _onClosed = std::move(onClosed);
            _wake.notify_all();
            return;
        }
    }
    if (onClosed) {
        onClosed();
    }
}

void MovieWriterCore::cancel() {
    {
        std::lock_guard lock(_mutex);
        const int64_t now = status();
        if (now == AVAssetWriterStatusUnknown) {
            _status.store(AVAssetWriterStatusCancelled, std::memory_order_release);
            return;
        }
        if (now != AVAssetWriterStatusWriting || _threadDone) {
            return;
        }
        _cancelRequested = true;
        _wake.notify_all();
    }
    if (_thread.joinable() && _thread.get_id() != std::this_thread::get_id()) {
        _thread.join();
    }
    std::function<void()> onClosed;
    {
        std::lock_guard lock(_mutex);
        if (status() == AVAssetWriterStatusWriting) {
            ::unlink(_path.c_str());
            _status.store(AVAssetWriterStatusCancelled, std::memory_order_release);
        }
        _queue.clear();
        onClosed = std::move(_onClosed);
    }
    if (onClosed) {
        onClosed();
    }
}

void MovieWriterCore::shutdown() {
    {
        std::lock_guard lock(_mutex);
        if (status() == AVAssetWriterStatusWriting && !_finishRequested) {
            _finishRequested = true;
            _wake.notify_all();
        }
    }
    if (_thread.joinable()) {
        if (_thread.get_id() == std::this_thread::get_id()) {
            _thread.detach();
        } else {
            _thread.join();
        }
    }
}

void MovieWriterCore::run() {
    pthread_setname_np(pthread_self(), "kp.moviewriter");
    int fd = -1;
    std::optional<AVOutputSettings> settings;
    {
        std::lock_guard lock(_mutex);
        std::swap(fd, _fd);
        settings = _settings;
    }
    MovieFile file(fd, _path, std::move(settings));
    for (;;) {
        CMSampleBufferRef sample;
        CMTime sessionStart = kCMTimeInvalid;
        {
            std::unique_lock lock(_mutex);
            _wake.wait(lock, [this] { return !_queue.empty() || _finishRequested || _cancelRequested; });
            if (_cancelRequested) {
                _threadDone = true;
                break;
            }
            if (!_queue.empty()) {
                sample = std::move(_queue.front());
                _queue.pop_front();
                sessionStart = _sessionStart;
            }
        }
        std::optional<WriteFailure> failure;
        const bool finishing = !sample;
        failure = finishing ? file.close() : file.write(sample, sessionStart);
        sample.reset();
        if (!failure && !finishing) {
            continue;
        }
        if (failure) {
            file.abandon();
        }
        std::function<void()> onClosed;
        {
            std::lock_guard lock(_mutex);
            if (failure) {
                failLocked(failure->code, failure->description, failure->posixCode);
            } else {
                _status.store(AVAssetWriterStatusCompleted, std::memory_order_release);
            }
            _threadDone = true;
            onClosed = std::move(_onClosed);
        }
        if (onClosed) {
            onClosed();
        }
        return;
    }
    file.abandon();
}

} // namespace kp
