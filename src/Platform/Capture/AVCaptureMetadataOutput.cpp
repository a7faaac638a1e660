// SPDX-License-Identifier: MIT
// The metadata output's configuration.
#include "KPImage/Platform/AVCaptureMetadataOutput.h"

#include "KPImage/Platform/AVCaptureSession.h"

#include <algorithm>

namespace kp {

std::shared_ptr<AVCaptureMetadataOutput> AVCaptureMetadataOutput::create() {
    return std::make_shared<AVCaptureMetadataOutput>();
}

std::vector<AVMetadataObjectType> AVCaptureMetadataOutput::availableMetadataObjectTypes() const {
    auto owner = session();
    if (!owner) {
        return {};
    }
    for (const auto& input : owner->inputs()) {
        if (input->device()) {
            return input->device()->backend()->capabilities().metadataObjectTypes;
        }
    }
    return {};
}

std::vector<AVMetadataObjectType> AVCaptureMetadataOutput::metadataObjectTypes() const {
    std::lock_guard lock(_typesMutex);
    return _types;
}

void AVCaptureMetadataOutput::setMetadataObjectTypes(const std::vector<AVMetadataObjectType>& types) {
    const auto available = availableMetadataObjectTypes();
    std::vector<AVMetadataObjectType> kept;
    for (const auto& type : types) {
        if (std::find(available.begin(), available.end(), type) != available.end() &&
            std::find(kept.begin(), kept.end(), type) == kept.end()) {
            kept.push_back(type);
        }
    }
    std::lock_guard lock(_typesMutex);
    _types = std::move(kept);
}

void AVCaptureMetadataOutput::setMetadataObjectsDelegate(
    std::weak_ptr<AVCaptureMetadataOutputObjectsDelegate> delegate, dispatch_queue_t queue) {
    std::lock_guard lock(_typesMutex);
    _delegate = std::move(delegate);
    _queue = std::move(queue);
}

std::shared_ptr<AVCaptureMetadataOutputObjectsDelegate> AVCaptureMetadataOutput::metadataObjectsDelegate() const {
    std::lock_guard lock(_typesMutex);
    return _delegate.lock();
}

dispatch_queue_t AVCaptureMetadataOutput::metadataObjectsCallbackQueue() const {
    std::lock_guard lock(_typesMutex);
    return _queue;
}

} // namespace kp
