// SPDX-License-Identifier: MIT
// File URLs of the platform layer.
#include "KPImage/Platform/NSURL.h"

#include <cstdio>

namespace kp {

NSURLRef NSURL::fileURLWithPath(std::string path) {
    if (path.empty()) {
        return nullptr;
    }
    return std::make_shared<const NSURL>(std::move(path));
}

std::string NSURL::absoluteString() const {
    std::string out = "file://";
    for (const unsigned char c : _path) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                           c == '.' || c == '_' || c == '~' || c == '/';
        if (plain) {
            out += static_cast<char>(c);
        } else {
            char escaped[4];
            std::snprintf(escaped, sizeof escaped, "%%%02X", c);
            out += escaped;
        }
    }
    return out;
}

std::string NSURL::lastPathComponent() const {
    size_t end = _path.size();
    while (end > 0 && _path[end - 1] == '/') {
        --end;
    }
    const size_t slash = end == 0 ? std::string::npos : _path.rfind('/', end - 1);
    const size_t start = slash == std::string::npos ? 0 : slash + 1;
    return _path.substr(start, end - start);
}

} // namespace kp
