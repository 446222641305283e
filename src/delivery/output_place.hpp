#pragma once

#include <string>
#include <vector>

namespace verdel::internal {

/// Looks whether a folder can be made, if it is not there, and files be written into it, before
/// there is anything to write: hours may lie between. It tries both, with something temporary
/// beside each file or in the nearest folder above that is there, which goes at once. Nothing else
/// tells of a read-only volume, an access list, or what not even the superuser may do.
///
/// Errors: OSError naming what cannot be made or written, with the reason: the system's own, a link
/// that leads nowhere, something in a file's place that is not a regular file.
void require_usable_place(const std::string& folder, const std::vector<std::string>& files);

/// Makes the folder with its parents. Throws OSError.
void make_folder(const std::string& folder);

}  // namespace verdel::internal
