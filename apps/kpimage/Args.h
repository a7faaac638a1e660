// SPDX-License-Identifier: MIT
// Command-line parsing helpers for the kpimage tool: positional arguments and --name value options.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace kpcli {

/// Splits arguments into positionals, --name value options and --flag switches; "--" ends the options, so
/// every argument after it is positional (a name may then begin with "--").
class Args {
public:
    /// valueOptions: names that take a value; flags: names that do not. Unknown options are an error.
    Args(const std::vector<std::string>& args, const std::set<std::string>& valueOptions,
         const std::set<std::string>& flags) {
        bool optionsEnded = false;
        for (size_t i = 0; i < args.size(); ++i) {
            const std::string& a = args[i];
            if (!optionsEnded && a == "--") {
                optionsEnded = true;
            } else if (!optionsEnded && a.rfind("--", 0) == 0 && a.size() > 2) {
                const std::string name = a.substr(2);
                if (flags.count(name)) {
                    _flags.insert(name);
                } else if (valueOptions.count(name)) {
                    if (i + 1 >= args.size()) {
                        _error = "option --" + name + " needs a value";
                        return;
                    }
                    _options[name] = args[++i];
                } else {
                    _error = "unknown option " + a;
                    return;
                }
            } else {
                _positional.push_back(a);
            }
        }
    }

    const std::string& error() const { return _error; }
    const std::vector<std::string>& positional() const { return _positional; }
    bool flag(const std::string& name) const { return _flags.count(name) != 0; }
    bool has(const std::string& name) const { return _options.count(name) != 0; }
    std::string value(const std::string& name, const std::string& fallback = "") const {
        auto it = _options.find(name);
        return it == _options.end() ? fallback : it->second;
    }

private:
    std::vector<std::string> _positional;
    std::map<std::string, std::string> _options;
    std::set<std::string> _flags;
    std::string _error;
};

/// Parses a whole decimal integer in the 32-bit range.
inline std::optional<int32_t> parseInt(const std::string& s) {
    if (s.empty()) {
        return std::nullopt;
    }
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(s.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX) {
        return std::nullopt;
    }
    return static_cast<int32_t>(v);
}

/// Parses a finite number.
inline std::optional<double> parseNumber(const std::string& s) {
    if (s.empty()) {
        return std::nullopt;
    }
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(s.c_str(), &end);
    if (errno != 0 || *end != '\0' || !(v == v) || v > 1e300 || v < -1e300) {
        return std::nullopt;
    }
    return v;
}

/// Parses exactly n comma-separated numbers ("X,Y,W,H").
inline std::optional<std::vector<double>> parseNumbers(const std::string& s, size_t n) {
    std::vector<double> out;
    std::stringstream ss(s);
    std::string part;
    while (std::getline(ss, part, ',')) {
        auto v = parseNumber(part);
        if (!v) {
            return std::nullopt;
        }
        out.push_back(*v);
    }
    if (out.size() != n) {
        return std::nullopt;
    }
    return out;
}

} // namespace kpcli
