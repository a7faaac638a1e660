// SPDX-License-Identifier: MIT
// The preview layer on a running session: it is enough of a consumer for the camera to stream, it shows the
// newest frame, asks the host to redraw on the main queue, and mirrors while the camera is at the front.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureVideoPreviewLayer.h"
#include "KPImage/Platform/CARenderer.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"
#include "support/PixelProbe.h"

#include <gtest/gtest.h>

using namespace kp;
using kptest::FakeCaptureDevice;
using kptest::pixelAt;
using kptest::Rgba;

TEST(CapturePreviewLayer, StreamsForThePreviewAloneAndMirrorsTheFrontCamera) {
    kptest::ManualMainQueue main;
    int renderRequests = 0;
    CALayer::setRenderRequestHandler([&] { ++renderRequests; });
    auto camera = std::make_shared<FakeCaptureDevice>("front");
    auto device = std::make_shared<AVCaptureDevice>(camera, AVCaptureDevicePositionFront);
    auto session = AVCaptureSession::create();
    session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
    auto preview = AVCaptureVideoPreviewLayer::layerWithSession(session);
    preview->setFrame(CGRectMake(0, 0, 64, 48));
    EXPECT_TRUE(session->outputs().empty()); // the preview's feed is not one of the listed outputs
    EXPECT_TRUE(preview->isVideoMirrored());

    session->startRunning();
    ASSERT_TRUE(camera->isStreaming());
    renderRequests = 0;
    ASSERT_TRUE(camera->pushFrame(0x40));
    ASSERT_TRUE(camera->pushFrame(0x60));
    ASSERT_TRUE(main.drainUntil([&] { return renderRequests > 0; }));
    main.drain();
    EXPECT_EQ(renderRequests, 1); // a burst of frames asks once
    auto image = CARenderLayerToImage(preview, CGSizeMake(64, 48), 1);
    ASSERT_TRUE(image);
    const auto p = pixelAt(*image, 32, 24);
    ASSERT_TRUE(p);
    // The newest frame, not the first; opaque whatever the frame's alpha byte holds (the fake fills it too).
    EXPECT_EQ(*p, (Rgba{0x60, 0x60, 0x60, 255}));

    // Without the session the layer keeps its last picture; a back camera is not mirrored.
    session->stopRunning();
    preview->setSession(nullptr);
    EXPECT_FALSE(preview->isVideoMirrored());
    EXPECT_TRUE(preview->frameSize());
    auto backCamera = std::make_shared<FakeCaptureDevice>("back");
    auto back = AVCaptureDeviceInput::deviceInputWithDevice(
        std::make_shared<AVCaptureDevice>(backCamera, AVCaptureDevicePositionBack));
    auto other = AVCaptureSession::create();
    other->addInput(back);
    preview->setSession(other);
    EXPECT_FALSE(preview->isVideoMirrored());
    preview.reset(); // the feed leaves the session with the layer
    other->startRunning();
    EXPECT_FALSE(backCamera->isStreaming());
    other->stopRunning();
    CALayer::setRenderRequestHandler({});
}
