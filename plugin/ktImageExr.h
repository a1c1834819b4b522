// The exports of the OpenEXR plug-in, as the host finds them by name.
//
// Every function takes one host-owned record, returns an imgStatus code and
// never lets an exception escape. The plug-in keeps no state between calls
// apart from the host-settable gamma exponent.
#pragma once

#include "records/pluginRecords.h"

extern "C" {
// The decoders' gamma exponent; the host may change it between calls.
extern float gammaV;

int imgInfo(imgPluginInfo* info);

// Reads the header of the file in call->fileBuffer into the imgImageInfo
// record that call->imageInfo points at (size, alpha, depth, description)
// and the render metadata into call->headerData. 16 asks the host to load
// more of the file and call again.
int imgLoadHeader(imgCallRecord* call);

// Write the RGBA buffer that call->imageInfo points at (8-bit, 16-bit or
// float) as a half-float RGBA EXR file, cropped to its occupied region,
// into call->fileBuffer, with the render metadata of call->headerData and
// the job settings of call->jobSettings. 1 on success; 4 when the output
// file cannot be created or does not fit the file buffer (" ERR: File
// buffer too small!" appended to infoText); 6 for any other failure.
int imgEncode8(imgCallRecord* call);
int imgEncode16(imgCallRecord* call);
int imgEncodef(imgCallRecord* call);

// Decode the file in call->fileBuffer into the RGBA buffer object that
// call->imageInfo points at (8-bit, 16-bit or float channels): the channels
// named R, G, B and A placed relative to the display window, red, green and
// blue raised to gammaV when bit 0 of the buffer's pixelFlags is set.
// 1 success; 4 not an EXR file; 6 any other failure before the pixels are
// read; 7 a chosen channel of an unknown pixel type; 14 the pixel data is
// damaged or incomplete.
int imgDecode8(imgCallRecord* call);
int imgDecode16(imgCallRecord* call);
int imgDecodef(imgCallRecord* call);
}

// Called by the host before it releases the library; exported decorated.
int imgUnload();

namespace kt {
// The one exception firewall of the exports: runs procedure(call) and
// answers 6 for any exception that escapes it.
int callGuarded(int (*procedure)(imgCallRecord*), imgCallRecord* call) noexcept;
}  // namespace kt
