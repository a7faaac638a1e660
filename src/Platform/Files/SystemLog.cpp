// SPDX-License-Identifier: MIT
// The system log: a replaceable sink, standard error by default.
#include "KPImage/Platform/SystemLog.h"

#include "Platform/Graphics/Allocation.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <unistd.h>

namespace kp {

namespace {

std::mutex& sinkMutex() {
    static std::mutex m;
    return m;
}

LogSink& currentSink() {
    static LogSink sink;
    return sink;
}

std::string processName() {
    // The kernel's short name of this process, as shown by ps.
    char name[64] = "process";
    if (FILE* f = std::fopen("/proc/self/comm", "r")) {
        if (std::fgets(name, sizeof name, f) != nullptr) {
            for (char* p = name; *p != '\0'; ++p) {
                if (*p == '\n') {
                    *p = '\0';
                }
            }
        }
        std::fclose(f);
    }
    return name;
}

void writeToStandardError(std::string_view message) {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    const auto micros = duration_cast<microseconds>(now.time_since_epoch()).count() % 1000000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    static const std::string name = processName();
    std::fprintf(stderr, "%s.%06lld %s[%d] %.*s\n", stamp, static_cast<long long>(micros), name.c_str(),
                 static_cast<int>(getpid()), static_cast<int>(message.size()), message.data());
}

std::string vformat(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (n <= 0) {
        return {};
    }
    // A line too long for the memory left is dropped, never thrown.
    return detail::orOnAllocationFailure(std::string(), [&] {
        std::string out(static_cast<size_t>(n) + 1, '\0');
        std::vsnprintf(out.data(), out.size(), format, args);
        out.resize(static_cast<size_t>(n));
        return out;
    });
}

} // namespace

void setLogSink(LogSink sink) {
    std::lock_guard lock(sinkMutex());
    currentSink() = std::move(sink);
}

void logMessage(std::string_view message) {
    std::lock_guard lock(sinkMutex());
    if (currentSink()) {
        currentSink()(message);
    } else {
        writeToStandardError(message);
    }
}

void NSLog(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string line = vformat(format, args);
    va_end(args);
    logMessage(line);
}

std::string stringWithFormat(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string out = vformat(format, args);
    va_end(args);
    return out;
}

} // namespace kp
