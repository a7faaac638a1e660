// SPDX-License-Identifier: MIT
// The capture session: configuration, running state and the camera stream feeding the outputs.
#include "KPImage/Platform/AVCaptureSession.h"

#include "KPImage/Platform/Dispatch.h"

#include <algorithm>
#include <atomic>
#include <map>

namespace kp {

// What the camera thread needs to hand frames on. It holds the outputs, never the session.
struct AVCaptureSession::Delivery {
    std::mutex mutex;
    std::shared_ptr<const std::vector<std::shared_ptr<AVCaptureOutput>>> outputs;
    uint64_t generation = 0; // the stream whose frames are wanted; 0 for none
};

// A session's hold on the camera it streams. One table says which claim holds each camera; starting and stopping
// any camera happens under its lock, so two sessions never start or stop one camera at the same time, and a
// session whose camera was taken over cannot stop the new owner's stream.
struct AVCaptureSession::Claim {
    std::weak_ptr<AVCaptureSession> session;
    std::atomic<bool> lost{false};

    /// Starts the camera for the claim; a session streaming it loses its claim and learns it on another thread.
    static NSErrorRef start(const std::shared_ptr<CaptureDeviceBackend>& backend, const CaptureStreamRequest& request,
                            std::shared_ptr<CaptureFrameSink> sink, const std::shared_ptr<Claim>& claim) {
        std::lock_guard lock(tableMutex());
        auto& holder = table()[backend.get()];
        if (holder && holder != claim) {
            backend->stopStream();
            holder->lost.store(true, std::memory_order_release);
            // The loser updates itself under its own lock, which this thread may not take while holding another.
            dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0),
                           [weak = holder->session] {
                               if (auto loser = weak.lock()) {
                                   std::lock_guard loserLock(loser->_mutex);
                                   loser->takeInterruptionLocked();
                               }
                           });
        }
        NSErrorRef error = backend->startStream(request, std::move(sink));
        if (error) {
            table().erase(backend.get());
        } else {
            holder = claim;
        }
        return error;
    }

    /// Stops the camera if the claim still holds it.
    static void stop(const std::shared_ptr<CaptureDeviceBackend>& backend, const std::shared_ptr<Claim>& claim) {
        std::lock_guard lock(tableMutex());
        auto it = table().find(backend.get());
        if (it != table().end() && it->second == claim) {
            backend->stopStream();
            table().erase(it);
        }
    }

private:
    static std::mutex& tableMutex() {
        static auto* mutex = new std::mutex();
        return *mutex;
    }
    static std::map<const CaptureDeviceBackend*, std::shared_ptr<Claim>>& table() {
        static auto* claims = new std::map<const CaptureDeviceBackend*, std::shared_ptr<Claim>>();
        return *claims;
    }
};

// Hands the camera's frames to the outputs of the stream it was made for. Frames need no session, so the camera
// thread never holds one (a session ending there would stop, and wait for, its own thread).
class AVCaptureSession::Sink final : public CaptureFrameSink {
public:
    Sink(std::shared_ptr<Delivery> delivery, std::weak_ptr<AVCaptureSession> session, uint64_t generation)
        : _delivery(std::move(delivery)), _session(std::move(session)), _generation(generation) {}
    void didCaptureFrame(const CMSampleBufferRef& frame) override { deliver(*_delivery, _generation, frame); }
    void didFailWithError(const NSErrorRef& error) override {
        // Handled on another thread: the session's lock may be held by a thread that is stopping this stream.
        dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0),
                       [weak = _session, generation = _generation, error] {
                           if (auto s = weak.lock()) {
                               s->streamFailed(generation, error);
                           }
                       });
    }

private:
    const std::shared_ptr<Delivery> _delivery;
    const std::weak_ptr<AVCaptureSession> _session;
    const uint64_t _generation;
};

std::shared_ptr<AVCaptureSession> AVCaptureSession::create() { return std::make_shared<AVCaptureSession>(); }

