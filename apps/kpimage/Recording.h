// SPDX-License-Identifier: MIT
// What the recording commands share: Ctrl+C and SIGTERM end a run cleanly, folders are checked before the camera
// starts, and the movie's fate is told as the photo album reported it.
#pragma once

#include <KPImage/KPImage.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

namespace kpcli {

namespace interrupts {

/// The signal that asked the run to end (SIGINT or SIGTERM), 0 while none came. Lock-free, so the handler may
/// set it.
inline std::atomic<int> gSignal{0};
static_assert(std::atomic<int>::is_always_lock_free);

inline void onSignal(int number) {
    if (gSignal.exchange(number) != 0) {
        // The second one: the user does not want to wait for the finish.
        static const char message[] = "kpimage: interrupted again, stopping at once\n";
        [[maybe_unused]] const ssize_t n = ::write(STDERR_FILENO, message, sizeof message - 1);
        _exit(128 + number);
    }
}

} // namespace interrupts

/// Lets SIGINT and SIGTERM end a run: the first one ends the current runFor (the command then stops the camera,
/// finishes and saves what it has and reports it), a second one ends the process at once.
inline void catchInterrupts() {
    struct sigaction action {};
    action.sa_handler = interrupts::onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

/// The signal that ended the run, 0 when none did.
inline int interruptSignal() { return interrupts::gSignal.load(); }

/// The exit code of a run: 128 + the signal when one ended it (130 for Ctrl+C, 143 for SIGTERM), else code.
inline int exitCodeAfterInterrupt(int code) {
    const int number = interruptSignal();
    return number != 0 ? 128 + number : code;
}

/// Runs the main run loop for the seconds, or until an interrupt or stop().
inline void runUntilInterrupted(double seconds) {
    if (interruptSignal() != 0) {
        return;
    }
    auto watch = kp::NSTimer::scheduledTimerWithTimeInterval(0.05, true, [](kp::NSTimer&) {
        if (interruptSignal() != 0) {
            kp::NSRunLoop::mainRunLoop().stop();
        }
    });
    kp::NSRunLoop::mainRunLoop().runFor(seconds);
    watch->invalidate();
}

/// Why files cannot be written into the folder (made with its parents when missing), naming the cause; "" when
/// they can. A probe file is created and removed, so a read-only folder or file system, a path through a
/// regular file and a full file system are all found before any camera starts.
inline std::string folderProblem(const std::string& folder, const std::string& role) {
    namespace fs = std::filesystem;
    if (folder.empty()) {
        return "the " + role + " folder is empty";
    }
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
        return "cannot create the " + role + " folder " + folder + ": " + error.message();
    }
    if (!fs::is_directory(folder, error)) {
        return "the " + role + " folder " + folder + " is not a folder";
    }
    std::string probe = (fs::path(folder) / ".kpimage-probe-XXXXXX").string();
    const int fd = mkostemp(probe.data(), O_CLOEXEC);
    if (fd < 0) {
        return "cannot write into the " + role + " folder " + folder + ": " + std::strerror(errno);
    }
    const char byte = 0;
    const bool wrote = ::write(fd, &byte, 1) == 1 && fsync(fd) == 0;
    const int code = errno;
    ::close(fd);
    ::unlink(probe.c_str());
    if (!wrote) {
        return "cannot write into the " + role + " folder " + folder + ": " + std::strerror(code);
    }
    struct statvfs space {};
    if (statvfs(folder.c_str(), &space) == 0 && space.f_bavail == 0) {
        return "cannot write into the " + role + " folder " + folder + ": " + std::strerror(ENOSPC);
    }
    return {};
}

/// The first problem of the folders a recording needs: the documents folder (the recorder's working folder
/// goes there) and the photo album. "" when both can be written.
inline std::string recordingFoldersProblem() {
    const auto documents = kp::NSSearchPathForDirectoriesInDomains(kp::NSDocumentDirectory, kp::NSUserDomainMask, true);
    if (documents.empty()) {
        return "there is no documents folder";
    }
    if (std::string problem = folderProblem(documents.front(), "documents"); !problem.empty()) {
        return problem;
    }
    return folderProblem(kp::savedPhotosAlbumDirectory(), "photo album");
}

/// What became of the recorder's last movie once the album has answered: the album's file, or why there is
/// none (the writer's failure first: it is the cause of the album's).
struct MovieOutcome {
    std::string file;
    std::string error;
};

inline MovieOutcome movieOutcome(const kp::KPCameraRollHelper& recorder) {
    const auto writer = recorder.outputWriter();
    if (!writer || writer->status() != kp::AVAssetWriterStatusCompleted) {
        return {"", "the recording did not complete: " +
                        (writer && writer->error() ? writer->error()->localizedDescription()
                                                   : std::string("the movie writer did not finish"))};
    }
    const auto save = recorder.lastCameraDataSave();
    if (!save) {
        return {"", "the photo album did not answer"};
    }
    if (save->error || save->albumPath.empty()) {
        return {"", "the movie did not reach the photo album: " +
                        (save->error ? save->error->localizedDescription() : std::string("no file was written"))};
    }
    return {save->albumPath, ""};
}

} // namespace kpcli
