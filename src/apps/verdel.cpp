#include "driver/process.hpp"

/// The full command line, for people at a shell.
int main(int argc, char** argv) {
  return verdel::run_process(verdel::main, argc, argv);
}
