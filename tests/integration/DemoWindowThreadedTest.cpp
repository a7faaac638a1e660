// SPDX-License-Identifier: MIT
// The demo window on a virtual X display: a screenshot of the display shows the camera picture and the
// progress circle counting seconds.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

std::optional<std::string> findProgram(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        const std::string candidate = dir + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return std::nullopt;
}

// A child process started by the test, killed and reaped when the object goes.
class Child {
public:
    Child(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv, const std::string& out) {
        std::vector<char*> args;
        for (const auto& a : argv) {
            args.push_back(const_cast<char*>(a.c_str()));
        }
        args.push_back(nullptr);
        std::vector<std::string> envStrings(extraEnv);
        for (char** e = environ; *e != nullptr; ++e) {
            if (std::strncmp(*e, "DISPLAY=", 8) != 0) {
                envStrings.emplace_back(*e);
            }
        }
        std::vector<char*> env;
        for (auto& e : envStrings) {
            env.push_back(e.data());
        }
        env.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        if (posix_spawn(&_pid, args[0], &actions, nullptr, args.data(), env.data()) != 0) {
            _pid = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Child() {
        if (_pid > 0 && !_reaped) {
            ::kill(_pid, SIGTERM);
            ::waitpid(_pid, nullptr, 0);
        }
    }
    bool started() const { return _pid > 0; }
    /// True while running; records the exit status once it has ended.
    bool running() {
        if (_pid <= 0 || _reaped) {
            return false;
        }
        int status = 0;
        if (::waitpid(_pid, &status, WNOHANG) == _pid) {
            _reaped = true;
            _status = status;
            return false;
        }
        return true;
    }
    int status() const { return _status; }

private:
    pid_t _pid = -1;
    bool _reaped = false;
    int _status = 0;
};

struct Rgb {
    int r = 0, g = 0, b = 0;
};

// An X window dump (xwd format, ZPixmap, 24 or 32 bits per pixel, true colour).
struct Screenshot {
    uint32_t width = 0, height = 0;
    std::vector<Rgb> pixels;
    Rgb at(int x, int y) const {
        if (x < 0 || y < 0 || uint32_t(x) >= width || uint32_t(y) >= height) {
            return {-1, -1, -1};
        }
        return pixels[size_t(y) * width + size_t(x)];
    }
};

std::optional<Screenshot> readXwd(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> d((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (d.size() < 100) {
        return std::nullopt;
    }
    auto field = [&](size_t i) {
        return uint32_t(d[i * 4]) << 24 | uint32_t(d[i * 4 + 1]) << 16 | uint32_t(d[i * 4 + 2]) << 8 | d[i * 4 + 3];
    };
    const uint32_t headerSize = field(0), format = field(2), width = field(4), height = field(5),
                   byteOrder = field(7), bitsPerPixel = field(11), bytesPerLine = field(12), ncolors = field(19);
    const uint64_t offset = uint64_t(headerSize) + uint64_t(ncolors) * 12;
    const uint32_t bytesPerPixel = bitsPerPixel / 8;
    if (format != 2 || (bytesPerPixel != 3 && bytesPerPixel != 4) || width == 0 || height == 0 || width > 10000 ||
        height > 10000 || bytesPerLine < width * bytesPerPixel || offset + uint64_t(bytesPerLine) * height > d.size()) {
        return std::nullopt;
    }
    Screenshot shot;
    shot.width = width;
    shot.height = height;
    shot.pixels.resize(size_t(width) * height);
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            const uint8_t* p = d.data() + offset + uint64_t(y) * bytesPerLine + uint64_t(x) * bytesPerPixel;
            shot.pixels[size_t(y) * width + x] =
                byteOrder == 0 ? Rgb{p[2], p[1], p[0]} : Rgb{p[bytesPerPixel - 3], p[bytesPerPixel - 2], p[bytesPerPixel - 1]};
        }
    }
    return shot;
}

bool green(Rgb c) { return c.g > 200 && c.r < 60 && c.b < 60; }

// What the demo shows: the sample scene's ID card (its blue header band), and the circle (green outline and centre disc)
// with a sector from the top clockwise once a second has passed.
struct Verdict {
    int cardBlue = 0;
    bool circle = false;
    bool sectorFromTheTop = false;
    double cx = 0, cy = 0;
    std::string detail;
};

Verdict judge(const Screenshot& shot) {
    Verdict v;
    int minX = 1 << 30, minY = 1 << 30, maxX = -1, maxY = -1;
    for (uint32_t y = 0; y < shot.height; ++y) {
        for (uint32_t x = 0; x < shot.width; ++x) {
            const Rgb c = shot.at(int(x), int(y));
            if (c.b > 120 && c.r < 70 && c.g > 50 && c.g < 110) {
                ++v.cardBlue;
            }
            if (green(c)) {
                minX = std::min(minX, int(x)), maxX = std::max(maxX, int(x));
                minY = std::min(minY, int(y)), maxY = std::max(maxY, int(y));
            }
        }
    }
    if (maxX < 0) {
        v.detail = "no green pixels";
        return v;
    }
    // The outline's outer edge is the green bounding box (radius 68 in a 140-point circle).
    const double cx = (minX + maxX + 1) / 2.0, cy = (minY + maxY + 1) / 2.0, radius = (maxX - minX + 1) / 2.0;
    v.cx = cx;
    v.cy = cy;
    std::ostringstream s;
    s << "circle at " << cx << "," << cy << " radius " << radius << ", " << v.cardBlue << " card-blue pixels";
    v.detail = s.str();
    v.circle = std::abs(radius - 68) <= 3 && std::abs((maxY - minY + 1) / 2.0 - radius) <= 3 &&
               green(shot.at(int(cx), int(cy))) && green(shot.at(int(cx + radius - 2), int(cy)));
    // Between the inner radius (30) and the outer one (62): green a little clockwise of the top, and not at
    // the bottom (fewer than 30 seconds have passed).
    const double a = 3 * M_PI / 180;
    v.sectorFromTheTop = green(shot.at(int(cx + 46 * std::sin(a)), int(cy - 46 * std::cos(a)))) &&
                         !green(shot.at(int(cx), int(cy + 46)));
    return v;
}

} // namespace

TEST(DemoWindowThreaded, ScreenshotShowsTheCameraAndTheCountingCircle) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the demo window runs in the default configuration only (GTK is not sanitizer-clean)";
#endif
    const std::string demo = std::string(KPIMAGE_BINARY_DIR) + "/apps/kpimage-demo/kpimage-demo";
    if (::access(demo.c_str(), X_OK) != 0) {
        GTEST_SKIP() << "kpimage-demo was not built (GTK 4 missing or apps off)";
    }
    const auto xvfb = findProgram("Xvfb");
    const auto xwd = findProgram("xwd");
    if (!xvfb || !xwd) {
        GTEST_SKIP() << "Xvfb or xwd is not installed (scripts/setup installs them)";
    }
    const std::string work = std::string(KPIMAGE_BINARY_DIR) + "/tests/demo-window";
    ::mkdir(work.c_str(), 0755);

