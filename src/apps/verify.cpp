#include "driver/process.hpp"

/// The second opinion on a folder of stems, for anybody who has been handed one.
int main(int argc, char** argv) {
  return verdel::run_process(verdel::verify_main, argc, argv);
}
