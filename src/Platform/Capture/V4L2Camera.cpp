// SPDX-License-Identifier: MIT
// A V4L2 webcam.
#include "Platform/Capture/V4L2Camera.h"

#include "Platform/Media/PixelConverter.h"

#include <linux/videodev2.h>
#include <sys/file.h>
#include <sys/mman.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>

namespace kp {

namespace {
constexpr uint32_t kBufferCount = 4;
constexpr int kPollMilliseconds = 100;
constexpr uint32_t kFrameRate = 30;
// Consecutive failed calls (poll, dequeue, re-queue) after which a stream gives up on the camera.
constexpr int kFailuresBeforeLost = 10;

NSErrorRef deviceError(AVError code, const std::string& text) {
    return NSError::errorWithDescription(AVFoundationErrorDomain, code, text);
}

// Only a removed device says ENODEV; EIO and the like are transfer errors that a camera survives.
bool isLost(int error) { return error == ENODEV; }

bool isUncompressed(uint32_t fourcc) {
    return fourcc == V4L2_PIX_FMT_YUYV || fourcc == V4L2_PIX_FMT_UYVY || fourcc == V4L2_PIX_FMT_NV12;
}
bool isConvertible(uint32_t fourcc) { return isUncompressed(fourcc) || fourcc == V4L2_PIX_FMT_MJPEG; }

// The fewest bytes per row (of the luma plane) a frame of the width needs; 0 for compressed formats.
uint32_t minimumStride(uint32_t fourcc, uint32_t width) {
    const uint32_t even = width + (width & 1U);
    if (fourcc == V4L2_PIX_FMT_NV12) {
        return even;
    }
    return isUncompressed(fourcc) ? even * 2 : 0;
}

PixelConverter::CameraLayout layoutOf(uint32_t fourcc) {
    return fourcc == V4L2_PIX_FMT_NV12   ? PixelConverter::CameraLayout::NV12
           : fourcc == V4L2_PIX_FMT_UYVY ? PixelConverter::CameraLayout::UYVY
                                         : PixelConverter::CameraLayout::YUYV;
}

// The driver's monotonic time stamp when it gives one (the same clock as the host time), else the time now.
CMTime frameTime(const v4l2_buffer& buf) {
    constexpr int64_t kNanos = 1000000000;
    const int64_t seconds = buf.timestamp.tv_sec;
    const int64_t micros = buf.timestamp.tv_usec;
    if ((buf.flags & V4L2_BUF_FLAG_TIMESTAMP_MASK) == V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC && seconds >= 0 &&
        seconds < INT64_MAX / kNanos - 1 && micros >= 0 && micros < 1000000 && (seconds != 0 || micros != 0)) {
        return CMTimeMake(seconds * kNanos + micros * 1000, static_cast<int32_t>(kNanos));
    }
    return CMClockGetHostTimeNow();
}

uint64_t area(const V4L2Camera::Size& s) { return static_cast<uint64_t>(s.width) * s.height; }

// Decodes MJPEG frames with libavcodec.
class MjpegDecoder {
public:
    MjpegDecoder() {
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
        if (codec != nullptr) {
            _context = avcodec_alloc_context3(codec);
            if (_context != nullptr && avcodec_open2(_context, codec, nullptr) < 0) {
                avcodec_free_context(&_context);
            }
        }
        _packet = av_packet_alloc();
        _frame = av_frame_alloc();
    }
    ~MjpegDecoder() {
        av_frame_free(&_frame);
        av_packet_free(&_packet);
        avcodec_free_context(&_context);
    }
    MjpegDecoder(const MjpegDecoder&) = delete;
    MjpegDecoder& operator=(const MjpegDecoder&) = delete;

