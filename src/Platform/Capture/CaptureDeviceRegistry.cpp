// SPDX-License-Identifier: MIT
// The process's list of cameras.
#include "Platform/Capture/CaptureDeviceRegistry.h"

#include "Platform/Capture/SampleCamera.h"
#include "Platform/Capture/V4L2Camera.h"

#include <algorithm>

namespace kp {

CaptureDeviceRegistry& CaptureDeviceRegistry::shared() {
    static auto* registry = new CaptureDeviceRegistry();
    return *registry;
}

std::vector<AVCaptureDevice::Ref> CaptureDeviceRegistry::devices() {
    std::lock_guard lock(_mutex);
    std::vector<AVCaptureDevice::Ref> out = _added;
    std::vector<AVCaptureDevice::Ref> webcams;
    if (_discovery.v4l2) {
        webcams = scanV4L2Locked();
        out.insert(out.end(), webcams.begin(), webcams.end());
    }
    // The sample cameras stand in for missing hardware; beside a webcam they would take its place in every
    // choice made by position.
    if (_discovery.alwaysOfferSampleCameras || (_discovery.sampleCameras && webcams.empty())) {
        if (_sampleCameras.empty()) {
            _sampleCameras.push_back(std::make_shared<AVCaptureDevice>(
                std::make_shared<SampleCamera>(AVCaptureDevicePositionFront), AVCaptureDevicePositionFront));
            _sampleCameras.push_back(std::make_shared<AVCaptureDevice>(
                std::make_shared<SampleCamera>(AVCaptureDevicePositionBack), AVCaptureDevicePositionBack));
        }
        out.insert(out.end(), _sampleCameras.begin(), _sampleCameras.end());
    }
    return out;
}

std::vector<AVCaptureDevice::Ref> CaptureDeviceRegistry::scanV4L2Locked() {
    const auto io = _io ? _io : V4L2Interface::system();
    const auto paths = V4L2Camera::scan(io, _discovery.v4l2Directory);
    // Forget cameras that went away; their device objects report themselves disconnected.
    for (auto it = _v4l2.begin(); it != _v4l2.end();) {
        if (std::find(paths.begin(), paths.end(), it->first) == paths.end() || !it->second->isConnected()) {
            it = _v4l2.erase(it);
        } else {
            ++it;
        }
    }
    std::vector<AVCaptureDevice::Ref> out;
    int ordinal = 0;
    for (const auto& path : paths) {
        AVCaptureDevicePosition position = ordinal == 0   ? AVCaptureDevicePositionFront
                                           : ordinal == 1 ? AVCaptureDevicePositionBack
                                                          : AVCaptureDevicePositionUnspecified;
        ++ordinal;
        if (auto assigned = _assigned.find(path); assigned != _assigned.end()) {
            position = assigned->second;
        }
        auto& device = _v4l2[path];
        if (!device) {
            auto backend = V4L2Camera::open(io, path);
            if (!backend) {
                _v4l2.erase(path);
                --ordinal;
                continue;
            }
            device = std::make_shared<AVCaptureDevice>(std::move(backend), position);
        } else {
            std::lock_guard deviceLock(device->_mutex);
            device->_position = position;
        }
        out.push_back(device);
    }
    return out;
}

AVCaptureDevice::Ref CaptureDeviceRegistry::add(std::shared_ptr<CaptureDeviceBackend> backend,
                                                AVCaptureDevicePosition position) {
    auto device = std::make_shared<AVCaptureDevice>(std::move(backend), position);
    std::lock_guard lock(_mutex);
    _added.push_back(device);
    return device;
}

void CaptureDeviceRegistry::remove(const AVCaptureDevice::Ref& device) {
    {
        std::lock_guard lock(_mutex);
        std::erase(_added, device);
    }
    std::lock_guard deviceLock(device->_mutex);
    device->_removed = true;
}

void CaptureDeviceRegistry::assignPosition(const std::string& uniqueID, AVCaptureDevicePosition position) {
    std::lock_guard lock(_mutex);
    _assigned[uniqueID] = position;
}

void CaptureDeviceRegistry::setDiscovery(const CaptureDeviceDiscovery& discovery) {
    std::lock_guard lock(_mutex);
    _discovery = discovery;
}

CaptureDeviceDiscovery CaptureDeviceRegistry::discovery() {
    std::lock_guard lock(_mutex);
    return _discovery;
}

void CaptureDeviceRegistry::setV4L2Interface(std::shared_ptr<V4L2Interface> io) {
    std::lock_guard lock(_mutex);
    _io = std::move(io);
    _v4l2.clear();
}

} // namespace kp
