#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "support/machine.hpp"

namespace verdel::internal::testing {

/// This machine, but for its processors, and its bytes of memory and of temporary space.
inline Machine machine_with(std::size_t processors, std::optional<std::uint64_t> memory = {},
                            std::optional<std::uint64_t> space = {}) {
  Machine machine = system_machine();
  machine.processors = [processors] { return processors; };
  if (memory) machine.physical_memory = [memory] { return *memory; };
  if (space) machine.temporary_space = [space] { return *space; };
  return machine;
}

}  // namespace verdel::internal::testing
