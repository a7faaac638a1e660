// SPDX-License-Identifier: MIT
// Detections reported by the metadata output: faces and machine-readable codes, with point dictionaries.
#pragma once

#include "KPImage/Platform/AVCaptureTypes.h"
#include "KPImage/Platform/CMTime.h"
#include "KPImage/Platform/Geometry.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kp {

/// A point as a dictionary with the number keys "X" and "Y" (what code corners are made of). Hosts and tests
/// may build one by hand; a dictionary without both keys is not a point.
using CGPointDictionary = std::map<std::string, double>;

/// The dictionary {"X": point.x, "Y": point.y}.
CGPointDictionary CGPointCreateDictionaryRepresentation(CGPoint point);
/// Reads a point from a dictionary made by CGPointCreateDictionaryRepresentation. Returns false and sets *point to
/// CGPointZero when the dictionary lacks "X" or "Y" (or point is null).
bool CGPointMakeWithDictionaryRepresentation(const CGPointDictionary& dict, CGPoint* point);

/// One detection in one frame. Geometry is normalised to the frame as delivered (0..1, origin top-left) until a
/// preview layer transforms a copy into its own points. Objects are immutable once made.
class AVMetadataObject {
public:
    virtual ~AVMetadataObject() = default;

    /// The detection's type string (AVMetadataObjectTypeFace, AVMetadataObjectTypeQRCode, ...).
    const AVMetadataObjectType& type() const { return _type; }
    /// The presentation time of the frame it was found in.
    CMTime time() const { return _time; }
    /// How long the detection stands for (the frame's duration, or invalid when unknown).
    CMTime duration() const { return _duration; }
    /// The bounding box: normalised to the frame, or in layer points for a transformed copy.
    CGRect bounds() const { return _bounds; }

    /// A copy of the same class with the same fields.
    virtual std::shared_ptr<AVMetadataObject> copy() const = 0;

protected:
    AVMetadataObject(AVMetadataObjectType type, CMTime time, CMTime duration, CGRect bounds)
        : _type(std::move(type)), _time(time), _duration(duration), _bounds(bounds) {}
    AVMetadataObject(const AVMetadataObject&) = default;
    AVMetadataObject& operator=(const AVMetadataObject&) = default;

    AVMetadataObjectType _type;
    CMTime _time;
    CMTime _duration;
    CGRect _bounds;
};

/// A face. Angles are in degrees, quantised as the platform reports them: roll in steps of 30, yaw in steps of 45,
/// both in [0, 360); each is meaningful only when its flag is set.
class AVMetadataFaceObject final : public AVMetadataObject {
public:
    struct Fields {
        CMTime time = kCMTimeInvalid;
        CMTime duration = kCMTimeInvalid;
        CGRect bounds{};
        NSInteger faceID = 0;
        bool hasRollAngle = false;
        double rollAngle = 0.0;
        bool hasYawAngle = false;
        double yawAngle = 0.0;
    };
    explicit AVMetadataFaceObject(const Fields& f)
        : AVMetadataObject(AVMetadataObjectTypeFace, f.time, f.duration, f.bounds), _fields(f) {}
    static std::shared_ptr<AVMetadataFaceObject> create(const Fields& f) {
        return std::make_shared<AVMetadataFaceObject>(f);
    }

    /// The same person keeps the same ID while tracked; a new face gets a new, never reused ID.
    NSInteger faceID() const { return _fields.faceID; }
    bool hasRollAngle() const { return _fields.hasRollAngle; }
    double rollAngle() const { return _fields.rollAngle; }
    bool hasYawAngle() const { return _fields.hasYawAngle; }
    double yawAngle() const { return _fields.yawAngle; }

    /// A copy with other bounds (what a preview layer's transform makes).
    std::shared_ptr<AVMetadataFaceObject> withBounds(CGRect bounds) const {
        Fields f = _fields;
        f.bounds = bounds;
        return create(f);
    }
    /// A copy with other bounds and angles (what a mirroring preview layer's transform makes).
    std::shared_ptr<AVMetadataFaceObject> withGeometry(CGRect bounds, double rollAngle, double yawAngle) const {
        Fields f = _fields;
        f.bounds = bounds;
        f.rollAngle = rollAngle;
        f.yawAngle = yawAngle;
        return create(f);
    }
    std::shared_ptr<AVMetadataObject> copy() const override { return std::make_shared<AVMetadataFaceObject>(*this); }

private:
    Fields _fields;
};

/// A machine-readable code (PDF417, QR, EAN-13, ...): its decoded text and its four corners, [0] bottom-left,
/// [1] bottom-right, [2] top-right, [3] top-left of the code as seen upright, whatever its rotation in the frame.
class AVMetadataMachineReadableCodeObject final : public AVMetadataObject {
public:
    struct Fields {
        AVMetadataObjectType type = AVMetadataObjectTypeQRCode;
        CMTime time = kCMTimeInvalid;
        CMTime duration = kCMTimeInvalid;
        CGRect bounds{};
        std::optional<std::string> stringValue;
        std::vector<CGPointDictionary> corners;
    };
    explicit AVMetadataMachineReadableCodeObject(const Fields& f)
        : AVMetadataObject(f.type, f.time, f.duration, f.bounds), _fields(f) {}
    static std::shared_ptr<AVMetadataMachineReadableCodeObject> create(const Fields& f) {
        return std::make_shared<AVMetadataMachineReadableCodeObject>(f);
    }

    /// The decoded text; empty when the code could not be decoded as text.
    const std::optional<std::string>& stringValue() const { return _fields.stringValue; }
    /// The corner points as point dictionaries (normally four; hand-built objects may have any number).
    const std::vector<CGPointDictionary>& corners() const { return _fields.corners; }

    /// A copy with other bounds and corners (what a preview layer's transform makes).
    std::shared_ptr<AVMetadataMachineReadableCodeObject> withGeometry(CGRect bounds,
                                                                      std::vector<CGPointDictionary> corners) const {
        Fields f = _fields;
        f.bounds = bounds;
        f.corners = std::move(corners);
        return create(f);
    }
    std::shared_ptr<AVMetadataObject> copy() const override {
        return std::make_shared<AVMetadataMachineReadableCodeObject>(*this);
    }

private:
    Fields _fields;
};

} // namespace kp