AVCaptureSession::AVCaptureSession() : _preset(AVCaptureSessionPresetHigh), _delivery(std::make_shared<Delivery>()) {}

AVCaptureSession::~AVCaptureSession() {
    // Nobody can call in any more; stop the camera (unless another session took it over).
    if (_streamBackend) {
        Claim::stop(_streamBackend, _claim);
    }
    for (auto& input : _inputs) {
        input->_attached.store(false, std::memory_order_release);
    }
}

AVCaptureSessionPreset AVCaptureSession::sessionPreset() const {
    std::lock_guard lock(_mutex);
    return _preset;
}

bool AVCaptureSession::canSetSessionPreset(const AVCaptureSessionPreset& preset) const {
    if (!AVCaptureSessionPresetIsKnown(preset)) {
        return false;
    }
    std::lock_guard lock(_mutex);
    auto input = videoInputLocked();
    return !input || input->device()->supportsAVCaptureSessionPreset(preset);
}

void AVCaptureSession::setSessionPreset(const AVCaptureSessionPreset& preset) {
    if (!canSetSessionPreset(preset)) {
        return;
    }
    std::lock_guard lock(_mutex);
    _preset = preset;
    updateStreamLocked();
}

std::vector<std::shared_ptr<AVCaptureDeviceInput>> AVCaptureSession::inputs() const {
    std::lock_guard lock(_mutex);
    return _inputs;
}

std::vector<std::shared_ptr<AVCaptureOutput>> AVCaptureSession::outputs() const {
    std::lock_guard lock(_mutex);
    std::vector<std::shared_ptr<AVCaptureOutput>> listed;
    std::copy_if(_outputs.begin(), _outputs.end(), std::back_inserter(listed),
                 [](const auto& o) { return o->kind() != AVCaptureOutput::Kind::PreviewLayer; });
    return listed;
}

std::shared_ptr<AVCaptureDeviceInput> AVCaptureSession::videoInputLocked() const {
    return _inputs.empty() ? nullptr : _inputs.front();
}

bool AVCaptureSession::canAddInput(const std::shared_ptr<AVCaptureDeviceInput>& input) const {
    if (!input || !input->device() || input->_attached.load(std::memory_order_acquire) ||
        !input->device()->isConnected()) {
        return false;
    }
    std::lock_guard lock(_mutex);
    return _inputs.empty();
}

void AVCaptureSession::addInput(const std::shared_ptr<AVCaptureDeviceInput>& input) {
    if (!input || !input->device() || !input->device()->isConnected()) {
        return;
    }
    std::lock_guard lock(_mutex);
    bool expected = false;
    if (!_inputs.empty() || !input->_attached.compare_exchange_strong(expected, true)) {
        return;
    }
    input->_session = weak_from_this();
    _inputs.push_back(input);
    // A new camera gets new connections with default settings: nothing set up for the old one carries over.
    for (const auto& output : _outputs) {
        std::lock_guard outputLock(output->_mutex);
        output->_connection.reset();
    }
    // A preset the new camera cannot stream falls back to the highest it can.
    if (!input->device()->supportsAVCaptureSessionPreset(_preset)) {
        _preset = AVCaptureSessionPresetHigh;
    }
    updateStreamLocked();
}

void AVCaptureSession::removeInput(const std::shared_ptr<AVCaptureDeviceInput>& input) {
    std::lock_guard lock(_mutex);
    auto it = std::find(_inputs.begin(), _inputs.end(), input);
    if (it == _inputs.end()) {
        return;
    }
    _inputs.erase(it);
    input->_session.reset();
    input->_attached.store(false, std::memory_order_release);
    updateStreamLocked();
}

