#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace verdel::internal {

/// The machine's measures, each read afresh whenever it is asked for. Tests replace single members
/// to play a machine of another size.
struct Machine {
  std::function<std::uint64_t()> physical_memory;  ///< bytes; a fixed default if unknown
  std::function<std::uint64_t()> temporary_space;  ///< bytes free to a user; 0 if unknown
  std::function<std::size_t()> processors;         ///< logical processors; 1 if unknown
  std::function<std::string()> temporary_folder;   ///< where scratch directories are made
};

/// Memory assumed where the system does not tell its own: 8 GiB.
inline constexpr std::uint64_t C14_DEFAULT_MEMORY = 8589934592;

/// The machine that the process runs on, its temporary folder the system's unless another is named;
/// the space is that of the same folder.
Machine system_machine(const std::string& temporary_folder = {});

}  // namespace verdel::internal
