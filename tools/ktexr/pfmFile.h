// Portable float maps: the plain format for float images that most image
// tools read. "PF" holds three floats per pixel (colour), "Pf" one (grey);
// rows are stored bottom first and the scale's sign gives the byte order.
#pragma once

#include <cstddef>
#include <vector>

namespace ktexr {

// A PFM of `channels` (3: colour "PF", 1: grey "Pf") taken from interleaved
// pixels of `stride` floats each, starting at channel `first` of each pixel;
// the source's rows are top first, rowStride floats apart. Written in the
// machine's byte order.
std::vector<unsigned char> encodePfm(unsigned width, unsigned height, int channels, const float* pixels,
                                     std::size_t stride, std::size_t first, std::size_t rowStride);

}  // namespace ktexr