bool AVCaptureSession::canAddOutput(const std::shared_ptr<AVCaptureOutput>& output) const {
    if (!output || output->session()) {
        return false;
    }
    std::lock_guard lock(_mutex);
    return std::none_of(_outputs.begin(), _outputs.end(),
                        [&](const std::shared_ptr<AVCaptureOutput>& o) { return o->kind() == output->kind(); });
}

void AVCaptureSession::addOutput(const std::shared_ptr<AVCaptureOutput>& output) {
    if (!canAddOutput(output)) {
        return;
    }
    std::lock_guard lock(_mutex);
    {
        std::lock_guard outputLock(output->_mutex);
        if (output->_session.lock()) {
            return;
        }
        output->_session = weak_from_this();
    }
    _outputs.push_back(output);
    publishOutputsLocked();
    updateStreamLocked();
}

void AVCaptureSession::removeOutput(const std::shared_ptr<AVCaptureOutput>& output) {
    std::lock_guard lock(_mutex);
    auto it = std::find(_outputs.begin(), _outputs.end(), output);
    if (it == _outputs.end()) {
        return;
    }
    _outputs.erase(it);
    {
        std::lock_guard outputLock(output->_mutex);
        output->_session.reset();
    }
    publishOutputsLocked();
    output->sessionDidStopStreaming(
        NSError::errorWithDescription(AVFoundationErrorDomain, AVErrorSessionConfigurationChanged,
                                      "The output was removed from its session."));
    updateStreamLocked();
}

void AVCaptureSession::beginConfiguration() {
    std::lock_guard lock(_mutex);
    ++_configurationDepth;
}

void AVCaptureSession::commitConfiguration() {
    std::lock_guard lock(_mutex);
    if (_configurationDepth == 0) {
        return;
    }
    if (--_configurationDepth == 0) {
        updateStreamLocked();
    }
}

bool AVCaptureSession::isConfiguring() const {
    std::lock_guard lock(_mutex);
    return _configurationDepth > 0;
}

void AVCaptureSession::startRunning() {
    std::lock_guard lock(_mutex);
    takeInterruptionLocked();
    _interrupted = false;
    _running = true;
    updateStreamLocked();
}

void AVCaptureSession::stopRunning() {
    std::lock_guard lock(_mutex);
    takeInterruptionLocked();
    _interrupted = false;
    _running = false;
    // Stopping takes effect at once, even inside a configuration transaction.
    stopStreamLocked(nullptr);
}

bool AVCaptureSession::isRunning() const {
    std::lock_guard lock(_mutex);
    return _running && !(_claim && _claim->lost.load(std::memory_order_acquire));
}

bool AVCaptureSession::isInterrupted() const {
    std::lock_guard lock(_mutex);
    return _interrupted || (_claim && _claim->lost.load(std::memory_order_acquire));
}

void AVCaptureSession::setRuntimeErrorHandler(std::function<void(const NSErrorRef&)> handler) {
    std::lock_guard lock(_mutex);
    _runtimeErrorHandler = std::move(handler);
}

std::optional<CaptureStreamRequest> AVCaptureSession::activeStream() const {
    std::lock_guard lock(_mutex);
    if (_claim && _claim->lost.load(std::memory_order_acquire)) {
        return std::nullopt;
    }
    return _stream;
}

void AVCaptureSession::publishOutputsLocked() {
    auto snapshot = std::make_shared<const std::vector<std::shared_ptr<AVCaptureOutput>>>(_outputs);
    std::lock_guard lock(_delivery->mutex);
    _delivery->outputs = std::move(snapshot);
}

void AVCaptureSession::reportLocked(const NSErrorRef& error) {
    if (_runtimeErrorHandler) {
        dispatch_async(dispatch_get_main_queue(), [handler = _runtimeErrorHandler, error] { handler(error); });
    }
}

