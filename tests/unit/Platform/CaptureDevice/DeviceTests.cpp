// SPDX-License-Identifier: MIT
// Capture devices: enumeration (webcams, sample cameras) and positions, the configuration lock, controls and their
// support.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "Platform/Capture/CaptureDeviceRegistry.h"
#include "support/FakeCaptureDevice.h"
#include "support/FakeV4L2.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <string>
#include <vector>

using namespace kp;
using kptest::FakeCaptureDevice;

TEST(CaptureDevice, LockIsNeededForChangesAndFailsWhenAnotherHolderHasIt) {
    auto fake = std::make_shared<FakeCaptureDevice>();
    AVCaptureDevice device(fake, AVCaptureDevicePositionFront);

    // Without the lock, setters change nothing.
    device.setFocusMode(AVCaptureFocusModeLocked);
    EXPECT_EQ(device.focusMode(), AVCaptureFocusModeContinuousAutoFocus);
    EXPECT_TRUE(fake->appliedControls().empty());

    fake->failNextLocks(1);
    NSErrorRef error;
    EXPECT_FALSE(device.lockForConfiguration(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), AVFoundationErrorDomain);
    EXPECT_EQ(error->code(), AVErrorDeviceLockedForConfigurationByAnotherProcess);
    EXPECT_FALSE(device.isLockedForConfiguration());

    ASSERT_TRUE(device.lockForConfiguration(&error));
    EXPECT_FALSE(error) << "success clears the error";
    EXPECT_TRUE(device.lockForConfiguration()) << "the lock nests within the process";
    EXPECT_EQ(fake->lockAttempts(), 2) << "nesting does not ask the camera again";
    device.setAutoFocusRangeRestriction(AVCaptureAutoFocusRangeRestrictionNear);
    device.setFocusMode(AVCaptureFocusModeAutoFocus);
    device.setWhiteBalanceMode(AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance);
    device.setExposureMode(AVCaptureExposureModeContinuousAutoExposure);
    device.setFlashMode(AVCaptureFlashModeAuto);
    device.setFlashMode(static_cast<AVCaptureFlashMode>(7)); // not a mode: ignored
    device.setAutoFocusRangeRestriction(static_cast<AVCaptureAutoFocusRangeRestriction>(3));
    device.unlockForConfiguration();
    EXPECT_TRUE(fake->holdsLock());
    device.unlockForConfiguration();
    EXPECT_FALSE(fake->holdsLock());
    device.unlockForConfiguration(); // one too many: ignored

    EXPECT_EQ(device.focusMode(), AVCaptureFocusModeAutoFocus);
    EXPECT_EQ(device.autoFocusRangeRestriction(), AVCaptureAutoFocusRangeRestrictionNear);
    EXPECT_EQ(device.flashMode(), AVCaptureFlashModeAuto);
    const auto applied = fake->appliedControls();
    ASSERT_EQ(applied.size(), 5U) << "every accepted change reaches the camera, nothing else";
    EXPECT_EQ(applied.back().flashMode, AVCaptureFlashModeAuto);
    EXPECT_EQ(applied[1].autoFocusRangeRestriction, AVCaptureAutoFocusRangeRestrictionNear);
}

TEST(CaptureDevice, TorchLevelsAndMissingCapabilities) {
    auto fake = std::make_shared<FakeCaptureDevice>();
    AVCaptureDevice device(fake, AVCaptureDevicePositionBack);
    NSErrorRef error;
    EXPECT_FALSE(device.setTorchModeOnWithLevel(0.5F, &error)) << "needs the lock";
    EXPECT_TRUE(error);
    ASSERT_TRUE(device.lockForConfiguration());
    for (float bad : {0.0F, -1.0F, 1.0001F, std::numeric_limits<float>::quiet_NaN()}) {
        EXPECT_FALSE(device.setTorchModeOnWithLevel(bad, &error)) << bad;
        EXPECT_TRUE(error);
    }
    EXPECT_EQ(device.torchMode(), AVCaptureTorchModeOff);
    EXPECT_TRUE(device.setTorchModeOnWithLevel(AVCaptureMaxAvailableTorchLevel, &error));
    EXPECT_FALSE(error);
    EXPECT_EQ(device.torchMode(), AVCaptureTorchModeOn);
    EXPECT_FLOAT_EQ(device.torchLevel(), 1.0F);
    device.setTorchMode(AVCaptureTorchModeOff);
    EXPECT_FLOAT_EQ(device.torchLevel(), 0.0F);
    device.unlockForConfiguration();

    auto bare = std::make_shared<FakeCaptureDevice>("bare", FakeCaptureDevice::noCapabilities());
    AVCaptureDevice plain(bare, AVCaptureDevicePositionFront);
    ASSERT_TRUE(plain.lockForConfiguration());
    plain.setFocusMode(AVCaptureFocusModeAutoFocus);
    plain.setAutoFocusRangeRestriction(AVCaptureAutoFocusRangeRestrictionFar);
    plain.setFlashMode(AVCaptureFlashModeOn);
    EXPECT_FALSE(plain.setTorchModeOnWithLevel(0.5F));
    plain.unlockForConfiguration();
    EXPECT_EQ(plain.flashMode(), AVCaptureFlashModeOff);
    EXPECT_TRUE(bare->appliedControls().empty());
}

