#pragma once

#include <array>
#include <string>
#include <string_view>

/// POSIX path text: operations on the letters of a path that never ask the file system, unless said
/// otherwise. Paths are bytes; they need not be valid UTF-8.
namespace verdel::internal {

/// The extensions of files taken for audio, in lower case.
inline constexpr std::array<std::string_view, 5> AUDIO = {".wav", ".aif", ".aiff", ".flac", ".caf"};

/// The text after the last "/"; empty if the path ends in one.
std::string basename(std::string_view path);

/// The text before the last "/", without the slashes at its end unless it has nothing else; empty
/// if there is no "/".
std::string dirname(std::string_view path);

struct StemAndExtension {
  std::string stem, extension;
};

/// A basename cut before its last "."; a name that is only dots before it has no extension.
StemAndExtension split_extension(std::string_view name);

/// `second` as seen from `first`; an absolute `second` stands for itself.
std::string join(std::string_view first, std::string_view second);

/// The path from the root, without ".", ".." and doubled slashes. Asks for the current folder where
/// the path is not from the root; throws OSError if that is gone.
std::string absolute(std::string_view path);

/// `path` as seen from `start`, both taken in absolute form; "." if they are the same.
std::string relative(std::string_view path, std::string_view start);

/// Whether an extension, dot included, is one of AUDIO in any case.
bool has_audio_extension(std::string_view extension);

/// Whether a name ends like an audio file. Unlike its extension, its ending may be the whole name.
bool ends_like_audio(std::string_view name);

}  // namespace verdel::internal
