// SPDX-License-Identifier: MIT
// A camera that plays a video file (anything FFmpeg decodes) in real time, looping, at the file's frame size.
#pragma once

#include "Platform/Capture/StreamThread.h"

#include "KPImage/Platform/CaptureDeviceBackend.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace kp {

class MediaFileCamera final : public CaptureDeviceBackend {
public:
    /// The camera for the file; nil (and *error) when it has no decodable video stream.
    static std::shared_ptr<MediaFileCamera> open(const std::string& path, NSErrorRef* error);
    ~MediaFileCamera() override;

    std::string uniqueID() const override { return "file:" + _path; }
    std::string localizedName() const override;
    CaptureCapabilities capabilities() const override;
    bool isConnected() const override;
    NSErrorRef lockConfiguration() override { return nullptr; }
    void unlockConfiguration() override {}
    void applyControls(const CaptureControls& /*controls*/) override {}
    /// Every preset streams the file's own frame size.
    CaptureFormat formatForPreset(const AVCaptureSessionPreset& preset) const override;
    NSErrorRef startStream(const CaptureStreamRequest& request, std::shared_ptr<CaptureFrameSink> sink) override;
    void stopStream() override;

    MediaFileCamera(std::string path, CaptureFormat size) : _path(std::move(path)), _size(size) {}

private:
    void run(CaptureStreamRequest request, std::shared_ptr<CaptureFrameSink> sink, const StreamStop& stop);

    const std::string _path;
    const CaptureFormat _size;
    StreamThread _stream;
};

} // namespace kp
