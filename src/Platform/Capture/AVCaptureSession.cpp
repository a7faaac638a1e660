// SPDX-License-Identifier: MIT
// The capture session: configuration, running state and the camera stream feeding the outputs.
#include "KPImage/Platform/AVCaptureSession.h"

#include "KPImage/Platform/Dispatch.h"

#include <algorithm>

namespace kp {

// Hands the camera's frames to the session it was made for; outlives neither the stream nor needs the session.
class AVCaptureSession::Sink final : public CaptureFrameSink {
public:
    Sink(std::weak_ptr<AVCaptureSession> session, uint64_t generation)
        : _session(std::move(session)), _generation(generation) {}
    void didCaptureFrame(const CMSampleBufferRef& frame) override {
        if (auto s = _session.lock()) {
            s->deliver(_generation, frame);
            if (s.use_count() == 1) {
                // Everybody else let go while the frame was delivered: the session must not end on the camera's
                // own thread, because ending it stops (and waits for) that thread.
                dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), [last = std::move(s)] {});
            }
        }
    }
    void didFailWithError(const NSErrorRef& error) override {
        // The camera thread must not wait for the session's lock (stopping the stream waits for this thread),
        // so the failure is handled on another thread.
        dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0),
                       [weak = _session, generation = _generation, error] {
                           if (auto s = weak.lock()) {
                               s->streamFailed(generation, error);
                           }
                       });
    }

private:
    std::weak_ptr<AVCaptureSession> _session;
    uint64_t _generation;
};

std::shared_ptr<AVCaptureSession> AVCaptureSession::create() { return std::make_shared<AVCaptureSession>(); }

AVCaptureSession::AVCaptureSession() : _preset(AVCaptureSessionPresetHigh) {}

AVCaptureSession::~AVCaptureSession() {
    // Nobody can call in any more; stop the camera so its thread no longer refers to this session.
    if (_streamBackend) {
        _streamBackend->stopStream();
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
    _running = true;
    updateStreamLocked();
}

void AVCaptureSession::stopRunning() {
    std::lock_guard lock(_mutex);
    _running = false;
    // Stopping takes effect at once, even inside a configuration transaction.
    stopStreamLocked(nullptr);
}

bool AVCaptureSession::isRunning() const {
    std::lock_guard lock(_mutex);
    return _running;
}

void AVCaptureSession::setRuntimeErrorHandler(std::function<void(const NSErrorRef&)> handler) {
    std::lock_guard lock(_mutex);
    _runtimeErrorHandler = std::move(handler);
}

std::optional<CaptureStreamRequest> AVCaptureSession::activeStream() const {
    std::lock_guard lock(_mutex);
    return _stream;
}

void AVCaptureSession::publishOutputsLocked() {
    auto snapshot = std::make_shared<const std::vector<std::shared_ptr<AVCaptureOutput>>>(_outputs);
    std::lock_guard lock(_deliveryMutex);
    _deliveryOutputs = std::move(snapshot);
}

void AVCaptureSession::stopStreamLocked(const NSErrorRef& error) {
    if (!_streamBackend) {
        return;
    }
    {
        std::lock_guard lock(_deliveryMutex);
        _deliveryGeneration = 0;
    }
    _streamBackend->stopStream();
    _streamBackend.reset();
    _stream.reset();
    for (auto& output : _outputs) {
        output->sessionDidStopStreaming(error);
    }
}

void AVCaptureSession::updateStreamLocked() {
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
        std::lock_guard lock(_deliveryMutex);
        _deliveryGeneration = generation;
    }
    NSErrorRef error;
    if (request.format.width <= 0 || request.format.height <= 0) {
        error = NSError::errorWithDescription(AVFoundationErrorDomain, AVErrorFormatUnsupported,
                                              "The camera cannot stream the session preset.");
    } else {
        error = backend->startStream(request, std::make_shared<Sink>(weak_from_this(), generation));
    }
    if (error) {
        {
            std::lock_guard lock(_deliveryMutex);
            _deliveryGeneration = 0;
        }
        _running = false;
        for (auto& output : _outputs) {
            output->sessionDidStopStreaming(error);
        }
        if (_runtimeErrorHandler) {
            dispatch_async(dispatch_get_main_queue(), [handler = _runtimeErrorHandler, error] { handler(error); });
        }
        return;
    }
    _streamBackend = std::move(backend);
    _stream = request;
}

void AVCaptureSession::deliver(uint64_t generation, const CMSampleBufferRef& frame) {
    std::shared_ptr<const std::vector<std::shared_ptr<AVCaptureOutput>>> outputs;
    {
        std::lock_guard lock(_deliveryMutex);
        if (generation != _deliveryGeneration) {
            return;
        }
        outputs = _deliveryOutputs;
    }
    if (!outputs) {
        return;
    }
    for (const auto& output : *outputs) {
        output->sessionDidCaptureFrame(frame);
    }
}

void AVCaptureSession::streamFailed(uint64_t generation, const NSErrorRef& error) {
    std::function<void(const NSErrorRef&)> handler;
    {
        std::lock_guard lock(_mutex);
        if (generation != _generation || !_streamBackend) {
            return; // a stream that was already replaced or stopped
        }
        _running = false;
        stopStreamLocked(error);
        handler = _runtimeErrorHandler;
    }
    if (handler) {
        dispatch_async(dispatch_get_main_queue(), [handler, error] { handler(error); });
    }
}

} // namespace kp
