#include "fuzz/audio_input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace verdel::fuzzing;
  read_as_tap(in_format(text_of(data, size), {"FORM"}, 8, {"AIFF", "AIFC"}));
  return 0;
}
