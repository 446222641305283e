#include "handover/manifest.hpp"

#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "inputs/byte_source.hpp"
#include "inputs/path_text.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kVersion = 1;
constexpr std::uint64_t kMostBytes = 64 << 20;

/// Two decimals; finer no meter reads.
Json level(double db) {
  if (!std::isfinite(db)) return nullptr;
  return std::round(db * 100.0) / 100.0;
}

Json bits_json(const std::string& bits) {
  if (bits == "32f") return bits;
  return std::stoi(bits);
}

std::string text_of(const std::string& path) {
  const ByteSource source = open_regular_file(path);
  if (source.size > kMostBytes) throw ValueError("it is too long");
  std::vector<unsigned char> bytes(source.size);
  bytes.resize(source.read_at(0, bytes));
  return {bytes.begin(), bytes.end()};
}

/// A manifest names files of its own folder and no others.
ManifestFile file_of(const Json& json) {
  ManifestFile file{json.at("file"), json.at("sha256")};
  if (file.file.empty() || file.file == "." || file.file == ".." ||
      file.file.find('/') != std::string::npos || file.file.find('\0') != std::string::npos) {
    throw ValueError("it names a file that is not in the folder");
  }
  return file;
}

Manifest manifest_of(const Json& json) {
  if (json.at("version") != kVersion) throw ValueError("it is of another version");
  Manifest manifest;
  manifest.sr = json.at("sample_rate");
  const Json& bits = json.at("bits");
  manifest.bits = bits.is_string() ? bits.get<std::string>() : std::to_string(bits.get<int>());
  manifest.frames = json.at("frames");
  manifest.sums_exactly = json.at("sums_exactly");
  if (json.contains("mix")) manifest.mix = file_of(json.at("mix"));
  for (const Json& stem : json.at("stems")) {
    manifest.stems.push_back({stem.at("name"), file_of(stem), {}});
  }
  if (manifest.stems.empty()) throw ValueError("it has no stems");
  return manifest;
}

}  // namespace

std::string manifest_text(const Manifest& manifest) {
  Json json;
  json["version"] = kVersion;
  json["sample_rate"] = manifest.sr;
  json["bits"] = bits_json(manifest.bits);
  json["frames"] = manifest.frames;
  json["sums_exactly"] = manifest.sums_exactly;
  if (manifest.mix) {
    json["mix"] = {{"file", manifest.mix->file}, {"sha256", manifest.mix->sha256}};
  }
  for (const auto& [name, file, levels] : manifest.stems) {
    json["stems"].push_back({{"name", name},
                             {"file", file.file},
                             {"sha256", file.sha256},
                             {"peak_dbfs", level(levels.peak_dbfs)},
                             {"true_peak_dbtp", level(levels.true_peak_dbtp)},
                             {"loudness_lufs", level(levels.loudness_lufs)},
                             {"loudness_range_lu", level(levels.loudness_range_lu)}});
  }
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::optional<Manifest> read_manifest(const std::string& folder) {
  const std::string path = join(folder, kManifestName);
  std::error_code unknown;
  if (!std::filesystem::is_regular_file(path, unknown)) return std::nullopt;
  try {
    const Json json = Json::parse(text_of(path));
    if (!json.is_object() || !json.contains("sums_exactly")) return std::nullopt;
    return manifest_of(json);
  } catch (const Json::exception& error) {
    throw ValueError(quoted_path(path) + " is damaged: " + error.what());
  } catch (const ValueError& error) {
    throw ValueError(quoted_path(path) + " cannot be followed: " + error.what());
  }
}

}  // namespace verdel::internal
