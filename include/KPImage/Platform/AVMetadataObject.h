// SPDX-License-Identifier: MIT
// Metadata objects: what the metadata output reports about a frame (a face, a machine-readable code), with
// geometry normalised to the frame.
#pragma once

#include "KPImage/Platform/AVCaptureTypes.h"
#include "KPImage/Platform/CMTime.h"
#include "KPImage/Platform/Geometry.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kp {

/// One detection. Geometry is normalised to the frame: (0, 0) its top-left corner, (1, 1) its bottom-right, as
/// the frame is delivered. Objects are shared and handed out as copies; subclasses add what their type carries.
class AVMetadataObject {
public:
    AVMetadataObject(AVMetadataObjectType type, CGRect bounds, CMTime time = kCMTimeInvalid,
                     CMTime duration = kCMTimeInvalid)
        : _type(std::move(type)), _bounds(bounds), _time(time), _duration(duration) {}
    virtual ~AVMetadataObject() = default;

    const AVMetadataObjectType& type() const { return _type; }
    /// The bounding rectangle, normalised (or in layer points for an object transformed by a preview layer).
    CGRect bounds() const { return _bounds; }
    void setBounds(CGRect bounds) { _bounds = bounds; }
    /// The presentation time of the frame the object was found in, and how long it applies.
    CMTime time() const { return _time; }
    CMTime duration() const { return _duration; }

    /// A copy of the same dynamic type.
    virtual std::shared_ptr<AVMetadataObject> copy() const { return std::make_shared<AVMetadataObject>(*this); }
    /// Applies a point mapping to every geometric value (bounds become the box around the mapped corners).
    virtual void transformGeometry(const std::function<CGPoint(CGPoint)>& map);

    AVMetadataObject(const AVMetadataObject&) = default;
    AVMetadataObject& operator=(const AVMetadataObject&) = default;

private:
    AVMetadataObjectType _type;
    CGRect _bounds;
    CMTime _time;
    CMTime _duration;
};

/// A face: bounds, a tracking identifier and the platform's discrete roll and yaw angles (degrees).
class AVMetadataFaceObject : public AVMetadataObject {
public:
    AVMetadataFaceObject(CGRect bounds, int64_t faceID, CMTime time = kCMTimeInvalid)
        : AVMetadataObject(AVMetadataObjectTypeFace, bounds, time), _faceID(faceID) {}
    int64_t faceID() const { return _faceID; }
    bool hasRollAngle() const { return _hasRollAngle; }
    CGFloat rollAngle() const { return _rollAngle; }
    void setRollAngle(CGFloat degrees) { _rollAngle = degrees, _hasRollAngle = true; }
    bool hasYawAngle() const { return _hasYawAngle; }
    CGFloat yawAngle() const { return _yawAngle; }
    void setYawAngle(CGFloat degrees) { _yawAngle = degrees, _hasYawAngle = true; }
    std::shared_ptr<AVMetadataObject> copy() const override { return std::make_shared<AVMetadataFaceObject>(*this); }

    AVMetadataFaceObject(const AVMetadataFaceObject&) = default;

private:
    int64_t _faceID = 0;
    bool _hasRollAngle = false;
    CGFloat _rollAngle = 0;
    bool _hasYawAngle = false;
    CGFloat _yawAngle = 0;
};

/// A machine-readable code: its text and its four corners, counter-clockwise from the code's bottom-left as seen
/// upright ([0] bottom-left, [1] bottom-right, [2] top-right, [3] top-left).
class AVMetadataMachineReadableCodeObject : public AVMetadataObject {
public:
    /// Bounds are the box around the corners.
    AVMetadataMachineReadableCodeObject(AVMetadataObjectType type, std::vector<CGPoint> corners, std::string stringValue,
                                        CMTime time = kCMTimeInvalid);
    const std::vector<CGPoint>& corners() const { return _corners; }
    const std::string& stringValue() const { return _stringValue; }
    std::shared_ptr<AVMetadataObject> copy() const override {
        return std::make_shared<AVMetadataMachineReadableCodeObject>(*this);
    }
    void transformGeometry(const std::function<CGPoint(CGPoint)>& map) override;

    AVMetadataMachineReadableCodeObject(const AVMetadataMachineReadableCodeObject&) = default;

private:
    std::vector<CGPoint> _corners;
    std::string _stringValue;
};

} // namespace kp
