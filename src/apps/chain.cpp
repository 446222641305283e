#include "driver/process.hpp"

/// A render that hears what the master chain did to every tap first.
int main(int argc, char** argv) {
  return verdel::internal::run_process(verdel::internal::chain_main, argc, argv);
}
