// SPDX-License-Identifier: MIT
// A scripted face detector for tests.
#include "support/FakeFaceDetector.h"

#include <memory>

namespace kptest {

namespace {
class ScriptedDetector final : public kp::CIDetector {
public:
    explicit ScriptedDetector(std::vector<kp::CIFaceFeature> features) : _features(std::move(features)) {}
    std::vector<kp::CIFaceFeature> featuresInImage(const kp::CIImage&, const kp::CIDetectorFeatureOptions&) override {
        return _features;
    }

private:
    const std::vector<kp::CIFaceFeature> _features;
};
} // namespace

FakeFaceDetector::FakeFaceDetector(std::vector<kp::CIFaceFeature> features) {
    _previous = kp::CIDetectorSetFactory(
        [features = std::move(features)](kp::CIDetectorType type,
                                         const kp::CIDetectorOptions&) -> std::shared_ptr<kp::CIDetector> {
            return type == kp::CIDetectorTypeFace ? std::make_shared<ScriptedDetector>(features) : nullptr;
        });
}

FakeFaceDetector::~FakeFaceDetector() { kp::CIDetectorSetFactory(std::move(_previous)); }

} // namespace kptest
