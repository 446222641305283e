#include "driver/process.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <exception>

#include "driver/end_signals.hpp"
#include "inputs/path_text.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

// Where a standard stream is closed, the next file to be opened would stand in its place, and a
// stem would take up what is printed. What fills the place here refuses to be written to.
void occupy_closed_streams() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) == -1) static_cast<void>(open("/dev/null", O_RDONLY));
  }
}

// A write that the system refuses is a failure of that write, with words, and no signal.
void refuse_writes_without_signal() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace

int run_process(Entry entry, int argc, char** argv) try {
  occupy_closed_streams();
  refuse_writes_without_signal();
  EndSignals signals;
  RunContext context{
      .machine = system_machine(), .out = stdout, .err = stderr, .stop = signals.token()};
  std::vector<std::string> words(argv, argv + argc);
  if (!words.empty()) {
    context.program_name = printable(basename(words.front()));
    words.erase(words.begin());
  }
  const int status = entry(words, context);
  signals.finish();
  return status;
} catch (const std::exception& failure) {
  std::fprintf(stderr, "%s\n", words_for(failure));
  return kExitFailure;
}

}  // namespace verdel::internal
