#include <stdlib.h>

#include <algorithm>

#include "allocation/worker_budgets.hpp"
#include "fuzz/fuzzing.hpp"

// The ceiling on stems projected at once, read one digit at a time.
static std::optional<std::size_t> expected_workers(const std::string& text) {
  const char* const kSpace = " \t\n\v\f\r";
  const std::size_t first = text.find_first_not_of(kSpace);
  if (first == std::string::npos) return std::nullopt;
  std::string word = text.substr(first, text.find_last_not_of(kSpace) - first + 1);
  if (word.front() == '-') return std::nullopt;
  if (word.front() == '+') word.erase(0, 1);
  std::size_t value = 0;
  for (const char c : word) {
    if (c < '0' || c > '9') return std::nullopt;
    value = std::min<std::size_t>(value * 10 + static_cast<std::size_t>(c - '0'), 3);
  }
  return value == 0 ? std::nullopt : std::optional(value);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace verdel::internal;
  using namespace verdel::internal::fuzzing;
  const std::string text = text_of(data, size).c_str();  // no variable holds more
  require(::setenv("VERDEL_C14_PROJECTION_WORKERS", text.c_str(), 1) == 0, "the variable is set");
  Machine machine;
  machine.physical_memory = [] { return std::uint64_t{1} << 40; };
  machine.processors = [] { return std::size_t{3}; };
  const auto workers = attempt([&] { return render_worker_count(1000, machine); });
  require(workers == expected_workers(text), "a positive whole number lowers the count of three");
  return 0;
}
