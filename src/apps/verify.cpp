#include "driver/process.hpp"

/// The second opinion on a folder of stems, for anybody who has been handed one.
int main(int argc, char** argv) {
  return verdel::internal::run_process(verdel::internal::verify_main, argc, argv);
}
