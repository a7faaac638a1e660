// SPDX-License-Identifier: MIT
// The detectors of the metadata output together: one picture in, metadata objects out.
#pragma once

#include "Platform/Vision/LiveFaceTracker.h"
#include "Platform/Vision/LumaImage.h"
#include "Platform/Vision/MachineCodeReader.h"

#include "KPImage/Platform/AVMetadataObject.h"

#include <memory>
#include <vector>

namespace kp {

/// Runs the face tracker and the code reader for the enabled types over a sequence of pictures (frames of one
/// stream, or single pictures). An instance is used by one thread at a time.
class MetadataDetector {
public:
    /// A detector for the given types (unsupported ones are ignored); the face model comes from modelPath. Video
    /// spreads the search for small new faces over several frames; Picture searches everything every time.
    MetadataDetector(const std::vector<AVMetadataObjectType>& types, const std::string& modelPath,
                     LiveFaceTracker::Mode mode);

    /// The types it looks for, as given.
    const std::vector<AVMetadataObjectType>& types() const { return _types; }
    /// The objects in one picture, normalised to it: faces by ID first, then codes by position.
    std::vector<std::shared_ptr<AVMetadataObject>> detect(const LumaImage& picture, CMTime time, CMTime duration);
    /// Forgets the faces tracked so far.
    void reset();

private:
    std::vector<AVMetadataObjectType> _types;
    std::unique_ptr<LiveFaceTracker> _faces; // null when faces are not enabled
    MachineCodeReader _codes;
};

} // namespace kp
