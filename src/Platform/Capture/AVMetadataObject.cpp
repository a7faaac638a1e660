// SPDX-License-Identifier: MIT
// Point dictionaries of metadata objects.
#include "KPImage/Platform/AVMetadataObject.h"

namespace kp {

CGPointDictionary CGPointCreateDictionaryRepresentation(CGPoint point) { return {{"X", point.x}, {"Y", point.y}}; }

bool CGPointMakeWithDictionaryRepresentation(const CGPointDictionary& dict, CGPoint* point) {
    if (!point) {
        return false;
    }
    auto x = dict.find("X");
    auto y = dict.find("Y");
    if (x == dict.end() || y == dict.end()) {
        *point = CGPointZero;
        return false;
    }
    *point = CGPointMake(x->second, y->second);
    return true;
}

} // namespace kp
