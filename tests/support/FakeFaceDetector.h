// SPDX-License-Identifier: MIT
// A scripted face detector for tests: returns a given feature list.
#pragma once

#include "KPImage/Platform/CIDetector.h"

#include <vector>

namespace kptest {

/// Installs itself as the process's detector factory while it lives (restoring the previous factory after);
/// every face detector made meanwhile returns the scripted features.
class FakeFaceDetector {
public:
    explicit FakeFaceDetector(std::vector<kp::CIFaceFeature> features);
    ~FakeFaceDetector();
    FakeFaceDetector(const FakeFaceDetector&) = delete;
    FakeFaceDetector& operator=(const FakeFaceDetector&) = delete;

private:
    kp::CIDetectorFactory _previous;
};

} // namespace kptest
