// SPDX-License-Identifier: MIT
// The capture session: one camera input, its outputs, a preset, configuration transactions and running state.
#pragma once

#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureOutput.h"
#include "KPImage/Platform/AVCaptureTypes.h"
#include "KPImage/Platform/CaptureDeviceBackend.h"
#include "KPImage/Platform/NSError.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace kp {

/// A capture session. All methods may be called from any thread (normally the main thread). The camera streams
/// while the session runs, has a camera input and at least one output; changes made between
/// beginConfiguration and commitConfiguration take effect together at the outermost commit. One session streams
/// a camera at a time: a session that starts a camera another session streams takes it over, and the other is
/// interrupted. The camera's thread never holds a session, so a session always ends on a thread of its owners.
class AVCaptureSession : public std::enable_shared_from_this<AVCaptureSession> {
public:
    static std::shared_ptr<AVCaptureSession> create();
    ~AVCaptureSession();
    AVCaptureSession(const AVCaptureSession&) = delete;
    AVCaptureSession& operator=(const AVCaptureSession&) = delete;

    /// The preset (default AVCaptureSessionPresetHigh).
    AVCaptureSessionPreset sessionPreset() const;
    /// True for a known preset that the current camera (if any) can stream.
    bool canSetSessionPreset(const AVCaptureSessionPreset& preset) const;
    /// Sets the preset when canSetSessionPreset; otherwise nothing changes.
    void setSessionPreset(const AVCaptureSessionPreset& preset);

    std::vector<std::shared_ptr<AVCaptureDeviceInput>> inputs() const;
    std::vector<std::shared_ptr<AVCaptureOutput>> outputs() const;

    /// True for a non-null input in no session whose device is connected, while the session has no camera input.
    bool canAddInput(const std::shared_ptr<AVCaptureDeviceInput>& input) const;
    /// Adds the input when canAddInput; otherwise nothing changes.
    void addInput(const std::shared_ptr<AVCaptureDeviceInput>& input);
    /// Removes the input if it is in this session.
    void removeInput(const std::shared_ptr<AVCaptureDeviceInput>& input);
    /// True for a non-null output in no session, while the session has no output of its kind.
    bool canAddOutput(const std::shared_ptr<AVCaptureOutput>& output) const;
    void addOutput(const std::shared_ptr<AVCaptureOutput>& output);
    void removeOutput(const std::shared_ptr<AVCaptureOutput>& output);

    /// Opens a configuration transaction (they nest).
    void beginConfiguration();
    /// Closes one; the outermost commit applies the changes. Ignored without an open transaction.
    void commitConfiguration();
    bool isConfiguring() const;

    /// Starts the session; the camera starts when the session has an input and an output (inside a transaction,
    /// at the commit). A camera that fails to start reports a runtime error and the session stops. A camera that
    /// another session streams is taken over: that session is interrupted.
    void startRunning();
    /// Stops the session and its camera; returns once the camera has stopped (frames already queued to a
    /// delegate may still be delivered). A session whose camera was taken over leaves the new owner's stream alone.
    void stopRunning();
    /// False once stopped, failed or interrupted.
    bool isRunning() const;
    /// True once another session took the camera over, until this session starts or stops again.
    bool isInterrupted() const;

    /// Called on the main queue when the running session stops because of an error: the camera failed or vanished,
    /// or another session took it over (AVErrorDeviceAlreadyUsedByAnotherSession).
    void setRuntimeErrorHandler(std::function<void(const NSErrorRef& error)> handler);
    /// The format the camera streams now; nil while not streaming.
    std::optional<CaptureStreamRequest> activeStream() const;

    AVCaptureSession();

private:
    class Sink;
    struct Delivery;
    struct Claim;
    friend class Sink;
    void updateStreamLocked();
    void stopStreamLocked(const NSErrorRef& error);
    void streamFailed(uint64_t generation, const NSErrorRef& error);
    static void deliver(Delivery& delivery, uint64_t generation, const CMSampleBufferRef& frame);
    /// Ends this session's stream if another session took its camera; true when it did.
    bool takeInterruptionLocked();
    void reportLocked(const NSErrorRef& error);
    std::shared_ptr<AVCaptureDeviceInput> videoInputLocked() const;
    void publishOutputsLocked();

    mutable std::mutex _mutex;
    AVCaptureSessionPreset _preset;
    std::vector<std::shared_ptr<AVCaptureDeviceInput>> _inputs;
    std::vector<std::shared_ptr<AVCaptureOutput>> _outputs;
    int _configurationDepth = 0;
    bool _running = false;
    std::function<void(const NSErrorRef&)> _runtimeErrorHandler;

    bool _interrupted = false;

    // The stream: which back-end streams what, under which generation number, and this session's claim on the
    // camera (lost when another session takes it over).
    std::shared_ptr<CaptureDeviceBackend> _streamBackend;
    std::optional<CaptureStreamRequest> _stream;
    uint64_t _generation = 0;
    std::shared_ptr<Claim> _claim;

    // What the camera thread hands frames to, shared with the stream's sink; it holds no session, and has its own
    // lock so that stopping the camera (which waits for that thread) never waits for _mutex.
    const std::shared_ptr<Delivery> _delivery;
};

} // namespace kp
