// SPDX-License-Identifier: MIT
// Error values of the platform layer: a domain, a code and user info, handed out by shared pointer.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace kp {

/// The user-info key of the human-readable description.
inline constexpr const char* NSLocalizedDescriptionKey = "NSLocalizedDescription";
/// The domain of capture errors.
inline constexpr const char* AVFoundationErrorDomain = "AVFoundationErrorDomain";
/// The domain of errors of the operating system (code is errno).
inline constexpr const char* NSPOSIXErrorDomain = "NSPOSIXErrorDomain";

/// An immutable error value.
class NSError {
public:
    using UserInfo = std::map<std::string, std::string>;

    /// A shared error of the domain, code and user info (may be empty).
    static std::shared_ptr<const NSError> errorWithDomain(std::string domain, int64_t code, UserInfo userInfo = {});
    /// The same with a description stored under NSLocalizedDescriptionKey.
    static std::shared_ptr<const NSError> errorWithDescription(std::string domain, int64_t code,
                                                               std::string description);

    const std::string& domain() const { return _domain; }
    int64_t code() const { return _code; }
    const UserInfo& userInfo() const { return _userInfo; }
    /// The description in user info, else "The operation couldn't be completed. (domain error code.)".
    std::string localizedDescription() const;

    NSError(std::string domain, int64_t code, UserInfo userInfo)
        : _domain(std::move(domain)), _code(code), _userInfo(std::move(userInfo)) {}

private:
    std::string _domain;
    int64_t _code;
    UserInfo _userInfo;
};

/// nil is a null pointer.
using NSErrorRef = std::shared_ptr<const NSError>;

} // namespace kp
