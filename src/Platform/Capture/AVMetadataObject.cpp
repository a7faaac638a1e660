// SPDX-License-Identifier: MIT
// Metadata objects: construction of code objects and mapping of their geometry.
#include "KPImage/Platform/AVMetadataObject.h"

#include <algorithm>

namespace kp {

namespace {
CGRect boxAround(const std::vector<CGPoint>& points) {
    if (points.empty()) {
        return CGRectZero;
    }
    CGFloat minX = points[0].x, maxX = points[0].x, minY = points[0].y, maxY = points[0].y;
    for (const CGPoint& p : points) {
        minX = std::min(minX, p.x);
        maxX = std::max(maxX, p.x);
        minY = std::min(minY, p.y);
        maxY = std::max(maxY, p.y);
    }
    return CGRectMake(minX, minY, maxX - minX, maxY - minY);
}
} // namespace

void AVMetadataObject::transformGeometry(const std::function<CGPoint(CGPoint)>& map) {
    const CGRect b = CGRectStandardize(_bounds);
    _bounds = boxAround({map(CGPointMake(CGRectGetMinX(b), CGRectGetMinY(b))),
                         map(CGPointMake(CGRectGetMaxX(b), CGRectGetMaxY(b)))});
}

AVMetadataMachineReadableCodeObject::AVMetadataMachineReadableCodeObject(AVMetadataObjectType type,
                                                                         std::vector<CGPoint> corners,
                                                                         std::string stringValue, CMTime time)
    : AVMetadataObject(std::move(type), boxAround(corners), time), _corners(std::move(corners)),
      _stringValue(std::move(stringValue)) {}

void AVMetadataMachineReadableCodeObject::transformGeometry(const std::function<CGPoint(CGPoint)>& map) {
    AVMetadataObject::transformGeometry(map);
    for (CGPoint& p : _corners) {
        p = map(p);
    }
}

} // namespace kp