namespace {
// Webcams from a fake kernel in /fake, for as long as it lives.
struct FakeWebcams {
    std::shared_ptr<kptest::FakeV4L2> kernel = std::make_shared<kptest::FakeV4L2>();
    explicit FakeWebcams(int count, bool alwaysOfferSamples = false) {
        for (int i = 0; i < count; ++i) {
            kptest::FakeV4L2::Node node;
            node.path = "/fake/video" + std::to_string(i * 2); // capture nodes, numbered as a kernel does
            node.sizes = {{V4L2_PIX_FMT_YUYV, 640, 480}};
            kernel->addNode(node);
        }
        CaptureDeviceRegistry::shared().setV4L2Interface(kernel);
        CaptureDeviceDiscovery discovery;
        discovery.v4l2Directory = "/fake";
        discovery.alwaysOfferSampleCameras = alwaysOfferSamples;
        AVCaptureDevice::setDiscovery(discovery);
    }
    ~FakeWebcams() {
        AVCaptureDevice::setDiscovery({});
        CaptureDeviceRegistry::shared().setV4L2Interface(nullptr);
    }
};

std::vector<std::string> ids(const std::vector<AVCaptureDevice::Ref>& devices) {
    std::vector<std::string> out;
    for (const auto& d : devices) {
        out.push_back(d->uniqueID());
    }
    return out;
}

// The camera a capture set-up picks: the first video device at the position.
AVCaptureDevice::Ref firstAt(AVCaptureDevicePosition position) {
    for (const auto& d : AVCaptureDevice::devicesWithMediaType(AVMediaTypeVideo)) {
        if (d->position() == position) {
            return d;
        }
    }
    return nullptr;
}
} // namespace

TEST(CaptureDevice, SampleCamerasStandInOnlyWhenNoWebcamIsFound) {
    { // A lone webcam is the front camera, and the only camera: no sample camera takes the back position.
        FakeWebcams one(1);
        EXPECT_EQ(ids(AVCaptureDevice::devices()), (std::vector<std::string>{"/fake/video0"}));
        ASSERT_TRUE(firstAt(AVCaptureDevicePositionFront));
        EXPECT_EQ(firstAt(AVCaptureDevicePositionFront)->uniqueID(), "/fake/video0");
        EXPECT_EQ(firstAt(AVCaptureDevicePositionBack), nullptr);

        // Host-added cameras still come first.
        auto added =
            AVCaptureDevice::addDevice(std::make_shared<FakeCaptureDevice>("added"), AVCaptureDevicePositionBack);
        EXPECT_EQ(ids(AVCaptureDevice::devices()), (std::vector<std::string>{"added", "/fake/video0"}));
        EXPECT_EQ(firstAt(AVCaptureDevicePositionBack), added);
        EXPECT_EQ(AVCaptureDevice::devices()[1], AVCaptureDevice::deviceWithUniqueID("/fake/video0"))
            << "the same camera is the same object";
        EXPECT_TRUE(AVCaptureDevice::devicesWithMediaType(AVMediaTypeAudio).empty());
        AVCaptureDevice::removeDevice(added);
        EXPECT_EQ(AVCaptureDevice::devices().size(), 1U);
        EXPECT_FALSE(added->isConnected());
        EXPECT_FALSE(added->lockForConfiguration());
    }
    { // Two webcams: front, then back.
        FakeWebcams two(2);
        const auto all = AVCaptureDevice::devices();
        ASSERT_EQ(ids(all), (std::vector<std::string>{"/fake/video0", "/fake/video2"}));
        EXPECT_EQ(all[0]->position(), AVCaptureDevicePositionFront);
        EXPECT_EQ(all[1]->position(), AVCaptureDevicePositionBack);
    }
    { // Asked for, the sample cameras follow the webcams.
        FakeWebcams asked(1, true);
        EXPECT_EQ(ids(AVCaptureDevice::devices()),
                  (std::vector<std::string>{"/fake/video0", "sample:front", "sample:back"}));
        EXPECT_EQ(firstAt(AVCaptureDevicePositionFront)->uniqueID(), "/fake/video0");
    }
    { // No webcam: the sample cameras stand in; only the back one has flash and torch.
        FakeWebcams none(0);
        const auto all = AVCaptureDevice::devices();
        ASSERT_EQ(ids(all), (std::vector<std::string>{"sample:front", "sample:back"}));
        EXPECT_EQ(all[0]->position(), AVCaptureDevicePositionFront);
        EXPECT_TRUE(all[1]->hasTorch() && all[1]->hasFlash());
        EXPECT_FALSE(all[0]->hasTorch() || all[0]->hasFlash());
    }
}