    // A free display number: Xvfb takes it or ends at once.
    std::optional<Child> server;
    std::string display;
    for (int n = 87; n < 99 && display.empty(); ++n) {
        const std::string socket = "/tmp/.X11-unix/X" + std::to_string(n);
        if (::access(socket.c_str(), F_OK) == 0) {
            continue;
        }
        server.emplace(std::vector<std::string>{*xvfb, ":" + std::to_string(n), "-screen", "0", "800x600x24",
                                                "-nolisten", "tcp"},
                       std::vector<std::string>{}, work + "/xvfb.log");
        for (int i = 0; i < 100 && server->running(); ++i) {
            if (::access(socket.c_str(), F_OK) == 0) {
                display = ":" + std::to_string(n);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (display.empty()) {
            server.reset();
        }
    }
    if (display.empty()) {
        GTEST_SKIP() << "Xvfb could not start (see " << work << "/xvfb.log)";
    }

    Child app({demo, "--seconds", "20", "--size", "480,320"}, {"DISPLAY=" + display}, work + "/demo.log");
    ASSERT_TRUE(app.started());
    // Screenshots until the picture shows what is expected (or about 15 s have passed).
    auto waitFor = [&](const std::function<bool(const Verdict&)>& expected, Verdict& last) {
        for (int attempt = 0; attempt < 60; ++attempt) {
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
            if (!app.running()) {
                ADD_FAILURE() << "the demo ended early with status " << app.status() << " (see " << work
                              << "/demo.log)";
                return false;
            }
            const std::string shotPath = work + "/screen.xwd";
            Child grab({*xwd, "-root", "-silent", "-display", display, "-out", shotPath}, {}, work + "/xwd.log");
            while (grab.running()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            if (auto shot = readXwd(shotPath)) {
                last = judge(*shot);
                if (expected(last)) {
                    return true;
                }
            }
        }
        return false;
    };
    Verdict last;
    ASSERT_TRUE(waitFor([](const Verdict& v) { return v.cardBlue > 300 && v.circle && v.sectorFromTheTop; }, last))
        << last.detail << (last.circle ? "" : "; no circle") << (last.sectorFromTheTop ? "" : "; no sector");
    // 480 x 320: the 140-point circle sits 16 points from the bottom-right corner.
    EXPECT_NEAR(last.cx, 480 - 16 - 70, 3);
    EXPECT_NEAR(last.cy, 320 - 16 - 70, 3);

    // Resizing the window reaches the root view's setBounds, which moves the circle to the new corner.
    const auto xdotool = findProgram("xdotool");
    if (!xdotool) {
        GTEST_SKIP() << "xdotool is not installed: the resize is not checked";
    }
    Child resize({*xdotool, "search", "--name", "KPImage demo", "windowsize", "%@", "600", "400"},
                 {"DISPLAY=" + display}, work + "/xdotool.log");
    while (resize.running()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_TRUE(waitFor(
        [](const Verdict& v) { return v.circle && std::abs(v.cx - 514) <= 3 && std::abs(v.cy - 314) <= 3; }, last))
        << last.detail;
}
