// SPDX-License-Identifier: MIT
// The detectors of the metadata output together.
#include "Platform/Vision/MetadataDetector.h"

#include <algorithm>

namespace kp {

MetadataDetector::MetadataDetector(const std::vector<AVMetadataObjectType>& types, const std::string& modelPath,
                                   LiveFaceTracker::Mode mode)
    : _types(types), _codes(types, mode == LiveFaceTracker::Mode::Picture ? MachineCodeReader::Mode::Picture
                                                                          : MachineCodeReader::Mode::Video) {
    if (std::find(types.begin(), types.end(), AVMetadataObjectTypeFace) != types.end()) {
        _faces = std::make_unique<LiveFaceTracker>(modelPath, mode);
    }
}

void MetadataDetector::reset() {
    if (_faces) {
        _faces->reset();
    }
}

std::vector<std::shared_ptr<AVMetadataObject>> MetadataDetector::detect(const LumaImage& picture, CMTime time,
                                                                        CMTime duration) {
    std::vector<std::shared_ptr<AVMetadataObject>> objects;
    if (picture.empty()) {
        return objects;
    }
    const double w = picture.width;
    const double h = picture.height;
    const auto normalised = [w, h](CGRect r) {
        return CGRectMake(r.origin.x / w, r.origin.y / h, r.size.width / w, r.size.height / h);
    };
    if (_faces) {
        for (const TrackedFace& f : _faces->track(picture)) {
            AVMetadataFaceObject::Fields fields;
            fields.time = time;
            fields.duration = duration;
            fields.bounds = normalised(f.bounds);
            fields.faceID = f.faceID;
            fields.hasRollAngle = f.hasRollAngle;
            fields.rollAngle = f.rollAngle;
            fields.hasYawAngle = f.hasYawAngle;
            fields.yawAngle = f.yawAngle;
            objects.push_back(AVMetadataFaceObject::create(fields));
        }
    }
    if (!_codes.empty()) {
        for (const MachineCode& c : _codes.read(picture)) {
            AVMetadataMachineReadableCodeObject::Fields fields;
            fields.type = c.type;
            fields.time = time;
            fields.duration = duration;
            fields.stringValue = c.text;
            std::vector<CGPoint> cornersInFrame;
            for (const CGPoint& p : c.corners) {
                cornersInFrame.push_back({std::clamp(p.x / w, 0.0, 1.0), std::clamp(p.y / h, 0.0, 1.0)});
                fields.corners.push_back(CGPointCreateDictionaryRepresentation(cornersInFrame.back()));
            }
            fields.bounds = boundingRectOfPoints(cornersInFrame);
            objects.push_back(AVMetadataMachineReadableCodeObject::create(fields));
        }
    }
    return objects;
}

} // namespace kp
