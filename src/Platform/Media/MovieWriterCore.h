// SPDX-License-Identifier: MIT
// The movie writer's shared state and its writer thread: a bounded frame queue in front of a fragmented
// QuickTime muxer (libavformat), with an optional encoder (libavcodec).
#pragma once

#include "KPImage/Platform/AVAssetWriterInput.h"
#include "KPImage/Platform/CMSampleBuffer.h"
#include "KPImage/Platform/NSError.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace kp {

/// State shared by a writer and its input. The writer thread owns the file and the muxer; everything else is
/// guarded by the mutex, and the status is also readable without it.
class MovieWriterCore {
public:
    explicit MovieWriterCore(std::string path);
    ~MovieWriterCore();
    MovieWriterCore(const MovieWriterCore&) = delete;
    MovieWriterCore& operator=(const MovieWriterCore&) = delete;

    const std::string& path() const { return _path; }
    int64_t status() const { return _status.load(std::memory_order_acquire); }
    NSErrorRef error() const;

    /// Binds the (one) video input's settings; false when already bound or no longer unknown.
    bool bindInput(std::optional<AVOutputSettings> settings);
    bool hasInput() const;

    /// Creates the file and the thread; false (and failed, or unchanged unless unknown) otherwise.
    bool start();
    void startSession(CMTime startTime);
    bool ready() const;
    bool append(const CMSampleBufferRef& sample);
    void markInputFinished();
    /// Calls onClosed exactly once: on the writer thread once the file is closed, or at once when not writing.
    void finish(std::function<void()> onClosed);
    void cancel();
    /// Finishes without a handler and waits for the thread (for the writer's destruction).
    void shutdown();

private:
    void run();
    void failLocked(int64_t code, const std::string& description, int posixCode);

    const std::string _path;
    std::atomic<int64_t> _status{0};
    mutable std::mutex _mutex;
    std::condition_variable _wake;
    NSErrorRef _error;
    bool _bound = false;
    std::optional<AVOutputSettings> _settings;
    int _fd = -1;
    std::thread _thread;
    std::deque<CMSampleBufferRef> _queue;
    bool _inputFinished = false;
    bool _finishRequested = false;
    bool _cancelRequested = false;
    bool _threadDone = false;
    std::function<void()> _onClosed;
    bool _sessionStarted = false;
    CMTime _sessionStart = kCMTimeInvalid;
    CMTime _lastTime = kCMTimeInvalid;
};

} // namespace kp
