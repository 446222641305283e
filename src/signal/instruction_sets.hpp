#pragma once

#include <utility>

/// Kernels for newer processors, chosen while the program runs.
///
/// A kernel is a plain function marked VERDEL_INLINE, and so is all that it calls;
/// `run_kernel<kernel>(arguments...)` runs the copy that was compiled for the best instruction set
/// here. All copies give the same bits: contraction is off, and sums run in written order. On other
/// processors than x86-64 there is one copy (NEON is baseline on arm64).
namespace verdel::internal {

enum class InstructionSet { kBaseline, kAvx2, kAvx512 };

/// The best set that this processor and its system support.
InstructionSet best_instruction_set();

/// The set that kernels run with: the best one, until use_instruction_set says otherwise.
InstructionSet instruction_set();

/// For tests and measurements that compare the sets, while no kernel runs. A set that the processor
/// does not have must not be chosen.
void use_instruction_set(InstructionSet set);

const char* name_of(InstructionSet set);

#define VERDEL_INLINE inline __attribute__((always_inline))

/// In front of a loop: its steps do not touch each other's data. For pointers whose __restrict is
/// lost when their function is inlined.
#ifdef __clang__
#define VERDEL_INDEPENDENT _Pragma("clang loop vectorize(assume_safety)")
#else
#define VERDEL_INDEPENDENT _Pragma("GCC ivdep")
#endif

#ifdef __x86_64__
#define VERDEL_AVX2 "avx2,fma,bmi,bmi2"
#define VERDEL_AVX512 VERDEL_AVX2 ",avx512f,avx512bw,avx512cd,avx512dq,avx512vl"

template <auto kKernel, class... Arguments>
__attribute__((target(VERDEL_AVX2))) decltype(auto) run_with_avx2(Arguments&&... arguments) {
  return kKernel(std::forward<Arguments>(arguments)...);
}

template <auto kKernel, class... Arguments>
__attribute__((target(VERDEL_AVX512))) decltype(auto) run_with_avx512(Arguments&&... arguments) {
  return kKernel(std::forward<Arguments>(arguments)...);
}
#endif

template <auto kKernel, class... Arguments>
decltype(auto) run_kernel(Arguments&&... arguments) {
#ifdef __x86_64__
  switch (instruction_set()) {
    case InstructionSet::kAvx512:
      return run_with_avx512<kKernel>(std::forward<Arguments>(arguments)...);
    case InstructionSet::kAvx2:
      return run_with_avx2<kKernel>(std::forward<Arguments>(arguments)...);
    case InstructionSet::kBaseline:
      break;
  }
#endif
  return kKernel(std::forward<Arguments>(arguments)...);
}

}  // namespace verdel::internal
