#pragma once

#include <optional>
#include <string>
#include <vector>

#include "chain/hear_chain.hpp"
#include "driver/option_parser.hpp"

namespace verdel::internal {

enum class PictureFormat { kSvg, kPng };

/// By the end of a file's name, in whatever case; nothing if it is neither.
std::optional<PictureFormat> picture_format_of(const std::string& file);

/// Refuses a name whose picture could not be drawn. Throws UsageError.
void require_picture_format(const std::string& file, const CommandLine& command_line);

/// What was found, to look at: the bytes of a picture 1200 pixels wide. The master's EQ in dB over
/// frequency with its band of uncertainty, the gains over time, and a panel for each tap that has
/// something of its own. `taps`: their names. Throws RuntimeError if it cannot be drawn.
std::string chain_picture(const ChainFinding& finding, const std::vector<std::string>& taps, int sr,
                          PictureFormat format);

}  // namespace verdel::internal
