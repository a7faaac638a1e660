// SPDX-License-Identifier: MIT
// The base of the session outputs: membership in a session and the connection to its camera.
#pragma once

#include "KPImage/Platform/AVCaptureConnection.h"
#include "KPImage/Platform/AVCaptureTypes.h"
#include "KPImage/Platform/CMSampleBuffer.h"
#include "KPImage/Platform/NSError.h"

#include <memory>
#include <mutex>
#include <vector>

namespace kp {

class AVCaptureSession;

/// An output of a session. Outputs are shared objects; a session holds its outputs strongly, an output its
/// session weakly.
class AVCaptureOutput : public std::enable_shared_from_this<AVCaptureOutput> {
public:
    virtual ~AVCaptureOutput() = default;
    AVCaptureOutput(const AVCaptureOutput&) = delete;
    AVCaptureOutput& operator=(const AVCaptureOutput&) = delete;

    /// The connection for the media type, while the output is in a session that has a camera input; else nil.
    /// Each camera input added to the session brings a new connection with default settings.
    std::shared_ptr<AVCaptureConnection> connectionWithMediaType(const AVMediaType& mediaType) const;
    /// The live connections (zero or one).
    std::vector<std::shared_ptr<AVCaptureConnection>> connections() const;
    /// The session the output is in; nil when in none.
    std::shared_ptr<AVCaptureSession> session() const;

    /// What kind of output this is; a session takes at most one of each kind. PreviewLayer is a preview layer's
    /// feed, which the session streams for but does not list among its outputs.
    enum class Kind { VideoData, StillImage, Metadata, PreviewLayer };
    virtual Kind kind() const = 0;

protected:
    explicit AVCaptureOutput(AVMediaType connectionMediaType) : _connectionMediaType(std::move(connectionMediaType)) {}
    /// The output's connection object (created on first use, kept until the session gets a new input).
    std::shared_ptr<AVCaptureConnection> connection() const;

    // Called by the session.
    /// A frame from the session's camera, on the camera's thread.
    virtual void sessionDidCaptureFrame(const CMSampleBufferRef& /*frame*/) {}
    /// The stream stopped (session stopped, input removed, device failed); error is null for a normal stop.
    virtual void sessionDidStopStreaming(const NSErrorRef& /*error*/) {}
    /// The pixel format this output wants the camera to stream; 0 for no preference.
    virtual OSType preferredStreamPixelFormat() const { return 0; }

private:
    friend class AVCaptureSession;
    const AVMediaType _connectionMediaType;
    mutable std::mutex _mutex;
    mutable std::shared_ptr<AVCaptureConnection> _connection;
    std::weak_ptr<AVCaptureSession> _session;
};

} // namespace kp