bool AVCaptureSession::takeInterruptionLocked() {
    if (!_claim || !_claim->lost.load(std::memory_order_acquire)) {
        return false;
    }
    // The new owner already stopped this session's stream; only the session's own state is left to end.
    const NSErrorRef error = NSError::errorWithDescription(AVFoundationErrorDomain,
                                                           AVErrorDeviceAlreadyUsedByAnotherSession,
                                                           "Another session took the camera over.");
    {
        std::lock_guard lock(_delivery->mutex);
        _delivery->generation = 0;
    }
    _claim.reset();
    _streamBackend.reset();
    _stream.reset();
    _running = false;
    _interrupted = true;
    for (auto& output : _outputs) {
        output->sessionDidStopStreaming(error);
    }
    reportLocked(error);
    return true;
}

void AVCaptureSession::stopStreamLocked(const NSErrorRef& error) {
    if (!_streamBackend) {
        return;
    }
    {
        std::lock_guard lock(_delivery->mutex);
        _delivery->generation = 0;
    }
    Claim::stop(_streamBackend, _claim);
    _claim.reset();
    _streamBackend.reset();
    _stream.reset();
    for (auto& output : _outputs) {
        output->sessionDidStopStreaming(error);
    }
}

void AVCaptureSession::updateStreamLocked() {
    takeInterruptionLocked();
    if (_configurationDepth > 0) {
        return;
    }
    auto input = videoInputLocked();
    std::shared_ptr<CaptureDeviceBackend> backend;
    CaptureStreamRequest request;
    if (_running && input && !_outputs.empty()) {
        backend = input->device()->backend();
        request.format = backend->formatForPreset(_preset);
        request.pixelFormat = kCVPixelFormatType_32BGRA;
        for (const auto& output : _outputs) {
            if (OSType f = output->preferredStreamPixelFormat(); f != 0) {
                request.pixelFormat = f;
            }
        }
    }
    if (backend == _streamBackend && (!backend || _stream == request)) {
        return;
    }
    stopStreamLocked(backend ? nullptr
                             : NSError::errorWithDescription(AVFoundationErrorDomain, AVErrorSessionNotRunning,
                                                             "The camera stopped streaming."));
    if (!backend) {
        return;
    }
    const uint64_t generation = ++_generation;
    {
        std::lock_guard lock(_delivery->mutex);
        _delivery->generation = generation;
    }
    auto claim = std::make_shared<Claim>();
    claim->session = weak_from_this();
    NSErrorRef error;
    if (request.format.width <= 0 || request.format.height <= 0) {
        error = NSError::errorWithDescription(AVFoundationErrorDomain, AVErrorFormatUnsupported,
                                              "The camera cannot stream the session preset.");
    } else {
        error = Claim::start(backend, request, std::make_shared<Sink>(_delivery, weak_from_this(), generation),
                             claim);
    }
    if (error) {
        {
            std::lock_guard lock(_delivery->mutex);
            _delivery->generation = 0;
        }
        _running = false;
        for (auto& output : _outputs) {
            output->sessionDidStopStreaming(error);
        }
        reportLocked(error);
        return;
    }
    _streamBackend = std::move(backend);
    _stream = request;
    _claim = std::move(claim);
}

void AVCaptureSession::deliver(Delivery& delivery, uint64_t generation, const CMSampleBufferRef& frame) {
    std::shared_ptr<const std::vector<std::shared_ptr<AVCaptureOutput>>> outputs;
    {
        std::lock_guard lock(delivery.mutex);
        if (generation != delivery.generation) {
            return;
        }
        outputs = delivery.outputs;
    }
    if (!outputs) {
        return;
    }
    for (const auto& output : *outputs) {
        output->sessionDidCaptureFrame(frame);
    }
}

void AVCaptureSession::streamFailed(uint64_t generation, const NSErrorRef& error) {
    std::lock_guard lock(_mutex);
    if (takeInterruptionLocked() || generation != _generation || !_streamBackend) {
        return; // a stream that was taken over, replaced or stopped
    }
    _running = false;
    stopStreamLocked(error);
    reportLocked(error);
}

} // namespace kp
