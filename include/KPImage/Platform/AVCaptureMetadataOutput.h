// SPDX-License-Identifier: MIT
// The metadata output: which detections (faces, codes) a session reports, and to whom.
#pragma once

#include "KPImage/Platform/AVCaptureOutput.h"
#include "KPImage/Platform/AVMetadataObject.h"
#include "KPImage/Platform/CGImage.h"
#include "KPImage/Platform/Dispatch.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace kp {

/// Receives batches of detections on the output's delegate queue.
class AVCaptureMetadataOutputObjectsDelegate {
public:
    virtual ~AVCaptureMetadataOutputObjectsDelegate() = default;
    virtual void captureOutput(const std::shared_ptr<AVCaptureOutput>& output,
                               const std::vector<std::shared_ptr<AVMetadataObject>>& metadataObjects,
                               const std::shared_ptr<AVCaptureConnection>& connection) = 0;
};

/// The metadata output. While its session runs and it has a delegate and at least one type, a detection worker
/// analyses the newest frame of the camera (a frame arriving while it is busy or resting replaces the waiting one;
/// frame delivery to other outputs never waits for it) and delivers each result as one batch on the delegate's
/// queue: faces (by faceID) then codes, geometry normalised to the frame (0..1, origin top-left). A batch comes for
/// every analysed frame with objects, and exactly one empty batch when the objects are gone.
///
/// Rate: the worker analyses at most 15 frames a second (every second frame of a 30 fps camera), and rests after
/// each analysis so that it uses at most a fifth of one core: an analysis of a 1280 x 720 frame with faces and codes
/// takes about 14 to 17 ms of processor time, so the worker analyses 12 to 14 frames a second there within 0.2 of
/// a core; larger frames or a slower machine lower the rate, not the frame path's share.
///
/// Stopping: after stopRunning (or removing the output) returns, from whichever thread, no batch is delivered. A
/// delegate call already in progress on another thread is waited for first, up to half a second: a delegate that
/// itself waits for the stopping session is not waited for (its call began before the stop).
class AVCaptureMetadataOutput final : public AVCaptureOutput {
public:
    static std::shared_ptr<AVCaptureMetadataOutput> create();
    ~AVCaptureMetadataOutput() override;

    /// The objects the output would report for one picture with the given types (a fresh face tracker: new IDs);
    /// none for an image the detectors cannot read. Runs on the calling thread.
    static std::vector<std::shared_ptr<AVMetadataObject>>
    metadataObjectsInImage(const CGImage& image, const std::vector<AVMetadataObjectType>& types);

    /// Frames the worker has analysed and batches it has handed to the delegate queue since creation.
    struct DetectionCounts {
        uint64_t analysed = 0;
        uint64_t batches = 0;
    };
    DetectionCounts detectionCounts() const;

    /// The types the session's camera offers; empty while the output is not in a session with a camera input.
    std::vector<AVMetadataObjectType> availableMetadataObjectTypes() const;
    /// The types to report, in the order set.
    std::vector<AVMetadataObjectType> metadataObjectTypes() const;
    /// Keeps the types that are available (in order, without repeats); the others are ignored.
    void setMetadataObjectTypes(const std::vector<AVMetadataObjectType>& types);
    /// Sets the delegate (weak) and its queue (strong).
    void setMetadataObjectsDelegate(std::weak_ptr<AVCaptureMetadataOutputObjectsDelegate> delegate,
                                    dispatch_queue_t queue);
    std::shared_ptr<AVCaptureMetadataOutputObjectsDelegate> metadataObjectsDelegate() const;
    dispatch_queue_t metadataObjectsCallbackQueue() const;

    Kind kind() const override { return Kind::Metadata; }

    AVCaptureMetadataOutput();

protected:
    void sessionDidCaptureFrame(const CMSampleBufferRef& frame) override;
    void sessionDidStopStreaming(const NSErrorRef& error) override;

private:
    class Worker;
    std::unique_ptr<Worker> _worker;

    mutable std::mutex _typesMutex;
    std::vector<AVMetadataObjectType> _types;
    std::weak_ptr<AVCaptureMetadataOutputObjectsDelegate> _delegate;
    dispatch_queue_t _queue;
};

} // namespace kp
