#include "driver/process.hpp"

#include <csignal>

#include "inputs/path_text.hpp"

namespace verdel {

int run_process(Entry entry, int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  const std::vector<std::string> words(argv, argv + argc);
  RunContext context{.machine = system_machine(), .out = stdout, .err = stderr};
  if (words.empty()) return entry({}, context);
  context.program_name = basename(words.front());
  return entry({words.begin() + 1, words.end()}, context);
}

}  // namespace verdel
