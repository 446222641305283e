#include "driver/process.hpp"

/// The program that the parent application starts.
int main(int argc, char** argv) {
  return verdel::run_process(verdel::shipping_main, argc, argv);
}
