#pragma once

#include <string>
#include <vector>

namespace verdel::internal {

/// What the files of a delivery are named by.
struct NamingPlan {
  /// Text in which {song}, {stem}, {index}, {rate} and {bits} stand for what they say; {{ and }}
  /// for braces.
  std::string name_template;
  std::string song;
  std::vector<std::string> stems;
  int sr = 0;
  std::string bits;       ///< as the command line spells them
  std::string extension;  ///< with its dot
  bool with_mix = false;  ///< a rounded mix is delivered too
};

struct DeliveryNames {
  std::vector<std::string> stems;  ///< in the order of the plan
  std::string mix;                 ///< empty where none is delivered
};

/// The names of the files. {index} counts the stems from 1, with as many digits as the last needs
/// and two at least; the mix has index 0 and is called Mix.
///
/// Errors: ValueError for a template that cannot be read; for names that would be one, also where
/// only case or Unicode form tells them apart; for a name that other systems refuse: <>:"/\|?* and
/// control characters, a blank or dot at the end, a blank at the beginning, a device of Windows
/// such as CON, bytes that are no UTF-8, more than 255 bytes, a dot at the beginning, which hides a
/// file.
DeliveryNames delivery_names(const NamingPlan& plan);

}  // namespace verdel::internal