    /// The decoded frame (valid until the next call); null when the data is no picture.
    const AVFrame* decode(const uint8_t* data, size_t size) {
        if (_context == nullptr || _packet == nullptr || _frame == nullptr || size == 0 || size > (1U << 28)) {
            return nullptr;
        }
        if (av_new_packet(_packet, static_cast<int>(size)) < 0) {
            return nullptr;
        }
        std::memcpy(_packet->data, data, size);
        const int sent = avcodec_send_packet(_context, _packet);
        av_packet_unref(_packet);
        if (sent < 0) {
            return nullptr;
        }
        av_frame_unref(_frame);
        return avcodec_receive_frame(_context, _frame) < 0 ? nullptr : _frame;
    }

private:
    AVCodecContext* _context = nullptr;
    AVPacket* _packet = nullptr;
    AVFrame* _frame = nullptr;
};
} // namespace

std::vector<std::string> V4L2Camera::scan(const std::shared_ptr<V4L2Interface>& io, const std::string& directory) {
    std::vector<std::string> out;
    for (const auto& path : io->listNodes(directory)) {
        const int fd = io->open(path);
        if (fd < 0) {
            continue;
        }
        v4l2_capability cap{};
        if (io->ioctl(fd, VIDIOC_QUERYCAP, &cap) == 0) {
            const uint32_t caps = (cap.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? cap.device_caps : cap.capabilities;
            if ((caps & V4L2_CAP_VIDEO_CAPTURE) != 0 && (caps & V4L2_CAP_STREAMING) != 0) {
                out.push_back(path);
            }
        }
        io->close(fd);
    }
    return out;
}

std::shared_ptr<V4L2Camera> V4L2Camera::open(const std::shared_ptr<V4L2Interface>& io, const std::string& path) {
    const int fd = io->open(path);
    if (fd < 0) {
        return nullptr;
    }
    auto camera = std::make_shared<V4L2Camera>(io, path, fd);
    if (!camera->probe()) {
        return nullptr; // the destructor closes the node
    }
    return camera;
}

V4L2Camera::V4L2Camera(std::shared_ptr<V4L2Interface> io, std::string path, int fd)
    : _io(std::move(io)), _path(std::move(path)), _fd(fd) {}

V4L2Camera::~V4L2Camera() {
    stopStream();
    _io->close(_fd);
}

bool V4L2Camera::probe() {
    v4l2_capability cap{};
    if (_io->ioctl(_fd, VIDIOC_QUERYCAP, &cap) != 0) {
        return false;
    }
    const uint32_t caps = (cap.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? cap.device_caps : cap.capabilities;
    if ((caps & V4L2_CAP_VIDEO_CAPTURE) == 0 || (caps & V4L2_CAP_STREAMING) == 0) {
        return false;
    }
    _name.assign(reinterpret_cast<const char*>(cap.card), strnlen(reinterpret_cast<const char*>(cap.card), sizeof cap.card));
    for (uint32_t i = 0; i < 64; ++i) {
        v4l2_fmtdesc desc{};
        desc.index = i;
        desc.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        if (_io->ioctl(_fd, VIDIOC_ENUM_FMT, &desc) != 0) {
            break;
        }
        if (!isConvertible(desc.pixelformat)) {
            continue; // formats this back-end does not convert
        }
        for (uint32_t j = 0; j < 256; ++j) {
            v4l2_frmsizeenum size{};
            size.index = j;
            size.pixel_format = desc.pixelformat;
            if (_io->ioctl(_fd, VIDIOC_ENUM_FRAMESIZES, &size) != 0) {
                break;
            }
            if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
                _sizes.push_back({size.discrete.width, size.discrete.height, desc.pixelformat});
            } else {
                // A range: offer its corners and the preset sizes inside it.
                const auto& sw = size.stepwise;
                const uint32_t presets[][2] = {{192, 144}, {480, 360}, {640, 480}, {1280, 720}, {1920, 1080}};
                _sizes.push_back({sw.min_width, sw.min_height, desc.pixelformat});
                for (const auto& p : presets) {
                    if (p[0] >= sw.min_width && p[0] <= sw.max_width && p[1] >= sw.min_height &&
                        p[1] <= sw.max_height) {
                        _sizes.push_back({p[0], p[1], desc.pixelformat});
                    }
                }
                _sizes.push_back({sw.max_width, sw.max_height, desc.pixelformat});
                break;
            }
        }
    }
    _sizes.erase(std::remove_if(_sizes.begin(), _sizes.end(),
                                [](const Size& s) {
                                    return s.width == 0 || s.height == 0 || s.width > kCVPixelBufferMaxDimension ||
                                           s.height > kCVPixelBufferMaxDimension;
                                }),
                 _sizes.end());
    const uint32_t wanted[] = {V4L2_CID_FOCUS_AUTO,         V4L2_CID_AUTO_FOCUS_START, V4L2_CID_AUTO_FOCUS_RANGE,
                               V4L2_CID_AUTO_WHITE_BALANCE, V4L2_CID_EXPOSURE_AUTO,    V4L2_CID_FLASH_LED_MODE,
                               V4L2_CID_FLASH_TORCH_INTENSITY, V4L2_CID_FLASH_STROBE};
    for (uint32_t id : wanted) {
        v4l2_queryctrl q{};
        q.id = id;
        if (_io->ioctl(_fd, VIDIOC_QUERYCTRL, &q) == 0 && (q.flags & V4L2_CTRL_FLAG_DISABLED) == 0) {
            _controls[id] = Control{q.type, q.minimum, q.maximum, q.default_value};
            v4l2_control c{};
            c.id = id;
            if (q.type != V4L2_CTRL_TYPE_BUTTON && _io->ioctl(_fd, VIDIOC_G_CTRL, &c) == 0) {
                _values[id] = c.value;
            }
        }
    }
    return !_sizes.empty();
}

CaptureCapabilities V4L2Camera::capabilities() const {
    CaptureCapabilities caps;
    if (hasControl(V4L2_CID_FOCUS_AUTO)) {
        // Single auto-focus uses the camera's focus trigger, or is emulated with a short run of continuous focus.
        caps.focusModes = {AVCaptureFocusModeLocked, AVCaptureFocusModeAutoFocus,
                           AVCaptureFocusModeContinuousAutoFocus};
    }
    if (hasControl(V4L2_CID_EXPOSURE_AUTO)) {
        caps.exposureModes = {AVCaptureExposureModeLocked, AVCaptureExposureModeContinuousAutoExposure};
    }
    if (hasControl(V4L2_CID_AUTO_WHITE_BALANCE)) {
        caps.whiteBalanceModes = {AVCaptureWhiteBalanceModeLocked,
                                  AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance};
    }
    caps.autoFocusRangeRestriction = hasControl(V4L2_CID_AUTO_FOCUS_RANGE);
    if (hasControl(V4L2_CID_FLASH_LED_MODE)) {
        const Control& led = _controls.at(V4L2_CID_FLASH_LED_MODE);
        if (led.maximum >= V4L2_FLASH_LED_MODE_FLASH) {
            caps.flashModes = {AVCaptureFlashModeOff, AVCaptureFlashModeOn, AVCaptureFlashModeAuto};
        }
        if (led.maximum >= V4L2_FLASH_LED_MODE_TORCH) {
            caps.torchModes = {AVCaptureTorchModeOff, AVCaptureTorchModeOn};
        }
    }
    return caps;
}

void V4L2Camera::markGoneIfLost(int error) {
    if (isLost(error)) {
        _gone.store(true, std::memory_order_release);
    }
}

bool V4L2Camera::setControl(uint32_t id, int32_t value) {
    const auto known = _controls.find(id);
    if (known == _controls.end()) {
        return false;
    }
    v4l2_control c{};
    c.id = id;
    c.value = value;
    const bool written = _io->ioctl(_fd, VIDIOC_S_CTRL, &c) == 0;
    const int error = errno;
    if (!written) {
        markGoneIfLost(error);
        if (isLost(error)) {
            return false;
        }
    }
    if (known->second.type == V4L2_CTRL_TYPE_BUTTON) {
        return written; // a trigger holds no value
    }
    // Read back what the device holds: drivers clamp and round, and a failed write may have taken effect or not.
    v4l2_control r{};
    r.id = id;
    if (_io->ioctl(_fd, VIDIOC_G_CTRL, &r) != 0) {
        markGoneIfLost(errno);
        _values.erase(id);
        return written;
    }
    _values[id] = r.value;
    return written && (known->second.type == V4L2_CTRL_TYPE_INTEGER || r.value == value);
}

std::optional<int32_t> V4L2Camera::controlValue(uint32_t id) const {
    std::lock_guard lock(_ioMutex);
    const auto it = _values.find(id);
    return it == _values.end() ? std::nullopt : std::optional<int32_t>(it->second);
}

void V4L2Camera::setFocusSettleTime(std::chrono::nanoseconds settle) {
    std::lock_guard lock(_ioMutex);
    _focusSettleTime = std::max(settle, std::chrono::nanoseconds(0));
}

NSErrorRef V4L2Camera::lockConfiguration() {
    if (!isConnected()) {
        return deviceError(AVErrorDeviceNotConnected, "The camera is not connected: " + _path);
    }
    if (_io->flock(_fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        markGoneIfLost(error);
        if (error == EWOULDBLOCK) {
            return deviceError(AVErrorDeviceLockedForConfigurationByAnotherProcess,
                               "Another program holds the camera's configuration lock: " + _path);
        }
        return NSError::errorWithDescription(NSPOSIXErrorDomain, error, std::strerror(error));
    }
    return nullptr;
}

void V4L2Camera::unlockConfiguration() { _io->flock(_fd, LOCK_UN); }

void V4L2Camera::applyControls(const CaptureControls& controls) {
    std::lock_guard lock(_ioMutex);
    // Each group is written when it differs from what the device is known to hold; a failed write leaves it
    // unknown, so the next change tries again. Single auto-focus runs again only when it is asked for again.
    const bool focusRequested = controls.focusMode == AVCaptureFocusModeAutoFocus &&
                                controls.autoFocusRequests != _applied.autoFocusRequests;
    if (controls.focusMode != _applied.focusMode || focusRequested) {
        _applied.focusMode = applyFocusLocked(controls.focusMode) ? std::optional(controls.focusMode) : std::nullopt;
        _applied.autoFocusRequests = controls.autoFocusRequests;
    }
    if (controls.autoFocusRangeRestriction != _applied.autoFocusRange) {
        const int32_t range = controls.autoFocusRangeRestriction == AVCaptureAutoFocusRangeRestrictionNear
                                  ? V4L2_AUTO_FOCUS_RANGE_MACRO
                              : controls.autoFocusRangeRestriction == AVCaptureAutoFocusRangeRestrictionFar
                                  ? V4L2_AUTO_FOCUS_RANGE_INFINITY
                                  : V4L2_AUTO_FOCUS_RANGE_AUTO;
        const bool ok = !hasControl(V4L2_CID_AUTO_FOCUS_RANGE) || setControl(V4L2_CID_AUTO_FOCUS_RANGE, range);
        _applied.autoFocusRange = ok ? std::optional(controls.autoFocusRangeRestriction) : std::nullopt;
    }
    if (controls.whiteBalanceMode != _applied.whiteBalanceMode) {
        const bool ok = !hasControl(V4L2_CID_AUTO_WHITE_BALANCE) ||
                        setControl(V4L2_CID_AUTO_WHITE_BALANCE,
                                   controls.whiteBalanceMode == AVCaptureWhiteBalanceModeLocked ? 0 : 1);
        _applied.whiteBalanceMode = ok ? std::optional(controls.whiteBalanceMode) : std::nullopt;
    }
    if (controls.exposureMode != _applied.exposureMode) {
        _applied.exposureMode =
            applyExposureLocked(controls.exposureMode) ? std::optional(controls.exposureMode) : std::nullopt;
    }
    const Applied::Light light{controls.torchMode, controls.torchLevel, controls.flashMode};
    if (light != _applied.light) {
        _applied.light = applyLightLocked(light) ? std::optional(light) : std::nullopt;
    }
}

bool V4L2Camera::applyFocusLocked(AVCaptureFocusMode mode) {
    _focusSettling = false;
    _focusLockAt.reset();
    switch (mode) {
    case AVCaptureFocusModeContinuousAutoFocus:
        return setControl(V4L2_CID_FOCUS_AUTO, 1);
    case AVCaptureFocusModeAutoFocus:
        if (hasControl(V4L2_CID_AUTO_FOCUS_START)) {
            // Continuous focus off, then one focus run.
            const bool off = !hasControl(V4L2_CID_FOCUS_AUTO) || setControl(V4L2_CID_FOCUS_AUTO, 0);
            return setControl(V4L2_CID_AUTO_FOCUS_START, 1) && off;
        }
        // No focus trigger (UVC webcams): continuous focus for a moment, then off, so the lens stays where it
        // found focus. The stream thread ends the run.
        if (!setControl(V4L2_CID_FOCUS_AUTO, 1)) {
            return false;
        }
        _focusSettling = true;
        if (streamingFourcc() != 0) {
            _focusLockAt = std::chrono::steady_clock::now() + _focusSettleTime;
        }
        return true;
    default:
        return setControl(V4L2_CID_FOCUS_AUTO, 0);
    }
}

int V4L2Camera::lockFocusWhenSettled() {
    std::lock_guard lock(_ioMutex);
    if (!_focusLockAt) {
        return kPollMilliseconds;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now < *_focusLockAt) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*_focusLockAt - now).count();
        return static_cast<int>(std::clamp<int64_t>(left, 1, kPollMilliseconds));
    }
    _focusSettling = false;
    _focusLockAt.reset();
    if (!setControl(V4L2_CID_FOCUS_AUTO, 0)) {
        _applied.focusMode.reset();
    }
    return kPollMilliseconds;
}

bool V4L2Camera::applyExposureLocked(AVCaptureExposureMode mode) {
    if (!hasControl(V4L2_CID_EXPOSURE_AUTO)) {
        return true;
    }
    if (mode == AVCaptureExposureModeLocked) {
        return setControl(V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_MANUAL);
    }
    // Most webcams offer only aperture priority as their automatic mode.
    return setControl(V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_AUTO) ||
           setControl(V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_APERTURE_PRIORITY);
}

bool V4L2Camera::applyLightLocked(const Applied::Light& light) {
    if (!hasControl(V4L2_CID_FLASH_LED_MODE)) {
        return true;
    }
    if (light.torchMode == AVCaptureTorchModeOff) {
        return setControl(V4L2_CID_FLASH_LED_MODE, light.flashMode == AVCaptureFlashModeOff
                                                        ? V4L2_FLASH_LED_MODE_NONE
                                                        : V4L2_FLASH_LED_MODE_FLASH);
    }
    bool ok = true;
    if (hasControl(V4L2_CID_FLASH_TORCH_INTENSITY)) {
        const Control& c = _controls.at(V4L2_CID_FLASH_TORCH_INTENSITY);
        const double level = std::clamp(static_cast<double>(light.torchLevel), 0.0, 1.0);
        const double span = static_cast<double>(c.maximum) - c.minimum;
        ok = setControl(V4L2_CID_FLASH_TORCH_INTENSITY, c.minimum + static_cast<int32_t>(std::lround(level * span)));
    }
    return setControl(V4L2_CID_FLASH_LED_MODE, V4L2_FLASH_LED_MODE_TORCH) && ok;
}

void V4L2Camera::willCaptureStillImage() {
    std::lock_guard lock(_ioMutex);
    if (_applied.light && _applied.light->flashMode != AVCaptureFlashModeOff &&
        _applied.light->torchMode == AVCaptureTorchModeOff) {
        setControl(V4L2_CID_FLASH_STROBE, 1);
    }
}

CaptureFormat V4L2Camera::formatForPreset(const AVCaptureSessionPreset& preset) const {
    if (_sizes.empty() || !AVCaptureSessionPresetIsKnown(preset)) {
        return {};
    }
    const auto largest = *std::max_element(_sizes.begin(), _sizes.end(),
                                           [](const Size& a, const Size& b) { return area(a) < area(b); });
    if (preset == AVCaptureSessionPresetHigh || preset == AVCaptureSessionPresetPhoto) {
        return {static_cast<int32_t>(largest.width), static_cast<int32_t>(largest.height)};
    }
    uint32_t tw = 640;
    uint32_t th = 480;
    if (preset == AVCaptureSessionPresetLow) {
        tw = 192, th = 144;
    } else if (preset == AVCaptureSessionPresetMedium) {
        tw = 480, th = 360;
    } else if (preset == AVCaptureSessionPreset1280x720) {
        tw = 1280, th = 720;
    } else if (preset == AVCaptureSessionPreset1920x1080) {
        tw = 1920, th = 1080;
    }
    // The exact size, else the smallest that covers it, else the largest there is.
    const Size* best = nullptr;
    for (const auto& s : _sizes) {
        if (s.width == tw && s.height == th) {
            return {static_cast<int32_t>(tw), static_cast<int32_t>(th)};
        }
        if (s.width >= tw && s.height >= th && (best == nullptr || area(s) < area(*best))) {
            best = &s;
        }
    }
    if (best == nullptr) {
        best = &largest;
    }
    return {static_cast<int32_t>(best->width), static_cast<int32_t>(best->height)};
}

void V4L2Camera::releaseBuffersLocked() {
    for (auto& b : _buffers) {
        if (b.address != nullptr && b.address != MAP_FAILED) {
            _io->munmap(b.address, b.length);
        }
    }
    _buffers.clear();
    v4l2_requestbuffers req{};
    req.count = 0;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_MMAP;
    _io->ioctl(_fd, VIDIOC_REQBUFS, &req);
}

NSErrorRef V4L2Camera::startStream(const CaptureStreamRequest& request, std::shared_ptr<CaptureFrameSink> sink) {
    stopStream();
    if (!isConnected()) {
        return deviceError(AVErrorDeviceNotConnected, "The camera is not connected: " + _path);
    }
    const auto w = static_cast<uint32_t>(request.format.width);
    const auto h = static_cast<uint32_t>(request.format.height);
    // Small frames come uncompressed when they can (no decoding); large ones as MJPEG (USB bandwidth), else NV12,
    // the smallest uncompressed layout.
    const bool small = static_cast<uint64_t>(w) * h <= 640ULL * 480ULL;
    uint32_t fourcc = 0;
    const uint32_t smallOrder[] = {V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_UYVY, V4L2_PIX_FMT_NV12, V4L2_PIX_FMT_MJPEG};
    const uint32_t largeOrder[] = {V4L2_PIX_FMT_MJPEG, V4L2_PIX_FMT_NV12, V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_UYVY};
    for (uint32_t candidate : small ? smallOrder : largeOrder) {
        for (const auto& s : _sizes) {
            if (fourcc == 0 && s.fourcc == candidate && s.width == w && s.height == h) {
                fourcc = candidate;
            }
        }
    }
    if (fourcc == 0) {
        return deviceError(AVErrorFormatUnsupported, "The camera does not offer that frame size.");
    }
    std::lock_guard lock(_ioMutex);
    v4l2_format fmt{};
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    fmt.fmt.pix.width = w;
    fmt.fmt.pix.height = h;
    fmt.fmt.pix.pixelformat = fourcc;
    fmt.fmt.pix.field = V4L2_FIELD_NONE;
    if (_io->ioctl(_fd, VIDIOC_S_FMT, &fmt) != 0) {
        const int error = errno;
        markGoneIfLost(error);
        return deviceError(isLost(error) ? AVErrorDeviceWasDisconnected : AVErrorFormatUnsupported,
                           std::string("The camera refused the format: ") + std::strerror(error));
    }
    // The driver may adjust the format; take what it chose.
    StreamFormat stream;
    stream.width = fmt.fmt.pix.width;
    stream.height = fmt.fmt.pix.height;
    stream.fourcc = fmt.fmt.pix.pixelformat;
    if (stream.width == 0 || stream.height == 0 || stream.width > kCVPixelBufferMaxDimension ||
        stream.height > kCVPixelBufferMaxDimension || !isConvertible(stream.fourcc)) {
        return deviceError(AVErrorFormatUnsupported, "The camera chose a format that cannot be converted.");
    }
    stream.stride = std::max(fmt.fmt.pix.bytesperline, minimumStride(stream.fourcc, stream.width));
    stream.frameDuration = negotiateFrameRateLocked();
    v4l2_requestbuffers req{};
    req.count = kBufferCount;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_MMAP;
    if (_io->ioctl(_fd, VIDIOC_REQBUFS, &req) != 0) {
        const int error = errno;
        markGoneIfLost(error);
        return deviceError(isLost(error)       ? AVErrorDeviceWasDisconnected
                           : error == EBUSY    ? AVErrorDeviceAlreadyUsedByAnotherSession
                           : error == ENOMEM   ? AVErrorOutOfMemory
                                               : AVErrorUnknown,
                           std::string("The camera gave no frame buffers: ") + std::strerror(error));
    }
    if (req.count == 0) {
        return deviceError(AVErrorOutOfMemory, "The camera gave no frame buffers.");
    }
    for (uint32_t i = 0; i < req.count && i < 32; ++i) {
        v4l2_buffer buf{};
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buf.memory = V4L2_MEMORY_MMAP;
        buf.index = i;
        if (_io->ioctl(_fd, VIDIOC_QUERYBUF, &buf) != 0) {
            markGoneIfLost(errno);
            releaseBuffersLocked();
            return deviceError(AVErrorUnknown, "The camera's frame buffer could not be queried.");
        }
        void* address = _io->mmap(_fd, buf.length, static_cast<off_t>(buf.m.offset));
        _buffers.push_back({address, buf.length});
        if (address == MAP_FAILED || _io->ioctl(_fd, VIDIOC_QBUF, &buf) != 0) {
            markGoneIfLost(errno);
            releaseBuffersLocked();
            return deviceError(AVErrorUnknown, "The camera's frame buffer could not be mapped.");
        }
    }
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (_io->ioctl(_fd, VIDIOC_STREAMON, &type) != 0) {
        const int error = errno;
        markGoneIfLost(error);
        releaseBuffersLocked();
        return deviceError(error == EBUSY ? AVErrorDeviceAlreadyUsedByAnotherSession : AVErrorUnknown,
                           std::string("The camera did not start: ") + std::strerror(error));
    }
    _streamFourcc.store(stream.fourcc, std::memory_order_release);
    if (_focusSettling) {
        _focusLockAt = std::chrono::steady_clock::now() + _focusSettleTime; // a pending single focus runs now
    }
    // The loop keeps the camera alive: the last reference may go while a frame is being delivered.
    _stream.start([this, keepAlive = weak_from_this().lock(), request, stream,
                   sink = std::move(sink)](const std::atomic<bool>& stop) {
        run(request, stream, sink, stop);
    });
    return nullptr;
}

CMTime V4L2Camera::negotiateFrameRateLocked() {
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (_io->ioctl(_fd, VIDIOC_G_PARM, &parm) != 0) {
        markGoneIfLost(errno);
        return kCMTimeInvalid; // no frame-rate control: the camera streams at its own pace
    }
    if ((parm.parm.capture.capability & V4L2_CAP_TIMEPERFRAME) != 0) {
        v4l2_streamparm wanted{};
        wanted.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        wanted.parm.capture.timeperframe = {1, kFrameRate};
        // The driver picks the nearest interval it has and says which.
        if (_io->ioctl(_fd, VIDIOC_S_PARM, &wanted) == 0) {
            parm = wanted;
        } else {
            markGoneIfLost(errno);
        }
    }
    const v4l2_fract interval = parm.parm.capture.timeperframe;
    if (interval.numerator == 0 || interval.denominator == 0 || interval.denominator > INT32_MAX) {
        return kCMTimeInvalid;
    }
    return CMTimeMake(interval.numerator, static_cast<int32_t>(interval.denominator));
}

void V4L2Camera::stopStream() {
    // The stream thread turns streaming off and unmaps the buffers as it ends. Stopped from a frame callback on
    // that thread itself, it ends after the current frame; a later start waits for that.
    _stream.stop();
}

void V4L2Camera::endStream() {
    std::lock_guard lock(_ioMutex);
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    _io->ioctl(_fd, VIDIOC_STREAMOFF, &type);
    releaseBuffersLocked();
    _streamFourcc.store(0, std::memory_order_release);
    _focusLockAt.reset(); // a single focus still settling goes on when streaming starts again
}

bool V4L2Camera::queueBuffer(uint32_t index) {
    v4l2_buffer buf{};
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buf.memory = V4L2_MEMORY_MMAP;
    buf.index = index;
    return _io->ioctl(_fd, VIDIOC_QBUF, &buf) == 0;
}

void V4L2Camera::run(CaptureStreamRequest request, StreamFormat format, std::shared_ptr<CaptureFrameSink> sink,
                     const std::atomic<bool>& stop) {
    PixelConverter converter;
    MjpegDecoder decoder;
    struct EndStream {
        V4L2Camera* camera;
        ~EndStream() { camera->endStream(); }
    } end{this};
    const auto lost = [&](int error) {
        _gone.store(true, std::memory_order_release);
        sink->didFailWithError(deviceError(AVErrorDeviceWasDisconnected,
                                           "The camera went away: " + _path + " (" + std::strerror(error) + ")"));
    };
    // A transfer error now and then is survived; only a run of them without a frame in between ends the stream.
    int failures = 0;
    int lastError = 0;
    const auto failed = [&](int error) {
        lastError = error;
        return isLost(error) || ++failures >= kFailuresBeforeLost;
    };
    // Buffers the driver gave back whose re-queue failed: offered again until it takes them, so none is lost.
    std::vector<uint32_t> unqueued;
    while (!stop.load(std::memory_order_acquire)) {
        while (!unqueued.empty() && queueBuffer(unqueued.back())) {
            unqueued.pop_back();
        }
        if (!unqueued.empty() && failed(errno)) {
            lost(lastError);
            return;
        }
        bool hangup = false;
        const int ready = _io->poll(_fd, lockFocusWhenSettled(), &hangup);
        if (hangup) {
            lost(ENODEV); // POLLHUP or POLLERR: the driver has given up on the device
            return;
        }
        if (ready < 0 && failed(errno)) {
            lost(lastError);
            return;
        }
        if (ready <= 0) {
            continue;
        }
        v4l2_buffer buf{};
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buf.memory = V4L2_MEMORY_MMAP;
        if (_io->ioctl(_fd, VIDIOC_DQBUF, &buf) != 0) {
            const int error = errno;
            if (error != EAGAIN && error != EINTR && failed(error)) {
                lost(lastError);
                return;
            }
            continue;
        }
        const CMTime stamp = frameTime(buf);
        CVPixelBufferRef pixels;
        if (buf.index < _buffers.size() && (buf.flags & V4L2_BUF_FLAG_ERROR) == 0) {
            const auto* data = static_cast<const uint8_t*>(_buffers[buf.index].address);
            const size_t used = std::min<size_t>(buf.bytesused, _buffers[buf.index].length);
            if (format.fourcc == V4L2_PIX_FMT_MJPEG) {
                if (const AVFrame* frame = decoder.decode(data, used)) {
                    pixels = converter.convertFrame(frame, request.pixelFormat, request.format.width,
                                                    request.format.height);
                }
            } else {
                pixels = converter.convertCamera(layoutOf(format.fourcc), data, used, format.width, format.height,
                                                 format.stride, request.pixelFormat, request.format.width,
                                                 request.format.height);
            }
        }
        // The buffer goes back to the driver before the frame is handed on.
        if (queueBuffer(buf.index)) {
            failures = 0;
        } else {
            unqueued.push_back(buf.index);
            if (failed(errno)) {
                lost(lastError);
                return;
            }
        }
        if (pixels) {
            CMSampleTimingInfo timing;
            timing.presentationTimeStamp = stamp;
            timing.duration = format.frameDuration;
            CMSampleBufferRef sample;
            CMSampleBufferCreateForImageBuffer(pixels, true, timing, &sample);
            sink->didCaptureFrame(sample);
        }
    }
}

} // namespace kp
