// SPDX-License-Identifier: MIT
// The metadata output: its configuration, and the worker that detects faces and codes in the newest frame.
#include "KPImage/Platform/AVCaptureMetadataOutput.h"

#include "Platform/Vision/MetadataDetector.h"

#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/CIDetector.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <thread>

namespace kp {

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

    // The stream ended: the waiting frame is dropped and results of the old stream are no longer delivered.
    void streamStopped() {
        std::lock_guard lock(_mutex);
        _stream.fetch_add(1, std::memory_order_acq_rel);
        _pending.reset();
    }

    bool isCurrent(uint64_t stream) const { return _stream.load(std::memory_order_acquire) == stream; }

    std::atomic<uint64_t> analysed{0};
    std::atomic<uint64_t> batches{0};

private:
    void run() {
        for (;;) {
            CMSampleBufferRef frame;
            uint64_t stream = 0;
            {
                std::unique_lock lock(_mutex);
                _wake.wait(lock, [this] { return _quit || _pending; });
                if (_quit) {
                    return;
                }
                frame = std::move(_pending);
                _pending.reset();
                stream = _pendingStream;
            }
            analyse(frame, stream);
        }
    }

    void analyse(CMSampleBufferRef frame, uint64_t stream) {
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
        const CMTime time = CMSampleBufferGetPresentationTimeStamp(frame);
        const CMTime duration = CMSampleBufferGetDuration(frame);
        LumaImage picture;
        const bool readable = LumaImageFromPixelBuffer(CMSampleBufferGetImageBuffer(frame), picture);
        frame.reset(); // the camera may reuse its buffer while the detectors run
        if (!readable) {
            return;
        }
        auto objects = _detector->detect(picture, time, duration);
        analysed.fetch_add(1, std::memory_order_relaxed);
        if (!isCurrent(stream)) {
            return;
        }
        if (objects.empty() && !_reportedObjects) {
            return;
        }
        _reportedObjects = !objects.empty();
        const dispatch_queue_t queue = _owner.metadataObjectsCallbackQueue();
        if (!queue) {
            return;
        }
        batches.fetch_add(1, std::memory_order_relaxed);
        std::weak_ptr<AVCaptureOutput> weak = _owner.weak_from_this();
        queue->async([weak, stream, objects = std::move(objects)] {
            auto self = std::static_pointer_cast<AVCaptureMetadataOutput>(weak.lock());
            if (!self || !self->_worker->isCurrent(stream)) {
                return;
            }
            if (auto delegate = self->metadataObjectsDelegate()) {
                delegate->captureOutput(self, objects, self->connection());
            }
        });
    }

    AVCaptureMetadataOutput& _owner;
    std::mutex _mutex;
    std::condition_variable _wake;
    CMSampleBufferRef _pending;
    uint64_t _pendingStream = 0;
    bool _quit = false;
    std::thread _thread;
    std::atomic<uint64_t> _stream{1};

    std::unique_ptr<MetadataDetector> _detector;
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
