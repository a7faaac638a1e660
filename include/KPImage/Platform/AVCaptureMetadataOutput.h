// SPDX-License-Identifier: MIT
// The metadata output: which detections (faces, codes) a session reports, and to whom.
#pragma once

#include "KPImage/Platform/AVCaptureOutput.h"
#include "KPImage/Platform/AVMetadataObject.h"
#include "KPImage/Platform/Dispatch.h"

#include <memory>
#include <vector>

namespace kp {

/// Receives batches of detections on the output's delegate queue.
class AVCaptureMetadataOutputObjectsDelegate {
public:
    virtual ~AVCaptureMetadataOutputObjectsDelegate() = default;
    virtual void captureOutput(const std::shared_ptr<AVCaptureOutput>& output,
                               const std::vector<std::shared_ptr<AVMetadataObject>>& metadataObjects,
                               const std::shared_ptr<AVCaptureConnection>& connection) = 0;
};

/// The metadata output.
class AVCaptureMetadataOutput final : public AVCaptureOutput {
public:
    static std::shared_ptr<AVCaptureMetadataOutput> create();

    /// The types the session's camera offers; empty while the output is not in a session with a camera input.
    std::vector<AVMetadataObjectType> availableMetadataObjectTypes() const;
    /// The types to report, in the order set.
    std::vector<AVMetadataObjectType> metadataObjectTypes() const;
    /// Keeps the types that are available (in order, without repeats); the others are ignored.
    void setMetadataObjectTypes(const std::vector<AVMetadataObjectType>& types);
    /// Sets the delegate (weak) and its queue (strong).
    void setMetadataObjectsDelegate(std::weak_ptr<AVCaptureMetadataOutputObjectsDelegate> delegate,
                                    dispatch_queue_t queue);
    std::shared_ptr<AVCaptureMetadataOutputObjectsDelegate> metadataObjectsDelegate() const;
    dispatch_queue_t metadataObjectsCallbackQueue() const;

    Kind kind() const override { return Kind::Metadata; }

    AVCaptureMetadataOutput() : AVCaptureOutput(AVMediaTypeMetadata) {}

private:
    mutable std::mutex _typesMutex;
    std::vector<AVMetadataObjectType> _types;
    std::weak_ptr<AVCaptureMetadataOutputObjectsDelegate> _delegate;
    dispatch_queue_t _queue;
};

} // namespace kp
