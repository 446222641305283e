#include "driver/process.hpp"

/// The full command line, for people at a shell.
int main(int argc, char** argv) {
  return verdel::internal::run_process(verdel::internal::main, argc, argv);
}
