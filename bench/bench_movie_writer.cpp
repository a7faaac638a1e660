// SPDX-License-Identifier: MIT
// The movie writer against its peers: 10 s of raw 1280x720 BGRA at 30 fps through the writer against fwrite of the
// same bytes to the same folder, and H.264 at 720p against the real time it records.
#include "KPImage/Platform/AVAssetWriter.h"
#include "KPImage/Platform/CVPixelBuffer.h"

#include "BenchReport.h"

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr size_t kWidth = 1280;
constexpr size_t kHeight = 720;
constexpr int kFrames = 300; // 10 s at 30 fps
constexpr double kVideoSeconds = kFrames / 30.0;

// Thirty distinct frames, reused round the clock.
const std::vector<kp::CVPixelBufferRef>& framePool() {
    static const std::vector<kp::CVPixelBufferRef> pool = [] {
        std::vector<kp::CVPixelBufferRef> frames;
        for (int i = 0; i < 30; ++i) {
            kp::CVPixelBufferRef buffer;
            kp::CVPixelBufferCreate(kWidth, kHeight, kp::kCVPixelFormatType_32BGRA, &buffer);
            uint8_t* bytes = buffer->bytes();
            for (size_t y = 0; y < kHeight; ++y) {
                for (size_t x = 0; x < kWidth * 4; ++x) {
                    bytes[y * buffer->plane(0).bytesPerRow + x] = static_cast<uint8_t>(x + y * 3 + static_cast<size_t>(i) * 7);
                }
            }
            frames.push_back(buffer);
        }
        return frames;
    }();
    return pool;
}

std::string scratchFile(const char* name) {
    const fs::path folder = fs::current_path() / ("kpimage-bench-" + std::to_string(getpid()));
    fs::create_directories(folder);
    return (folder / name).string();
}

// Removes the file and lets the disk write back everything pending, so no run pays for the one before.
void settle(const std::string& path) {
    fs::remove(path);
    sync();
}

// Records the frames through a writer and waits for the file to be closed; false on failure.
bool recordThroughWriter(const std::string& path, std::optional<kp::AVOutputSettings> settings) {
    auto writer = kp::AVAssetWriter::assetWriterWithURL(kp::NSURL::fileURLWithPath(path), kp::AVFileTypeQuickTimeMovie,
                                                        nullptr);
    auto input = kp::AVAssetWriterInput::assetWriterInputWithMediaType(kp::AVMediaTypeVideo, std::move(settings));
    if (!writer) {
        return false;
    }
    writer->addInput(input);
    writer->startWriting();
    writer->startSessionAtSourceTime(kp::kCMTimeZero);
    const auto& pool = framePool();
    for (int i = 0; i < kFrames; ++i) {
        kp::CMSampleTimingInfo timing;
        timing.presentationTimeStamp = kp::CMTimeMake(i, 30);
        timing.duration = kp::CMTimeMake(1, 30);
        kp::CMSampleBufferRef sample;
        kp::CMSampleBufferCreateForImageBuffer(pool[static_cast<size_t>(i) % pool.size()], true, timing, &sample);
        while (!input->isReadyForMoreMediaData()) {
            if (writer->status() != kp::AVAssetWriterStatusWriting) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        if (!input->appendSampleBuffer(sample)) {
            return false;
        }
    }
    input->markAsFinished();
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    writer->finishWritingWithCompletionHandler([&] {
        std::lock_guard lock(mutex);
        done = true;
        cv.notify_all();
    });
    std::unique_lock lock(mutex);
    cv.wait(lock, [&] { return done; });
    return writer->status() == kp::AVAssetWriterStatusCompleted;
}

void BM_WriterRaw(benchmark::State& state) {
    framePool();
    sync();
    const std::string path = scratchFile("raw.mov");
    for (auto _ : state) {
        if (!recordThroughWriter(path, std::nullopt)) {
            state.SkipWithError("the writer failed");
            break;
        }
        state.PauseTiming();
        settle(path);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kFrames * kWidth * kHeight * 4);
}

// The peer: the same frame bytes written with fwrite, flushed to the disk like the writer's file.
void BM_Fwrite(benchmark::State& state) {
    const auto& pool = framePool();
    const std::string path = scratchFile("raw.bin");
    sync();
    for (auto _ : state) {
        FILE* file = std::fopen(path.c_str(), "wb");
        for (int i = 0; i < kFrames; ++i) {
            const kp::CVPixelBufferRef& frame = pool[static_cast<size_t>(i) % pool.size()];
            std::fwrite(frame->bytes(), 1, kWidth * kHeight * 4, file);
        }
        std::fflush(file);
        fsync(fileno(file));
        std::fclose(file);
        state.PauseTiming();
        settle(path);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kFrames * kWidth * kHeight * 4);
}

void BM_WriterH264(benchmark::State& state) {
    framePool();
    const std::string path = scratchFile("h264.mov");
    for (auto _ : state) {
        if (!recordThroughWriter(path, kp::AVOutputSettings{{kp::AVVideoCodecKey, std::string(kp::AVVideoCodecTypeH264)}})) {
            state.SkipWithError("the writer failed");
            break;
        }
        state.PauseTiming();
        settle(path);
        state.ResumeTiming();
    }
}

// The writer's throughput against fwrite's, and H.264's real-time factor (wall time: the disk and the writer's
// thread are what is measured).
void compare(const kpbench::Times& seconds) {
    const auto time = [&](const char* name) { return kpbench::timeOf(seconds, name); };
    std::printf("\nWall time for 10 s of 1280x720 at 30 fps:\n");
    for (const auto& [name, s] : seconds) {
        std::printf("  %-16s %8.3f s\n", name.c_str(), s);
    }
    if (time("WriterRaw") > 0 && time("Fwrite") > 0) {
        std::printf("  raw_vs_fwrite      %6.2f  (writer throughput / fwrite throughput; target >= 0.8)\n",
                    time("Fwrite") / time("WriterRaw"));
    }
    if (time("WriterH264") > 0) {
        std::printf("  h264_realtime      %6.2f  (seconds of video per second of encoding on one core; target >= 1)\n",
                    kVideoSeconds / time("WriterH264"));
    }
}

} // namespace

int main(int argc, char** argv) {
    benchmark::RegisterBenchmark("WriterRaw", BM_WriterRaw)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
    benchmark::RegisterBenchmark("Fwrite", BM_Fwrite)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
    benchmark::RegisterBenchmark("WriterH264", BM_WriterH264)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
    kpbench::TimesReporter reporter(kpbench::TimesReporter::Clock::Wall, compare);
    const int status = kpbench::runBenchmarks(argc, argv, reporter);
    std::error_code error;
    fs::remove_all(fs::current_path() / ("kpimage-bench-" + std::to_string(getpid())), error);
    return status;
}
