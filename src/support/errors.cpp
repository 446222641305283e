#include "support/errors.hpp"

#include <system_error>

namespace verdel::internal {

OSError::OSError(const std::string& what, int error_number)
    : std::runtime_error(what + ": " + std::generic_category().message(error_number)) {}

}  // namespace verdel::internal
