// SPDX-License-Identifier: MIT
// The kpimage tool's commands: each source file registers its commands with a static Registration.
#pragma once

#include <string>
#include <vector>

namespace kpcli {

struct Command {
    const char* name;
    /// One or more lines for --help: "kpimage NAME ARGS" followed by what it prints.
    const char* usage;
    /// Runs with the arguments after the command name; returns the process exit code.
    int (*run)(const std::vector<std::string>& args);
};

/// Adds a command to the tool at start-up.
struct Registration {
    explicit Registration(const Command& command);
};

const std::vector<Command>& commands();

/// Writes "kpimage: message" to standard error; returns 1.
int fail(const std::string& message);

} // namespace kpcli
