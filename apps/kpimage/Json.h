// SPDX-License-Identifier: MIT
// A minimal JSON object writer for the kpimage tool's output.
#pragma once

#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>

namespace kpcli {

/// Escapes a string for a JSON string literal (without the quotes).
inline std::string jsonEscape(std::string_view s) {
    std::string out;
    out.reserve(s.size() + 2);
    for (unsigned char c : s) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out;
}

/// Builds one JSON object: {"key":value,...}.
class JsonObject {
public:
    JsonObject& add(std::string_view key, std::string_view value) {
        return raw(key, "\"" + jsonEscape(value) + "\"");
    }
    JsonObject& add(std::string_view key, const char* value) { return add(key, std::string_view(value)); }
    JsonObject& add(std::string_view key, bool value) { return raw(key, value ? "true" : "false"); }
    JsonObject& add(std::string_view key, int64_t value) { return raw(key, std::to_string(value)); }
    JsonObject& add(std::string_view key, int32_t value) { return raw(key, std::to_string(value)); }
    JsonObject& add(std::string_view key, uint64_t value) { return raw(key, std::to_string(value)); }
    JsonObject& add(std::string_view key, double value) {
        if (!std::isfinite(value)) {
            return raw(key, "null");
        }
        char buf[64];
        std::snprintf(buf, sizeof buf, "%.17g", value);
        return raw(key, buf);
    }
    /// Adds an already-encoded JSON value (object, array, number).
    JsonObject& raw(std::string_view key, std::string_view json) {
        _body += _body.empty() ? "" : ",";
        _body += "\"" + jsonEscape(key) + "\":" + std::string(json);
        return *this;
    }
    std::string str() const { return "{" + _body + "}"; }

private:
    std::string _body;
};

} // namespace kpcli
