// SPDX-License-Identifier: MIT
// The library's version symbols.
#pragma once

extern "C" {
/// 1.0
extern const double KPImageVersionNumber;
/// "@(#)PROGRAM:KPImage  PROJECT:KPImage-1\n"
extern const unsigned char KPImageVersionString[];
}
