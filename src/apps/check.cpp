#include "driver/process.hpp"

/// What is wrong with taps, before they are rendered.
int main(int argc, char** argv) {
  return verdel::internal::run_process(verdel::internal::check_main, argc, argv);
}
