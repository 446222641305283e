#pragma once

#include <cstddef>
#include <cstdint>

#include "support/machine.hpp"

namespace verdel::internal::testing {

/// This machine, but for its processors.
inline Machine machine_with(std::size_t processors) {
  Machine machine = system_machine();
  machine.processors = [processors] { return processors; };
  return machine;
}

/// A machine of that size, in bytes of memory and of temporary space.
inline Machine machine_with(std::size_t processors, std::uint64_t memory, std::uint64_t space) {
  Machine machine = machine_with(processors);
  machine.physical_memory = [memory] { return memory; };
  machine.temporary_space = [space] { return space; };
  return machine;
}

}  // namespace verdel::internal::testing
