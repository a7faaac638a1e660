// SPDX-License-Identifier: MIT
// The movie writer and its input: the public face of MovieWriterCore.
#include "KPImage/Platform/AVAssetWriter.h"

#include "MovieWriterCore.h"

namespace kp {

std::shared_ptr<AVAssetWriterInput> AVAssetWriterInput::assetWriterInputWithMediaType(
    const AVMediaType& mediaType, std::optional<AVOutputSettings> outputSettings) {
    return std::make_shared<AVAssetWriterInput>(mediaType, std::move(outputSettings));
}

AVAssetWriterInput::AVAssetWriterInput(const AVMediaType& mediaType, std::optional<AVOutputSettings> outputSettings)
    : _mediaType(mediaType), _outputSettings(std::move(outputSettings)) {}

std::shared_ptr<MovieWriterCore> AVAssetWriterInput::core() const {
    std::lock_guard lock(_mutex);
    return _core;
}

bool AVAssetWriterInput::isReadyForMoreMediaData() const {
    const auto writer = core();
    return writer && writer->ready();
}

bool AVAssetWriterInput::appendSampleBuffer(const CMSampleBufferRef& sampleBuffer) {
    const auto writer = core();
    return writer && writer->append(sampleBuffer);
}

void AVAssetWriterInput::markAsFinished() {
    if (const auto writer = core()) {
        writer->markInputFinished();
    }
}

std::shared_ptr<AVAssetWriter> AVAssetWriter::assetWriterWithURL(const NSURLRef& outputURL,
                                                                 const AVFileType& fileType, NSErrorRef* error) {
    const auto reject = [&](const std::string& description) -> std::shared_ptr<AVAssetWriter> {
        if (error != nullptr) {
            *error = NSError::errorWithDescription(AVFoundationErrorDomain, AVErrorFormatUnsupported, description);
        }
        return nullptr;
    };
    if (!outputURL) {
        return reject("The movie writer needs a file URL");
    }
    if (fileType != AVFileTypeQuickTimeMovie) {
        return reject("The movie writer writes QuickTime movies only, not \"" + fileType + "\"");
    }
    if (error != nullptr) {
        *error = nullptr;
    }
    return std::make_shared<AVAssetWriter>(outputURL, fileType);
}

AVAssetWriter::AVAssetWriter(NSURLRef url, AVFileType fileType)
    : _url(std::move(url)), _fileType(std::move(fileType)), _core(std::make_shared<MovieWriterCore>(_url->path())),
      _completionQueue(dispatch_queue_create("AVAssetWriterCompletionQueue", DISPATCH_QUEUE_SERIAL)) {}

AVAssetWriter::~AVAssetWriter() { _core->shutdown(); }

bool AVAssetWriter::canAddInput(const std::shared_ptr<AVAssetWriterInput>& input) const {
    return input && input->mediaType() == AVMediaTypeVideo && !input->core() &&
           status() == AVAssetWriterStatusUnknown && !_core->hasInput();
}

void AVAssetWriter::addInput(const std::shared_ptr<AVAssetWriterInput>& input) {
    if (!input || input->mediaType() != AVMediaTypeVideo) {
        return;
    }
    std::lock_guard inputLock(input->_mutex);
    if (input->_core || !_core->bindInput(input->outputSettings())) {
        return;
    }
    input->_core = _core;
    std::lock_guard lock(_mutex);
    _inputs.push_back(input);
}

std::vector<std::shared_ptr<AVAssetWriterInput>> AVAssetWriter::inputs() const {
    std::lock_guard lock(_mutex);
    return _inputs;
}

AVAssetWriterStatus AVAssetWriter::status() const { return static_cast<AVAssetWriterStatus>(_core->status()); }

NSErrorRef AVAssetWriter::error() const { return _core->error(); }

bool AVAssetWriter::startWriting() { return _core->start(); }

void AVAssetWriter::startSessionAtSourceTime(CMTime startTime) { _core->startSession(startTime); }

void AVAssetWriter::finishWritingWithCompletionHandler(std::function<void()> handler) {
    dispatch_queue_t queue = _completionQueue;
    _core->finish([queue, handler = std::move(handler)] {
        if (handler) {
            dispatch_async(queue, handler);
        }
    });
}

void AVAssetWriter::cancelWriting() { _core->cancel(); }

} // namespace kp
