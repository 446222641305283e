#pragma once

#include <string>
#include <vector>

namespace verdel::internal {

/// Whether the path leads to a folder that can be seen; false for whatever else is there.
bool is_folder(const std::string& path);

/// The names in a folder, without "." and "..", in no order. Throws OSError if it cannot be listed.
std::vector<std::string> list_folder(const std::string& folder);

}  // namespace verdel::internal
