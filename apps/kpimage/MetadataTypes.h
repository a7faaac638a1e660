// SPDX-License-Identifier: MIT
// Metadata type names of the kpimage commands (--types face,pdf417,qr,...) and JSON of metadata objects.
#pragma once

#include "Json.h"

#include <KPImage/KPImage.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace kpcli {

/// The short names and the type strings they stand for.
inline const std::vector<std::pair<std::string, kp::AVMetadataObjectType>>& metadataTypeNames() {
    static const std::vector<std::pair<std::string, kp::AVMetadataObjectType>> names{
        {"face", kp::AVMetadataObjectTypeFace},
        {"pdf417", kp::AVMetadataObjectTypePDF417Code},
        {"qr", kp::AVMetadataObjectTypeQRCode},
        {"ean13", kp::AVMetadataObjectTypeEAN13Code},
        {"ean8", kp::AVMetadataObjectTypeEAN8Code},
        {"upce", kp::AVMetadataObjectTypeUPCECode},
        {"code39", kp::AVMetadataObjectTypeCode39Code},
        {"code93", kp::AVMetadataObjectTypeCode93Code},
        {"code128", kp::AVMetadataObjectTypeCode128Code},
        {"itf14", kp::AVMetadataObjectTypeITF14Code},
        {"i2of5", kp::AVMetadataObjectTypeInterleaved2of5Code},
        {"aztec", kp::AVMetadataObjectTypeAztecCode},
        {"datamatrix", kp::AVMetadataObjectTypeDataMatrixCode},
    };
    return names;
}

/// The types of a comma-separated list of short names (default face,pdf417,qr); false and error for an unknown one.
inline bool metadataTypesFromList(const std::string& list, std::vector<kp::AVMetadataObjectType>& types,
                                  std::string& error) {
    std::stringstream in(list.empty() ? "face,pdf417,qr" : list);
    std::string name;
    while (std::getline(in, name, ',')) {
        bool known = false;
        for (const auto& [shortName, type] : metadataTypeNames()) {
            if (shortName == name) {
                types.push_back(type);
                known = true;
            }
        }
        if (!known) {
            error = "unknown type " + name + " in --types";
            return false;
        }
    }
    return true;
}

/// {"x","y","width","height"}.
inline std::string jsonRect(kp::CGRect r) {
    return JsonObject()
        .add("x", r.origin.x)
        .add("y", r.origin.y)
        .add("width", r.size.width)
        .add("height", r.size.height)
        .str();
}

/// The faces and codes of a batch as the two JSON arrays "faces" and "codes" (geometry normalised to the frame).
inline void jsonObjects(const std::vector<std::shared_ptr<kp::AVMetadataObject>>& objects, std::string& faces,
                        std::string& codes) {
    faces = "[";
    codes = "[";
    for (const auto& o : objects) {
        if (const auto* f = dynamic_cast<const kp::AVMetadataFaceObject*>(o.get())) {
            JsonObject face;
            face.raw("bounds", jsonRect(f->bounds())).add("faceID", static_cast<int64_t>(f->faceID()));
            f->hasRollAngle() ? face.add("rollAngle", f->rollAngle()) : face.raw("rollAngle", "null");
            f->hasYawAngle() ? face.add("yawAngle", f->yawAngle()) : face.raw("yawAngle", "null");
            faces += (faces.size() > 1 ? "," : "") + face.str();
        } else if (const auto* c = dynamic_cast<const kp::AVMetadataMachineReadableCodeObject*>(o.get())) {
            std::string corners = "[";
            for (const auto& d : c->corners()) {
                kp::CGPoint p;
                kp::CGPointMakeWithDictionaryRepresentation(d, &p);
                corners += (corners.size() > 1 ? "," : "") + JsonObject().add("x", p.x).add("y", p.y).str();
            }
            JsonObject code;
            code.add("type", c->type());
            c->stringValue() ? code.add("text", *c->stringValue()) : code.raw("text", "null");
            code.raw("corners", corners + "]");
            codes += (codes.size() > 1 ? "," : "") + code.str();
        }
    }
    faces += "]";
    codes += "]";
}

} // namespace kpcli
