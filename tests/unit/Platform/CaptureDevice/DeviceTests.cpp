// SPDX-License-Identifier: MIT
// Capture devices: enumeration (webcams, sample cameras) and positions, the configuration lock, controls and their
// support.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "Platform/Capture/CaptureDeviceRegistry.h"
#include "support/FakeCaptureDevice.h"
#include "support/FakeV4L2.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <cmath>

using namespace kp;
using kptest::FakeCaptureDevice;

TEST(CaptureDevice, ChangesNeedTheLockAndReachTheCameraOnlyWhenSupportedAndValid) {
    auto fake = std::make_shared<FakeCaptureDevice>();
    AVCaptureDevice device(fake, AVCaptureDevicePositionBack);
    NSErrorRef error;
    device.setFocusMode(AVCaptureFocusModeLocked);
    EXPECT_FALSE(device.setTorchModeOnWithLevel(0.5F, &error)) << "needs the lock";
    EXPECT_EQ(device.focusMode(), AVCaptureFocusModeContinuousAutoFocus);
    fake->failNextLocks(1);
    EXPECT_FALSE(device.lockForConfiguration(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), AVErrorDeviceLockedForConfigurationByAnotherProcess);
    EXPECT_TRUE(fake->appliedControls().empty());

    ASSERT_TRUE(device.lockForConfiguration(&error));
    EXPECT_FALSE(error) << "success clears the error";
    EXPECT_TRUE(device.lockForConfiguration()) << "the lock nests within the process";
    EXPECT_EQ(fake->lockAttempts(), 2) << "nesting does not ask the camera again";
    device.setAutoFocusRangeRestriction(AVCaptureAutoFocusRangeRestrictionNear);
    device.setFocusMode(AVCaptureFocusModeAutoFocus);
    device.setFlashMode(AVCaptureFlashModeAuto);
    device.setFlashMode(static_cast<AVCaptureFlashMode>(7)); // not a mode: ignored
    device.setAutoFocusRangeRestriction(static_cast<AVCaptureAutoFocusRangeRestriction>(3));
    for (float bad : {0.0F, -1.0F, 1.0001F, NAN}) {
        EXPECT_FALSE(device.setTorchModeOnWithLevel(bad, &error)) << bad;
    }
    EXPECT_EQ(device.torchMode(), AVCaptureTorchModeOff);
    EXPECT_TRUE(device.setTorchModeOnWithLevel(AVCaptureMaxAvailableTorchLevel, &error));
    EXPECT_FLOAT_EQ(device.torchLevel(), 1.0F);
    device.unlockForConfiguration();
    EXPECT_TRUE(fake->holdsLock());
    device.unlockForConfiguration();
    EXPECT_FALSE(fake->holdsLock());
    device.unlockForConfiguration(); // one too many: ignored
    EXPECT_EQ(device.focusMode(), AVCaptureFocusModeAutoFocus);
    EXPECT_EQ(device.autoFocusRangeRestriction(), AVCaptureAutoFocusRangeRestrictionNear);
    EXPECT_EQ(device.flashMode(), AVCaptureFlashModeAuto);
    const auto applied = fake->appliedControls();
    ASSERT_EQ(applied.size(), 4U) << "every accepted change reaches the camera, nothing else";
    EXPECT_EQ(applied[0].autoFocusRangeRestriction, AVCaptureAutoFocusRangeRestrictionNear);
    EXPECT_EQ(applied[2].flashMode, AVCaptureFlashModeAuto);

    // A camera without controls takes none.
    auto bare = std::make_shared<FakeCaptureDevice>("bare", FakeCaptureDevice::noCapabilities());
    AVCaptureDevice plain(bare, AVCaptureDevicePositionFront);
    ASSERT_TRUE(plain.lockForConfiguration());
    plain.setFocusMode(AVCaptureFocusModeAutoFocus);
    plain.setFlashMode(AVCaptureFlashModeOn);
    EXPECT_FALSE(plain.setTorchModeOnWithLevel(0.5F));
    plain.unlockForConfiguration();
    EXPECT_EQ(plain.flashMode(), AVCaptureFlashModeOff);
    EXPECT_TRUE(bare->appliedControls().empty());
}

TEST(CaptureDevice, SampleCamerasStandInOnlyWhenNoWebcamIsFound) {
    // Webcams from a fake kernel in /fake (capture nodes numbered as a kernel does), with or without the sample
    // cameras asked for: the camera IDs in order, the first at the front, the last at the back (a lone webcam is
    // the front camera).
    const std::tuple<int, bool, std::vector<std::string>> cases[] = {
        {1, false, {"/fake/video0"}},
        {2, false, {"/fake/video0", "/fake/video2"}},
        {1, true, {"/fake/video0", "sample:front", "sample:back"}},
        {0, false, {"sample:front", "sample:back"}},
    };
    for (const auto& [webcams, samples, expected] : cases) {
        SCOPED_TRACE(webcams);
        auto kernel = std::make_shared<kptest::FakeV4L2>();
        for (int i = 0; i < webcams; ++i) {
            kptest::FakeV4L2::Node node;
            node.path = "/fake/video" + std::to_string(i * 2);
            node.sizes = {{V4L2_PIX_FMT_YUYV, 640, 480}};
            kernel->addNode(node);
        }
        CaptureDeviceRegistry::shared().setV4L2Interface(kernel);
        AVCaptureDevice::setDiscovery({true, "/fake", true, samples});
        const auto all = AVCaptureDevice::devices();
        std::vector<std::string> ids;
        for (const auto& d : all) {
            ids.push_back(d->uniqueID());
        }
        ASSERT_EQ(ids, expected);
        EXPECT_EQ(all[0]->position(), AVCaptureDevicePositionFront);
        EXPECT_EQ(all.back()->position(),
                  webcams == 1 && !samples ? AVCaptureDevicePositionFront : AVCaptureDevicePositionBack);
        if (webcams == 0) { // only the back sample camera has flash and torch
            EXPECT_TRUE(all[1]->hasTorch() && all[1]->hasFlash());
            EXPECT_FALSE(all[0]->hasTorch() || all[0]->hasFlash());
        }
        if (webcams == 1 && !samples) {
            // Host-added cameras come first; the same camera is the same object.
            auto added =
                AVCaptureDevice::addDevice(std::make_shared<FakeCaptureDevice>("added"), AVCaptureDevicePositionBack);
            EXPECT_EQ(AVCaptureDevice::devices().front(), added);
            EXPECT_EQ(AVCaptureDevice::devices()[1], AVCaptureDevice::deviceWithUniqueID("/fake/video0"));
            EXPECT_TRUE(AVCaptureDevice::devicesWithMediaType(AVMediaTypeAudio).empty());
            AVCaptureDevice::removeDevice(added);
            EXPECT_EQ(AVCaptureDevice::devices().size(), 1U);
            EXPECT_FALSE(added->isConnected());
            EXPECT_FALSE(added->lockForConfiguration());
        }
    }
    AVCaptureDevice::setDiscovery({});
    CaptureDeviceRegistry::shared().setV4L2Interface(nullptr);
}
