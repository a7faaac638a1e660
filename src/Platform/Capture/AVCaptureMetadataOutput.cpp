// SPDX-License-Identifier: MIT
// The metadata output: its configuration, and the worker that detects faces and codes in the newest frame.
#include "KPImage/Platform/AVCaptureMetadataOutput.h"

#include "Platform/Vision/MetadataDetector.h"

#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/CIDetector.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <thread>

namespace kp {

namespace {

// The worker starts an analysis at most kMaxAnalysesPerSecond times a second, and after each one rests until the
// analysis has used at most kMaxCoreShare of one core's time since it started: analyses of up to 13.3 ms of
// processor time keep the full rate (every second frame of a 30 fps camera), dearer ones lower it (17 ms, a
// 1280 x 720 frame with faces and codes: about 12 a second; 40 ms: five a second), so detection takes at most a
// fifth of a core whatever the machine and the picture. The rest never exceeds kMaxRest (one slow analysis, say
// while the machine swaps, does not silence the output for long); making the detectors (loading the landmark
// model) is not counted.
constexpr double kMaxAnalysesPerSecond = 15.0;
constexpr double kMaxCoreShare = 0.2;
constexpr double kMaxRest = 1.0;
// A stop from another thread waits this long at most for a delegate call in progress: a delegate that waits for
// the stopping session itself is not waited for (it was called before the stop and has not returned).
constexpr auto kDeliveryWait = std::chrono::milliseconds(500);

double threadCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

} // namespace

// Holds at most one waiting frame; a newer one replaces it. The thread starts with the first frame and lives as
// long as the output. Everything below the lock is touched by the worker thread only.
class AVCaptureMetadataOutput::Worker {
public:
    explicit Worker(AVCaptureMetadataOutput& owner) : _owner(owner) {}
    ~Worker() {
        {
            std::lock_guard lock(_mutex);
            _quit = true;
            _pending.reset();
        }
        _wake.notify_all();
        if (_thread.joinable()) {
            _thread.join();
        }
    }

    void offer(const CMSampleBufferRef& frame) {
        {
            std::lock_guard lock(_mutex);
            if (_quit) {
                return;
            }
            _pending = frame;
            _pendingStream = _stream.load(std::memory_order_acquire);
            if (!_thread.joinable()) {
                _thread = std::thread([this] { run(); });
            }
        }
        _wake.notify_one();
    }

    // The stream ended: the waiting frame is dropped and results of the old stream are no longer delivered. A
    // delegate call of the old stream in progress on another thread is waited for, so none is made after this
    // returns (a call from within the delegate itself does not wait for its own delivery).
    void streamStopped() {
        {
            std::lock_guard lock(_mutex);
            _pending.reset();
        }
        std::unique_lock lock(_deliveryMutex);
        _stream.fetch_add(1, std::memory_order_acq_rel);
        const auto self = std::this_thread::get_id();
        _delivered.wait_for(lock, kDeliveryWait, [&] {
            return std::all_of(_delivering.begin(), _delivering.end(), [&](std::thread::id id) { return id == self; });
        });
    }

    bool isCurrent(uint64_t stream) const { return _stream.load(std::memory_order_acquire) == stream; }

    // Delivery of a batch of the given stream on the calling thread: false (and nothing to end) when the stream
    // has ended; a stop waits until the delivery ends.
    bool beginDelivery(uint64_t stream) {
        std::lock_guard lock(_deliveryMutex);
        if (!isCurrent(stream)) {
            return false;
        }
        _delivering.push_back(std::this_thread::get_id());
        return true;
    }
    void endDelivery() {
        {
            std::lock_guard lock(_deliveryMutex);
            const auto it = std::find(_delivering.begin(), _delivering.end(), std::this_thread::get_id());
            if (it != _delivering.end()) {
                _delivering.erase(it);
            }
        }
        _delivered.notify_all();
    }

    std::atomic<uint64_t> analysed{0};
    std::atomic<uint64_t> batches{0};

private:
    void run() {
        auto notBefore = std::chrono::steady_clock::now();
        for (;;) {
            CMSampleBufferRef frame;
            uint64_t stream = 0;
            {
                std::unique_lock lock(_mutex);
                // A frame, then the end of the rest: frames arriving meanwhile replace the waiting one.
                _wake.wait(lock, [this] { return _quit || _pending; });
                _wake.wait_until(lock, notBefore, [this] { return _quit; });
                if (_quit) {
                    return;
                }
                if (!_pending) {
                    continue; // the stream stopped during the rest
                }
                frame = std::move(_pending);
                _pending.reset();
                stream = _pendingStream;
            }
            const auto start = std::chrono::steady_clock::now();
            const double busy = analyse(std::move(frame), stream);
            notBefore =
                start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(
                            std::clamp(busy / kMaxCoreShare, 1.0 / kMaxAnalysesPerSecond, kMaxRest)));
        }
    }

