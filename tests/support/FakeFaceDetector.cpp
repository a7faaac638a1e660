// SPDX-License-Identifier: MIT
// A scripted face detector for tests.
#include "support/FakeFaceDetector.h"

namespace kptest {

struct FakeFaceDetector::State {
    std::mutex mutex;
    std::vector<kp::CIFaceFeature> features;
    int made = 0;
    kp::CIDetectorAccuracy accuracy = kp::CIDetectorAccuracyLow;
    kp::CIDetectorFeatureOptions options;
    kp::CGImageRef image;
};

namespace {
class ScriptedDetector final : public kp::CIDetector {
public:
    explicit ScriptedDetector(std::shared_ptr<FakeFaceDetector::State> state) : _state(std::move(state)) {}
    std::vector<kp::CIFaceFeature> featuresInImage(const kp::CIImage& image,
                                                  const kp::CIDetectorFeatureOptions& options) override;

private:
    std::shared_ptr<FakeFaceDetector::State> _state;
};
} // namespace

std::vector<kp::CIFaceFeature> ScriptedDetector::featuresInImage(const kp::CIImage& image,
                                                                 const kp::CIDetectorFeatureOptions& options) {
    std::lock_guard lock(_state->mutex);
    _state->options = options;
    _state->image = image.CGImage();
    return _state->features;
}

FakeFaceDetector::FakeFaceDetector(std::vector<kp::CIFaceFeature> features) : _state(std::make_shared<State>()) {
    _state->features = std::move(features);
    std::shared_ptr<State> state = _state;
    _previous = kp::CIDetectorSetFactory(
        [state](kp::CIDetectorType type, const kp::CIDetectorOptions& options) -> std::shared_ptr<kp::CIDetector> {
            if (type != kp::CIDetectorTypeFace) {
                return nullptr;
            }
            std::lock_guard lock(state->mutex);
            ++state->made;
            state->accuracy = options.accuracy;
            return std::make_shared<ScriptedDetector>(state);
        });
}

FakeFaceDetector::~FakeFaceDetector() { kp::CIDetectorSetFactory(std::move(_previous)); }

int FakeFaceDetector::detectorsMade() const {
    std::lock_guard lock(_state->mutex);
    return _state->made;
}
kp::CIDetectorAccuracy FakeFaceDetector::lastAccuracy() const {
    std::lock_guard lock(_state->mutex);
    return _state->accuracy;
}
kp::CIDetectorFeatureOptions FakeFaceDetector::lastFeatureOptions() const {
    std::lock_guard lock(_state->mutex);
    return _state->options;
}
kp::CGImageRef FakeFaceDetector::lastImage() const {
    std::lock_guard lock(_state->mutex);
    return _state->image;
}

} // namespace kptest
