#include "handover/delivery_names.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <string_view>

#include "inputs/input_planning.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr std::string_view kMixName = "Mix";
constexpr std::string_view kRefused = "<>:\"/\\|?*";
constexpr std::size_t kMostBytes = 255;

using Fields = std::map<std::string, std::string, std::less<>>;

std::string field_names(const Fields& fields) {
  std::vector<std::string> names;
  for (const auto& [name, value] : fields) names.push_back("{" + name + "}");
  return fmt::format("{}", fmt::join(names, ", "));
}

std::string fill(std::string_view text, const Fields& fields) {
  const auto refuse = [&](const std::string& what) {
    throw ValueError(
        fmt::format("--name {}: {}. It knows {}.", quoted_path(text), what, field_names(fields)));
  };
  std::string filled;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c != '{' && c != '}') {
      filled += c;
    } else if (i + 1 < text.size() && text[i + 1] == c) {
      filled += text[i++];
    } else {
      const std::size_t end = c == '{' ? text.find('}', i) : text.npos;
      if (end == text.npos) refuse("a brace has no partner");
      const auto field = fields.find(text.substr(i + 1, end - i - 1));
      if (field == fields.end()) {
        refuse(
            fmt::format("no field is called {{{}}}", printable(text.substr(i + 1, end - i - 1))));
      }
      filled += field->second;
      i = end;
    }
  }
  return filled;
}

/// Whether Windows takes a name for one of its devices, whatever its extension.
bool is_device(std::string_view name) {
  std::string head(name.substr(0, name.find('.')));
  std::ranges::transform(head, head.begin(), [](char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
  });
  for (const char* device : {"CON", "PRN", "AUX", "NUL"}) {
    if (head == device) return true;
  }
  return head.size() == 4 && (head.starts_with("COM") || head.starts_with("LPT")) &&
         head[3] >= '1' && head[3] <= '9';
}

/// Why another system would refuse a file's name; empty if none would. `base` has no extension.
std::string objection(std::string_view base, std::string_view extension) {
  if (base.empty()) return "it is empty";
  if (!is_valid_utf8(base)) return "it holds bytes that are no UTF-8";
  for (const char c : base) {
    if (kRefused.find(c) != kRefused.npos) return fmt::format("it holds {}", c);
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return "it holds a control character";
  }
  if (base.front() == '.') return "it begins with a dot";
  if (base.front() == ' ') return "it begins with a blank";
  if (base.back() == ' ' || base.back() == '.') return "it ends with a blank or a dot";
  if (is_device(base)) return "Windows has a device of that name";
  if (base.size() + extension.size() > kMostBytes) return "it is longer than 255 bytes";
  return {};
}

}  // namespace

DeliveryNames delivery_names(const NamingPlan& plan) {
  const std::size_t digits = std::max<std::size_t>(2, std::to_string(plan.stems.size()).size());
  std::map<std::string, std::string> taken;
  const auto name_of = [&](const std::string& stem, std::size_t index) {
    const std::string base =
        fill(plan.name_template, {{"song", plan.song},
                                  {"stem", stem},
                                  {"index", fmt::format("{:0{}}", index, digits)},
                                  {"rate", std::to_string(plan.sr)},
                                  {"bits", plan.bits}});
    const std::string why = objection(base, plan.extension);
    if (!why.empty()) {
      throw ValueError(
          fmt::format("{} would be called {}, which other systems refuse: {}. Rename it, or pass "
                      "another --name.",
                      quoted_path(stem), quoted_path(base + plan.extension), why));
    }
    const auto [other, is_first] = taken.emplace(_normalized_stem_name(base), stem);
    if (!is_first) {
      throw ValueError(fmt::format(
          "{} and {} would both be called {}. Rename one, or pass a --name with {{stem}} or "
          "{{index}}.",
          quoted_path(other->second), quoted_path(stem), quoted_path(base + plan.extension)));
    }
    return base + plan.extension;
  };
  DeliveryNames names;
  for (std::size_t i = 0; i < plan.stems.size(); ++i) {
    names.stems.push_back(name_of(plan.stems[i], i + 1));
  }
  if (plan.with_mix) names.mix = name_of(std::string(kMixName), 0);
  return names;
}

}  // namespace verdel::internal
