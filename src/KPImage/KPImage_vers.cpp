// SPDX-License-Identifier: MIT
// The library's version symbols.
#include "KPImage/KPImage_vers.h"

extern "C" {
const double KPImageVersionNumber = 1.0;
const unsigned char KPImageVersionString[] = "@(#)PROGRAM:KPImage  PROJECT:KPImage-1\n";
}
