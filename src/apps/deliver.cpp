#include "driver/process.hpp"

/// Stems as a label wants them: integers whose sum is the master.
int main(int argc, char** argv) {
  return verdel::internal::run_process(verdel::internal::deliver_main, argc, argv);
}
