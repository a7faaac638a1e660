// SPDX-License-Identifier: MIT
// The process's list of cameras: added devices, V4L2 webcams found by scanning, and the sample cameras.
#pragma once

#include "KPImage/Platform/AVCaptureDevice.h"
#include "Platform/Capture/V4L2Interface.h"

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace kp {

class CaptureDeviceRegistry {
public:
    static CaptureDeviceRegistry& shared();

    std::vector<AVCaptureDevice::Ref> devices();
    AVCaptureDevice::Ref add(std::shared_ptr<CaptureDeviceBackend> backend, AVCaptureDevicePosition position);
    void remove(const AVCaptureDevice::Ref& device);
    void assignPosition(const std::string& uniqueID, AVCaptureDevicePosition position);
    void setDiscovery(const CaptureDeviceDiscovery& discovery);
    CaptureDeviceDiscovery discovery();
    /// Scans and opens webcams through io from now on (null: the kernel); forgets the webcams found so far.
    void setV4L2Interface(std::shared_ptr<V4L2Interface> io);

private:
    CaptureDeviceRegistry() = default;
    std::vector<AVCaptureDevice::Ref> scanV4L2Locked();

    std::mutex _mutex;
    CaptureDeviceDiscovery _discovery;
    std::shared_ptr<V4L2Interface> _io; // null: the kernel
    std::vector<AVCaptureDevice::Ref> _added;
    std::map<std::string, AVCaptureDevice::Ref> _v4l2; // by node path
    std::map<std::string, AVCaptureDevicePosition> _assigned;
    std::vector<AVCaptureDevice::Ref> _sampleCameras;
};

} // namespace kp