    // Analyses one frame and delivers its batch; the processor time it took, making the detectors left out.
    double analyse(CMSampleBufferRef frame, uint64_t stream) {
        const auto types = _owner.metadataObjectTypes();
        if (!_detector || _detector->types() != types) {
            _detector = std::make_unique<MetadataDetector>(types, CIDetectorFaceLandmarksModelPath(),
                                                           LiveFaceTracker::Mode::Video);
            _reportedObjects = false;
        }
        if (stream != _lastStream) {
            // A new stream: nothing of the old one is tracked or on the host's screen.
            _detector->reset();
            _lastStream = stream;
            _reportedObjects = false;
        }
        const double cpuStart = threadCpuSeconds();
        const CMTime time = CMSampleBufferGetPresentationTimeStamp(frame);
        const CMTime duration = CMSampleBufferGetDuration(frame);
        const bool readable = LumaImageFromPixelBuffer(CMSampleBufferGetImageBuffer(frame), _picture);
        frame.reset(); // the camera may reuse its buffer while the detectors run
        if (!readable) {
            return threadCpuSeconds() - cpuStart;
        }
        auto objects = _detector->detect(_picture, time, duration);
        const double busy = threadCpuSeconds() - cpuStart;
        analysed.fetch_add(1, std::memory_order_relaxed);
        if (!isCurrent(stream)) {
            return busy;
        }
        if (objects.empty() && !_reportedObjects) {
            return busy;
        }
        _reportedObjects = !objects.empty();
        const dispatch_queue_t queue = _owner.metadataObjectsCallbackQueue();
        if (!queue) {
            return busy;
        }
        batches.fetch_add(1, std::memory_order_relaxed);
        std::weak_ptr<AVCaptureOutput> weak = _owner.weak_from_this();
        queue->async([weak, stream, objects = std::move(objects)] {
            auto self = std::static_pointer_cast<AVCaptureMetadataOutput>(weak.lock());
            if (!self || !self->_worker->beginDelivery(stream)) {
                return;
            }
            struct End {
                Worker& worker;
                ~End() { worker.endDelivery(); }
            } end{*self->_worker};
            if (auto delegate = self->metadataObjectsDelegate()) {
                delegate->captureOutput(self, objects, self->connection());
            }
        });
        return busy;
    }

    AVCaptureMetadataOutput& _owner;
    std::mutex _mutex;
    std::condition_variable _wake;
    CMSampleBufferRef _pending;
    uint64_t _pendingStream = 0;
    bool _quit = false;
    std::thread _thread;
    std::atomic<uint64_t> _stream{1};
    // The threads delivering a batch right now (a serial delegate queue has at most one).
    std::mutex _deliveryMutex;
    std::condition_variable _delivered;
    std::vector<std::thread::id> _delivering;

    std::unique_ptr<MetadataDetector> _detector;
    LumaImage _picture; // the analysed frame's luminance, its buffer reused from frame to frame
    uint64_t _lastStream = 0;
    bool _reportedObjects = false;
};

std::shared_ptr<AVCaptureMetadataOutput> AVCaptureMetadataOutput::create() {
    return std::make_shared<AVCaptureMetadataOutput>();
}

AVCaptureMetadataOutput::AVCaptureMetadataOutput()
    : AVCaptureOutput(AVMediaTypeMetadata), _worker(std::make_unique<Worker>(*this)) {}

AVCaptureMetadataOutput::~AVCaptureMetadataOutput() {
    // The worker reads the configuration below, so it ends first.
    _worker.reset();
}

std::vector<std::shared_ptr<AVMetadataObject>>
AVCaptureMetadataOutput::metadataObjectsInImage(const CGImage& image, const std::vector<AVMetadataObjectType>& types) {
    LumaImage picture;
    if (!LumaImageFromCGImage(image, picture)) {
        return {};
    }
    MetadataDetector detector(types, CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Picture);
    return detector.detect(picture, kCMTimeInvalid, kCMTimeInvalid);
}

AVCaptureMetadataOutput::DetectionCounts AVCaptureMetadataOutput::detectionCounts() const {
    DetectionCounts counts;
    counts.analysed = _worker->analysed.load(std::memory_order_relaxed);
    counts.batches = _worker->batches.load(std::memory_order_relaxed);
    return counts;
}

void AVCaptureMetadataOutput::sessionDidCaptureFrame(const CMSampleBufferRef& frame) {
    if (!frame || !connection()->isEnabled()) {
        return;
    }
    {
        std::lock_guard lock(_typesMutex);
        if (_types.empty() || _delegate.expired() || !_queue) {
            return;
        }
    }
    _worker->offer(frame);
}

void AVCaptureMetadataOutput::sessionDidStopStreaming(const NSErrorRef& /*error*/) {
    _worker->streamStopped();
}

std::vector<AVMetadataObjectType> AVCaptureMetadataOutput::availableMetadataObjectTypes() const {
    auto owner = session();
    if (!owner) {
        return {};
    }
    for (const auto& input : owner->inputs()) {
        if (input->device()) {
            return input->device()->backend()->capabilities().metadataObjectTypes;
        }
    }
    return {};
}

std::vector<AVMetadataObjectType> AVCaptureMetadataOutput::metadataObjectTypes() const {
    std::lock_guard lock(_typesMutex);
    return _types;
}

void AVCaptureMetadataOutput::setMetadataObjectTypes(const std::vector<AVMetadataObjectType>& types) {
    const auto available = availableMetadataObjectTypes();
    std::vector<AVMetadataObjectType> kept;
    for (const auto& type : types) {
        if (std::find(available.begin(), available.end(), type) != available.end() &&
            std::find(kept.begin(), kept.end(), type) == kept.end()) {
            kept.push_back(type);
        }
    }
    std::lock_guard lock(_typesMutex);
    _types = std::move(kept);
}

void AVCaptureMetadataOutput::setMetadataObjectsDelegate(std::weak_ptr<AVCaptureMetadataOutputObjectsDelegate> delegate,
                                                         dispatch_queue_t queue) {
    std::lock_guard lock(_typesMutex);
    _delegate = std::move(delegate);
    _queue = std::move(queue);
}

std::shared_ptr<AVCaptureMetadataOutputObjectsDelegate> AVCaptureMetadataOutput::metadataObjectsDelegate() const {
    std::lock_guard lock(_typesMutex);
    return _delegate.lock();
}

dispatch_queue_t AVCaptureMetadataOutput::metadataObjectsCallbackQueue() const {
    std::lock_guard lock(_typesMutex);
    return _queue;
}

} // namespace kp
