// SPDX-License-Identifier: MIT
// A scripted camera for tests: chosen capabilities, lock failures, start failures and frames pushed by the test.
#pragma once

#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "KPImage/Platform/CaptureDeviceBackend.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kptest {

class FakeCaptureDevice final : public kp::CaptureDeviceBackend {
public:
    /// Every mode, range restriction, flash, torch and stabilisation.
    static kp::CaptureCapabilities fullCapabilities();
    /// No adjustable control at all.
    static kp::CaptureCapabilities noCapabilities();

    explicit FakeCaptureDevice(std::string uniqueID = "fake", kp::CaptureCapabilities caps = fullCapabilities());

    // Script.
    /// The next count locks fail with error (AVErrorDeviceLockedForConfigurationByAnotherProcess when null).
    void failNextLocks(int count, kp::NSErrorRef error = nullptr);
    /// The size every known preset streams (default 64 x 48); zero: no preset can be served.
    void setFormat(kp::CaptureFormat format);
    /// The next startStream fails with this error.
    void failNextStart(kp::NSErrorRef error);
    /// Hands a frame filled with the byte to the sink on the calling thread; false while not streaming.
    bool pushFrame(uint8_t fill = 0x80);
    /// Hands a prepared frame to the sink on the calling thread, stamped now; false while not streaming.
    bool pushFrame(const kp::CVPixelBufferRef& pixels);
    /// The camera disappears: the sink hears an error, the device reports itself disconnected.
    void vanish();

    // Observations.
    bool isStreaming() const {
        std::lock_guard lock(_mutex);
        return _sink != nullptr;
    }
    kp::CaptureStreamRequest streamRequest() const { return locked(_request); }
    int startCount() const { return locked(_starts); }
    int lockAttempts() const { return locked(_lockAttempts); }
    bool holdsLock() const { return locked(_locked); }
    std::vector<kp::CaptureControls> appliedControls() const { return locked(_applied); }
    int stillRequests() const { return locked(_stills); }
    /// How often stopStream was called on a thread inside a frame callback (which the interface forbids).
    int stopsFromFrameCallbacks() const { return locked(_stopsFromCallbacks); }

    // CaptureDeviceBackend.
    std::string uniqueID() const override { return _uniqueID; }
    std::string localizedName() const override { return "Fake Camera " + _uniqueID; }
    kp::CaptureCapabilities capabilities() const override { return _caps; }
    bool isConnected() const override { return locked(_connected); }
    kp::NSErrorRef lockConfiguration() override;
    void unlockConfiguration() override;
    void applyControls(const kp::CaptureControls& controls) override;
    kp::CaptureFormat formatForPreset(const kp::AVCaptureSessionPreset& preset) const override;
    kp::NSErrorRef startStream(const kp::CaptureStreamRequest& request,
                               std::shared_ptr<kp::CaptureFrameSink> sink) override;
    void stopStream() override;
    void willCaptureStillImage() override;

private:
    template <typename T> T locked(const T& field) const {
        std::lock_guard lock(_mutex);
        return field;
    }

    const std::string _uniqueID;
    const kp::CaptureCapabilities _caps;
    mutable std::mutex _mutex;
    bool _connected = true;
    kp::CaptureFormat _format{64, 48};
    int _failLocks = 0;
    kp::NSErrorRef _lockError;
    kp::NSErrorRef _startError;
    int _lockAttempts = 0;
    bool _locked = false;
    int _starts = 0;
    int _stills = 0;
    int _stopsFromCallbacks = 0;
    std::vector<kp::CaptureControls> _applied;
    std::shared_ptr<kp::CaptureFrameSink> _sink;
    kp::CaptureStreamRequest _request;
};

/// A sink that, in the first frame it gets, stops the stream and lets go of the last reference to the camera
/// outside the stream itself, as a frame callback dropping the last owner would.
class LastReferenceSink final : public kp::CaptureFrameSink {
public:
    /// Streams the camera's high preset into such a sink, calling started() once it streams (to feed a fake
    /// camera); true when the camera went away after that one frame, once its stream had ended (within 30 s).
    static bool releaseInFirstFrame(std::shared_ptr<kp::CaptureDeviceBackend> camera,
                                    const std::function<void()>& started = {});

    void didCaptureFrame(const kp::CMSampleBufferRef& frame) override;
    void didFailWithError(const kp::NSErrorRef& error) override;

private:
    std::mutex _mutex;
    std::shared_ptr<kp::CaptureDeviceBackend> _camera;
    int _frames = 0;
};

/// The frames a video data output hands over, kept in order.
class SampleList final : public kp::AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    void captureOutput(const std::shared_ptr<kp::AVCaptureOutput>&, const kp::CMSampleBufferRef& sample,
                       const std::shared_ptr<kp::AVCaptureConnection>&) override {
        std::lock_guard lock(mutex);
        samples.push_back(sample);
    }
    size_t count() {
        std::lock_guard lock(mutex);
        return samples.size();
    }
    std::mutex mutex;
    std::vector<kp::CMSampleBufferRef> samples;
};

} // namespace kptest
