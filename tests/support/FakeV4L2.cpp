// SPDX-License-Identifier: MIT
// A fake V4L2 kernel for tests.
#include "support/FakeV4L2.h"

#include <sys/file.h>
#include <sys/mman.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstring>

namespace kptest {

namespace {
constexpr size_t kPage = 4096;

int fail(int error) {
    errno = error;
    return -1;
}

timeval monotonicNow() {
    const auto us =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch());
    return timeval{static_cast<time_t>(us.count() / 1000000), static_cast<suseconds_t>(us.count() % 1000000)};
}

// What a driver makes of a written value: integers clamped and rounded to the step, menus checked.
int validate(const FakeV4L2::ControlRange& range, int32_t& value) {
    if (range.type == V4L2_CTRL_TYPE_MENU) {
        return value < range.minimum || value > range.maximum ? ERANGE : 0;
    }
    const int32_t step = std::max(range.step, 1);
    value = range.minimum + (std::clamp(value, range.minimum, range.maximum) - range.minimum + step / 2) / step * step;
    value = value > range.maximum ? value - step : value;
    return 0;
}
} // namespace

void FakeV4L2::addNode(const Node& node) {
    std::lock_guard lock(_mutex);
    State& s = _nodes[node.path] = State{};
    s.node = node;
    s.node.capabilities = node.capabilities != 0 ? node.capabilities : V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
    for (const auto& [id, range] : node.controls) {
        s.values[id] = range.defaultValue;
    }
}

void FakeV4L2::pushFrame(const std::string& path, std::vector<uint8_t> bytes, std::optional<timeval> timestamp) {
    change(path, [&](State& s) { s.frames.push_back({std::move(bytes), timestamp.value_or(monotonicNow())}); });
}

void FakeV4L2::vanish(const std::string& path) {
    change(path, [](State& s) { s.gone = true; });
}

void FakeV4L2::failPoll(const std::string& path) {
    change(path, [](State& s) { s.pollError = true; });
}

void FakeV4L2::failIoctl(const std::string& path, unsigned long request, int error, int times) {
    change(path, [&](State& s) {
        if (times == 0) {
            s.faults.erase(request);
        } else {
            s.faults[request] = {error, times};
        }
    });
}

void FakeV4L2::holdLockElsewhere(const std::string& path, bool held) {
    change(path, [&](State& s) { s.lockedElsewhere = held; });
}

int32_t FakeV4L2::control(const std::string& path, uint32_t id) const {
    return read(path, [&](const State& s) {
        const auto it = std::find_if(s.log.rbegin(), s.log.rend(), [&](const auto& w) { return w.first == id; });
        return it == s.log.rend() ? INT32_MIN : it->second;
    });
}

std::vector<std::pair<uint32_t, int32_t>> FakeV4L2::controlLog(const std::string& path) const {
    return read(path, [](const State& s) { return s.log; });
}

FakeV4L2::FrameSize FakeV4L2::lastFormat(const std::string& path) const {
    return read(path, [](const State& s) { return s.format; });
}

uint32_t FakeV4L2::frameRate(const std::string& path) const {
    return read(path, [](const State& s) { return s.frameRate; });
}

bool FakeV4L2::isStreaming(const std::string& path) const {
    return read(path, [](const State& s) { return s.streaming; });
}

int FakeV4L2::openDescriptors() const {
    std::lock_guard lock(_mutex);
    return static_cast<int>(_fds.size());
}

size_t FakeV4L2::mappedBuffers() const {
    std::lock_guard lock(_mutex);
    size_t n = 0;
    for (const auto& [path, s] : _nodes) {
        n += s.mapped;
    }
    return n;
}

FakeV4L2::State* FakeV4L2::stateFor(int fd) {
    auto it = _fds.find(fd);
    return it == _fds.end() ? nullptr : &_nodes.at(it->second);
}

int FakeV4L2::open(const std::string& path) {
    std::lock_guard lock(_mutex);
    auto it = _nodes.find(path);
    if (it == _nodes.end() || it->second.gone) {
        return fail(ENOENT);
    }
    _fds[_nextFd] = path;
    return _nextFd++;
}

int FakeV4L2::close(int fd) {
    std::lock_guard lock(_mutex);
    return _fds.erase(fd) == 1 ? 0 : fail(EBADF);
}

bool FakeV4L2::frameReady(const State& s) const {
    return s.streaming && !s.frames.empty() && std::find(s.queued.begin(), s.queued.end(), true) != s.queued.end();
}

int FakeV4L2::ioctl(int fd, unsigned long request, void* arg) {
    std::lock_guard lock(_mutex);
    State* s = stateFor(fd);
    if (s == nullptr || s->gone) {
        return fail(s == nullptr ? EBADF : ENODEV);
    }
    if (auto fault = s->faults.find(request); fault != s->faults.end()) {
        const int error = fault->second.first;
        if (fault->second.second > 0 && --fault->second.second == 0) {
            s->faults.erase(fault);
        }
        return fail(error);
    }
    return handle(*s, request, arg);
}

