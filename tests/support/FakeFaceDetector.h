// SPDX-License-Identifier: MIT
// A scripted face detector for tests: returns a given feature list and records how it was made and run.
#pragma once

#include "KPImage/Platform/CIDetector.h"

#include <memory>
#include <mutex>
#include <vector>

namespace kptest {

/// Installs itself as the process's detector factory while it lives (restoring the previous factory after);
/// every detector made meanwhile returns the scripted features.
class FakeFaceDetector {
public:
    explicit FakeFaceDetector(std::vector<kp::CIFaceFeature> features);
    ~FakeFaceDetector();
    FakeFaceDetector(const FakeFaceDetector&) = delete;
    FakeFaceDetector& operator=(const FakeFaceDetector&) = delete;

    /// How many detectors were made.
    int detectorsMade() const;
    /// The accuracy of the last detector made.
    kp::CIDetectorAccuracy lastAccuracy() const;
    /// The options of the last run.
    kp::CIDetectorFeatureOptions lastFeatureOptions() const;
    /// The bitmap of the last run.
    kp::CGImageRef lastImage() const;

    /// What the fake and its detectors share.
    struct State;

private:
    std::shared_ptr<State> _state;
    kp::CIDetectorFactory _previous;
};

} // namespace kptest
