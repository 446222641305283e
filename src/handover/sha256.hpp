#pragma once

#include <string>

#include "support/stop_token.hpp"

namespace verdel::internal {

/// The SHA-256 of a file's bytes (FIPS 180-4) as 64 hexadecimal digits in lower case. Throws
/// OSError and RuntimeError as open_regular_file.
std::string sha256_of_file(const std::string& path, const StopToken& stop = {});

}  // namespace verdel::internal
