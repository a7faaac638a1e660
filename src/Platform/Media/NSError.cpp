// SPDX-License-Identifier: MIT
// Error values of the platform layer.
#include "KPImage/Platform/NSError.h"

namespace kp {

std::shared_ptr<const NSError> NSError::errorWithDomain(std::string domain, int64_t code, UserInfo userInfo) {
    return std::make_shared<const NSError>(std::move(domain), code, std::move(userInfo));
}

std::shared_ptr<const NSError> NSError::errorWithDescription(std::string domain, int64_t code,
                                                             std::string description) {
    return errorWithDomain(std::move(domain), code, {{NSLocalizedDescriptionKey, std::move(description)}});
}

std::string NSError::localizedDescription() const {
    const auto it = _userInfo.find(NSLocalizedDescriptionKey);
    if (it != _userInfo.end()) {
        return it->second;
    }
    return "The operation couldn't be completed. (" + _domain + " error " + std::to_string(_code) + ".)";
}

} // namespace kp