int FakeV4L2::handle(State& s, unsigned long request, void* arg) {
    switch (request) {
    case VIDIOC_QUERYCAP: {
        auto* cap = static_cast<v4l2_capability*>(arg);
        *cap = {};
        std::strncpy(reinterpret_cast<char*>(cap->card), s.node.card.c_str(), sizeof cap->card - 1);
        cap->capabilities = s.node.capabilities;
        return 0;
    }
    case VIDIOC_ENUM_FMT: {
        auto* desc = static_cast<v4l2_fmtdesc*>(arg);
        std::vector<uint32_t> formats;
        for (const auto& size : s.node.sizes) {
            if (std::find(formats.begin(), formats.end(), size.fourcc) == formats.end()) {
                formats.push_back(size.fourcc);
            }
        }
        if (desc->index >= formats.size()) {
            return fail(EINVAL);
        }
        desc->pixelformat = formats[desc->index];
        return 0;
    }
    case VIDIOC_ENUM_FRAMESIZES: {
        auto* e = static_cast<v4l2_frmsizeenum*>(arg);
        uint32_t n = 0;
        for (const auto& size : s.node.sizes) {
            if (size.fourcc == e->pixel_format && n++ == e->index) {
                e->type = V4L2_FRMSIZE_TYPE_DISCRETE;
                e->discrete = {size.width, size.height};
                return 0;
            }
        }
        return fail(EINVAL);
    }
    case VIDIOC_QUERYCTRL: {
        auto* q = static_cast<v4l2_queryctrl*>(arg);
        auto it = s.node.controls.find(q->id);
        if (it == s.node.controls.end()) {
            return fail(EINVAL);
        }
        q->type = it->second.type;
        q->minimum = it->second.minimum;
        q->maximum = it->second.maximum;
        q->step = it->second.step;
        q->default_value = it->second.defaultValue;
        return 0;
    }
    case VIDIOC_S_CTRL: {
        auto* c = static_cast<v4l2_control*>(arg);
        auto it = s.node.controls.find(c->id);
        const int32_t written = c->value;
        if (it == s.node.controls.end() || validate(it->second, c->value) != 0) {
            return fail(it == s.node.controls.end() ? EINVAL : ERANGE);
        }
        s.log.emplace_back(c->id, written);
        if (it->second.type != V4L2_CTRL_TYPE_BUTTON) {
            s.values[c->id] = c->value;
        }
        return 0;
    }
    case VIDIOC_G_CTRL: {
        auto* c = static_cast<v4l2_control*>(arg);
        auto it = s.values.find(c->id);
        if (it == s.values.end()) {
            return fail(EINVAL);
        }
        c->value = it->second;
        return 0;
    }
    case VIDIOC_S_FMT: {
        auto* f = static_cast<v4l2_format*>(arg);
        if (s.streaming) {
            return fail(EBUSY);
        }
        // An unknown format or size becomes the node's first.
        const auto match = std::find_if(s.node.sizes.begin(), s.node.sizes.end(), [&](const FrameSize& size) {
            return size.fourcc == f->fmt.pix.pixelformat && size.width == f->fmt.pix.width &&
                   size.height == f->fmt.pix.height;
        });
        s.format = match != s.node.sizes.end() ? *match : s.node.sizes.front();
        const bool packed = s.format.fourcc == V4L2_PIX_FMT_YUYV || s.format.fourcc == V4L2_PIX_FMT_UYVY;
        const bool nv12 = s.format.fourcc == V4L2_PIX_FMT_NV12;
        const uint32_t line = (packed ? s.format.width * 2 : s.format.width) + s.node.rowPadding;
        s.imageSize = nv12     ? line * (s.format.height + (s.format.height + 1) / 2)
                      : packed ? line * s.format.height
                               : s.format.width * s.format.height * 2;
        f->fmt.pix.width = s.format.width;
        f->fmt.pix.height = s.format.height;
        f->fmt.pix.pixelformat = s.format.fourcc;
        f->fmt.pix.bytesperline = packed || nv12 ? line : 0;
        f->fmt.pix.sizeimage = s.imageSize;
        return 0;
    }
    case VIDIOC_G_PARM:
    case VIDIOC_S_PARM: {
        auto* p = static_cast<v4l2_streamparm*>(arg);
        if (s.node.frameRates.empty()) {
            return fail(ENOTTY);
        }
        if (request == VIDIOC_S_PARM) {
            if (s.streaming) {
                return fail(EBUSY);
            }
            // The nearest rate the node offers.
            const auto& tpf = p->parm.capture.timeperframe;
            const double wanted = tpf.numerator == 0 ? 30.0 : static_cast<double>(tpf.denominator) / tpf.numerator;
            s.frameRate =
                *std::min_element(s.node.frameRates.begin(), s.node.frameRates.end(),
                                  [&](uint32_t a, uint32_t b) { return std::abs(a - wanted) < std::abs(b - wanted); });
        }
        p->parm.capture = {};
        p->parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
        p->parm.capture.timeperframe = {1, s.frameRate != 0 ? s.frameRate : s.node.frameRates.front()};
        return 0;
    }
    case VIDIOC_REQBUFS: {
        auto* r = static_cast<v4l2_requestbuffers*>(arg);
        if (r->count > 0 && (s.streaming || s.mapped > 0)) {
            return fail(EBUSY);
        }
        s.buffers.assign(r->count, std::vector<uint8_t>(s.imageSize));
        s.queued.assign(r->count, false);
        return 0;
    }
    case VIDIOC_QUERYBUF: {
        auto* b = static_cast<v4l2_buffer*>(arg);
        if (b->index >= s.buffers.size()) {
            return fail(EINVAL);
        }
        b->length = static_cast<uint32_t>(s.buffers[b->index].size());
        b->m.offset = b->index * kPage;
        return 0;
    }
    case VIDIOC_QBUF: {
        auto* b = static_cast<v4l2_buffer*>(arg);
        if (b->index >= s.buffers.size() || s.queued[b->index]) {
            return fail(EINVAL);
        }
        s.queued[b->index] = true;
        _changed.notify_all();
        return 0;
    }
    case VIDIOC_DQBUF: {
        auto* b = static_cast<v4l2_buffer*>(arg);
        if (!frameReady(s)) {
            return fail(EAGAIN);
        }
        const auto index = static_cast<uint32_t>(std::find(s.queued.begin(), s.queued.end(), true) - s.queued.begin());
        const auto frame = std::move(s.frames.front());
        s.frames.pop_front();
        const size_t n = std::min(frame.bytes.size(), s.buffers[index].size());
        std::memcpy(s.buffers[index].data(), frame.bytes.data(), n);
        s.queued[index] = false;
        b->index = index;
        b->bytesused = static_cast<uint32_t>(n);
        b->flags = s.node.monotonicTimestamps ? V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC : V4L2_BUF_FLAG_TIMESTAMP_UNKNOWN;
        b->timestamp = s.node.monotonicTimestamps ? frame.timestamp : timeval{};
        return 0;
    }
    case VIDIOC_STREAMON:
    case VIDIOC_STREAMOFF:
        s.streaming = request == VIDIOC_STREAMON;
        if (!s.streaming) {
            std::fill(s.queued.begin(), s.queued.end(), false);
        }
        _changed.notify_all();
        return 0;
    default:
        return fail(ENOTTY);
    }
}

