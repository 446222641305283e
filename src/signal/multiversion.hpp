#pragma once

/// Kernels for newer processors, chosen when the program starts.
///
/// VERDEL_MULTIVERSION in front of a plain (not inline, not template) function compiles it for
/// x86-64-v4, x86-64-v3 and the baseline; what it calls must be VERDEL_INLINE to be compiled
/// along. All variants give the same bits: contraction is off, and sums run in written order.
/// Other compilers and processors get the one plain build (NEON is baseline on arm64).
/// VERDEL_SINGLE_TARGET forces that, because sanitizers start after the variants are chosen.
#if defined(__x86_64__) && defined(__gnu_linux__) && defined(__GNUC__) && !defined(__clang__) && \
    !defined(VERDEL_SINGLE_TARGET)
#define VERDEL_MULTIVERSION \
  __attribute__((target_clones("arch=x86-64-v4", "arch=x86-64-v3", "default")))
#else
#define VERDEL_MULTIVERSION
#endif

#define VERDEL_INLINE inline __attribute__((always_inline))
