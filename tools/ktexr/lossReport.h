// What a file loses on the plug-in's route: its encoder writes one
// scan-line part of half-float R, G, B and A inside the display window,
// with the render metadata the metadata record can hold. Everything else
// the input holds is a loss, named one line each, so that no work cuts a
// frame down without saying so.
#pragma once

#include <string>
#include <vector>

#include "exrLayout.h"

namespace ktexr {

// One line per loss, in the order of the file; empty when the plug-in's
// encoder can write everything the input holds.
std::vector<std::string> encoderLosses(const ExrLayout& input);

}  // namespace ktexr
