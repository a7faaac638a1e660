// SPDX-License-Identifier: MIT
// The still-image detector's factory and settings; the built-in back-end is dlib.
#include "KPImage/Platform/CIDetector.h"

#include "Platform/Vision/DlibFaceDetector.h"

#include <mutex>

namespace kp {

namespace {
std::mutex& settingsMutex() {
    static std::mutex mutex;
    return mutex;
}
CIDetectorFactory& factorySlot() {
    static CIDetectorFactory factory;
    return factory;
}
std::string& modelPathSlot() {
    static std::string path = kCIDefaultFaceLandmarksModelPath;
    return path;
}
} // namespace

std::shared_ptr<CIDetector> CIDetector::detectorOfType(CIDetectorType type, const CIDetectorOptions& options) {
    CIDetectorFactory factory;
    {
        std::lock_guard lock(settingsMutex());
        factory = factorySlot();
    }
    if (factory) {
        return factory(type, options);
    }
    if (type != CIDetectorTypeFace) {
        return nullptr;
    }
    try {
        return std::make_shared<DlibFaceDetector>(options.accuracy);
    } catch (...) {
        return nullptr;
    }
}

CIDetectorFactory CIDetectorSetFactory(CIDetectorFactory factory) {
    std::lock_guard lock(settingsMutex());
    std::swap(factorySlot(), factory);
    return factory;
}

void CIDetectorSetFaceLandmarksModelPath(std::string path) {
    std::lock_guard lock(settingsMutex());
    modelPathSlot() = path.empty() ? std::string(kCIDefaultFaceLandmarksModelPath) : std::move(path);
}

std::string CIDetectorFaceLandmarksModelPath() {
    std::lock_guard lock(settingsMutex());
    return modelPathSlot();
}

} // namespace kp