void* FakeV4L2::mmap(int fd, size_t length, off_t offset) {
    std::lock_guard lock(_mutex);
    State* s = stateFor(fd);
    const size_t index = static_cast<size_t>(offset) / kPage;
    if (s == nullptr || s->gone || index >= s->buffers.size() || length > s->buffers[index].size()) {
        errno = s == nullptr || s->gone ? ENODEV : EINVAL;
        return MAP_FAILED;
    }
    ++s->mapped;
    return s->buffers[index].data();
}

int FakeV4L2::munmap(void* address, size_t /*length*/) {
    std::lock_guard lock(_mutex);
    for (auto& [path, s] : _nodes) {
        for (auto& b : s.buffers) {
            if (b.data() == address && s.mapped > 0) {
                --s.mapped;
                return 0;
            }
        }
    }
    return fail(EINVAL);
}

int FakeV4L2::poll(int fd, int timeoutMs, bool* hangup) {
    std::unique_lock lock(_mutex);
    *hangup = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        State* s = stateFor(fd);
        if (s == nullptr) {
            return fail(EBADF);
        }
        *hangup = s->gone || s->pollError;
        if (*hangup || frameReady(*s)) {
            return 1;
        }
        if (_changed.wait_until(lock, deadline) == std::cv_status::timeout) {
            return 0;
        }
    }
}

int FakeV4L2::flock(int fd, int operation) {
    std::lock_guard lock(_mutex);
    State* s = stateFor(fd);
    if (s == nullptr || (operation & LOCK_UN) != 0) {
        return s == nullptr ? fail(EBADF) : 0;
    }
    return s->gone ? fail(ENODEV) : s->lockedElsewhere ? fail(EWOULDBLOCK) : 0;
}

std::vector<std::string> FakeV4L2::listNodes(const std::string& directory) {
    std::lock_guard lock(_mutex);
    std::vector<std::string> out;
    for (const auto& [path, s] : _nodes) {
        if (!s.gone && path.rfind(directory + "/", 0) == 0) {
            out.push_back(path);
        }
    }
    return out;
}

} // namespace kptest
