#pragma once

#include "instruments.hpp"

namespace demo {

/// Turns the summed taps into the finished mix, in place: bus compressor, a little room,
/// saturation, and a limiter that holds every sample below full scale. None of it delays the sound,
/// and none of it can be undone by one gain, so the mix holds what no tap explains.
void master(Stereo& bus, double sr);

}  // namespace demo
