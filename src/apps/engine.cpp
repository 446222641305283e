#include "driver/process.hpp"

/// The engine: the program that the parent application starts.
int main(int argc, char** argv) {
  return verdel::internal::run_process(verdel::internal::shipping_main, argc, argv);
}
