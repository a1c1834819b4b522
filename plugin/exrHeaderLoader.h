// Checks made before OpenEXR is let loose on a file from the host.
#pragma once

#include "image/fileBuffer.h"

namespace kt {

// Reads the magic number, the version field and every header of the file in
// `file` as OpenEXR does when it opens a file, and makes sure the chunk
// offset tables they announce fit in the file the host describes (the
// larger of fileSize and sizeLoaded), and that a luminance/chroma image is
// not so wide that its conversion buffers exceed the machine's memory. A
// damaged header can announce tables of many gigabytes, which OpenEXR would
// allocate and clear before it found out that the file is far shorter.
//
// Throws what OpenEXR throws while reading headers (Iex::IoExc "File size
// smaller than requested" when the buffer ends inside them), and
// Iex::InputExc when a check fails. Moves the buffer's cursor.
void exrCheckBeforeOpening(ktP::_imgFileBuffer& file);

}  // namespace kt
