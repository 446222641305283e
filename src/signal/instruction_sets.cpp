#include "signal/instruction_sets.hpp"

#include <atomic>
#include <cassert>

namespace verdel::internal {
namespace {

std::atomic<InstructionSet>& chosen() {
  static std::atomic<InstructionSet> set = best_instruction_set();
  return set;
}

}  // namespace

InstructionSet best_instruction_set() {
#ifdef __x86_64__
  __builtin_cpu_init();
  const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") &&
                    __builtin_cpu_supports("bmi") && __builtin_cpu_supports("bmi2");
  const bool avx512 = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                      __builtin_cpu_supports("avx512cd") && __builtin_cpu_supports("avx512dq") &&
                      __builtin_cpu_supports("avx512vl");
  if (avx2 && avx512) return InstructionSet::kAvx512;
  if (avx2) return InstructionSet::kAvx2;
#endif
  return InstructionSet::kBaseline;
}

InstructionSet instruction_set() {
  return chosen().load(std::memory_order_relaxed);
}

void use_instruction_set(InstructionSet set) {
  assert(set <= best_instruction_set());
  chosen().store(set, std::memory_order_relaxed);
}

const char* name_of(InstructionSet set) {
  switch (set) {
    case InstructionSet::kAvx512:
      return "AVX-512";
    case InstructionSet::kAvx2:
      return "AVX2";
    case InstructionSet::kBaseline:
      break;
  }
  return "baseline";
}

}  // namespace verdel::internal
