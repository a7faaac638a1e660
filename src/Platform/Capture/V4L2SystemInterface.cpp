// SPDX-License-Identifier: MIT
// The V4L2 interface on the real kernel.
#include "Platform/Capture/V4L2Interface.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

namespace kp {

namespace {
class SystemV4L2 final : public V4L2Interface {
public:
    int open(const std::string& path) override { return ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC); }
    int close(int fd) override { return ::close(fd); }
    int ioctl(int fd, unsigned long request, void* arg) override {
        int r = 0;
        do {
            r = ::ioctl(fd, request, arg);
        } while (r == -1 && errno == EINTR);
        return r;
    }
    void* mmap(int fd, size_t length, off_t offset) override {
        return ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
    }
    int munmap(void* address, size_t length) override { return ::munmap(address, length); }
    int poll(int fd, int timeoutMs, bool* hangup) override {
        pollfd p{fd, POLLIN, 0};
        int r = 0;
        do {
            r = ::poll(&p, 1, timeoutMs);
        } while (r == -1 && errno == EINTR);
        if (hangup != nullptr) {
            *hangup = r > 0 && (p.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
        }
        return r;
    }
    int flock(int fd, int operation) override { return ::flock(fd, operation); }
    std::vector<std::string> listNodes(const std::string& directory) override {
        std::vector<std::pair<long, std::string>> nodes;
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator(directory, ec)) {
            const std::string name = entry.path().filename().string();
            if (name.rfind("video", 0) != 0 || name.size() == 5) {
                continue;
            }
            char* end = nullptr;
            const long number = std::strtol(name.c_str() + 5, &end, 10);
            if (end != nullptr && *end == '\0') {
                nodes.emplace_back(number, entry.path().string());
            }
        }
        std::sort(nodes.begin(), nodes.end());
        std::vector<std::string> out;
        for (auto& n : nodes) {
            out.push_back(std::move(n.second));
        }
        return out;
    }
};
} // namespace

std::shared_ptr<V4L2Interface> V4L2Interface::system() {
    static const auto instance = std::make_shared<SystemV4L2>();
    return instance;
}

} // namespace kp
