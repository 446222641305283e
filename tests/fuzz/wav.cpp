#include "fuzz/audio_input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace verdel::fuzzing;
  read_as_tap(in_format(text_of(data, size), {"RIFF", "RIFX", "RF64", "BW64"}, 8, {"WAVE"}));
  return 0;
}
