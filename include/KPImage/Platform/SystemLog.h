// SPDX-License-Identifier: MIT
// The system log: one sink for every line the library writes. Default: standard error.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace kp {

/// Receives each log line (the message alone, without time stamp or process name). Called on the thread
/// that logs; calls are serialised.
using LogSink = std::function<void(std::string_view message)>;

/// Replaces the sink; an empty function restores the default, which writes
/// "YYYY-MM-DD hh:mm:ss.uuuuuu process[pid] message" to standard error.
void setLogSink(LogSink sink);

/// Writes one line to the log.
void logMessage(std::string_view message);

/// Formats with printf rules and writes the line to the log.
void NSLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Formats with printf rules into a string.
std::string stringWithFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace kp
