#pragma once

#include <string>
#include <string_view>

namespace verdel::internal {

/// Writes a text as a file, whole or not at all (see unfinished_file.hpp). Throws OSError with the
/// file's name and the system's reason.
void write_text_file(const std::string& target, std::string_view text);

}  // namespace verdel::internal
