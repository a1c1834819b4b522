// The exports of the OpenEXR plug-in, as the host finds them by name.
//
// Every function takes one host-owned record, returns an imgStatus code and
// never lets an exception escape. The plug-in keeps no state between calls
// apart from the host-settable gamma exponent.
#pragma once

#include "plugin/pluginRecords.h"

extern "C" {
// The decoders' gamma exponent; the host may change it between calls.
extern float gammaV;

int imgInfo(imgPluginInfo* info);

// Reads the header of the file in call->fileBuffer into the imgImageInfo
// record that call->imageInfo points at (size, alpha, depth, description)
// and the render metadata into call->headerData. 16 asks the host to load
// more of the file and call again.
int imgLoadHeader(imgCallRecord* call);
}

// Called by the host before it releases the library; exported decorated.
int imgUnload();
