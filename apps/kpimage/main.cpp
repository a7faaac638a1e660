// SPDX-License-Identifier: MIT
// The kpimage tool: runs the library on image files and cameras, printing JSON on standard output.
#include "Command.h"

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

namespace kpcli {

namespace {
std::vector<Command>& registry() {
    static std::vector<Command> all;
    return all;
}

void printHelp() {
    std::cout << "kpimage: camera capture and image analysis.\n"
                 "Every command prints one JSON object per line on standard output; errors go to standard\n"
                 "error with exit code 1.\n\nCommands:\n";
    for (const Command& c : commands()) {
        std::cout << c.usage << "\n";
    }
}
} // namespace

Registration::Registration(const Command& command) { registry().push_back(command); }

const std::vector<Command>& commands() { return registry(); }

int fail(const std::string& message) {
    std::cerr << "kpimage: " << message << "\n";
    return 1;
}

} // namespace kpcli

int main(int argc, char** argv) {
    using namespace kpcli;
    if (argc < 2 || std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h" ||
        std::string(argv[1]) == "help") {
        printHelp();
        return argc < 2 ? 1 : 0;
    }
    const std::string name = argv[1];
    for (const Command& c : commands()) {
        if (name == c.name) {
            std::vector<std::string> args(argv + 2, argv + argc);
            for (const std::string& a : args) {
                if (a == "--help" || a == "-h") {
                    std::cout << c.usage << "\n";
                    return 0;
                }
            }
            return c.run(args);
        }
    }
    return fail("unknown command '" + name + "' (see kpimage --help)");
}
