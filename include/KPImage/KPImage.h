// SPDX-License-Identifier: MIT
// Umbrella header: everything a host needs.
#pragma once

// Platform layer.
#include "KPImage/Platform/CGContext.h"
#include "KPImage/Platform/CGImage.h"
#include "KPImage/Platform/Geometry.h"
#include "KPImage/Platform/ImageIO.h"
#include "KPImage/Platform/SystemLog.h"
#include "KPImage/Platform/UIColor.h"
#include "KPImage/Platform/UIGraphics.h"
#include "KPImage/Platform/UIImage.h"

// Image analysis.
#include "KPImage/Focus/ImageAssess.h"
#include "KPImage/UIImage+ImagingHelper.h"

// Version.
#include "KPImage/KPImage_vers.h"

// Image geometry, faces, conversions and store.
#include "KPImage/KPImageDictionary.h"
#include "KPImage/KPImagingHelper.h"
#include "KPImage/Platform/CIDetector.h"
#include "KPImage/Platform/NSFileManager.h"
#include "KPImage/Platform/NSSearchPath.h"
#include "KPImage/Platform/NSStringDrawing.h"
#include "KPImage/Platform/UIDevice.h"
