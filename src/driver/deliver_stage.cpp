#include "driver/deliver_stage.hpp"

#include <algorithm>

#include "driver/deliver_lines.hpp"
#include "driver/delivered_folder.hpp"
#include "driver/overwrite_guard.hpp"
#include "inputs/folder.hpp"
#include "inputs/path_text.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

DeliveryFormat format_of(const DeliverOptions& options) {
  return {.type = options.format == "flac"   ? FileType::kFlac
                  : options.format == "aiff" ? FileType::kAiff
                                             : FileType::kWav,
          .samples = options.bits == "16"   ? SampleType::kInteger16
                     : options.bits == "24" ? SampleType::kInteger24
                                            : SampleType::kFloat32};
}

/// Whoever opens the folder takes all audio in it for the delivery.
void refuse_strangers(const std::string& folder, const std::vector<std::string>& names) {
  if (!is_folder(folder)) return;
  std::vector<std::string> there = list_folder(folder);
  std::ranges::sort(there);
  for (const std::string& name : there) {
    if (name.starts_with('.') || !ends_like_audio(name) ||
        std::ranges::find(names, name) != names.end()) {
      continue;
    }
    throw ValueError(
        quoted_path(join(folder, name)) +
        " is there already and would be taken for a part of the delivery. Pass an empty "
        "folder with --to.");
  }
}

void refuse_places(const Handover& job, const DeliveryNames& names) {
  OutputFiles outputs{.folder = job.to, .option = "--to", .names = names.stems, .paths = {}};
  if (!names.mix.empty()) outputs.names.push_back(names.mix);
  outputs.names.emplace_back(kManifestName);
  for (const std::string& name : outputs.names) outputs.paths.push_back(join(job.to, name));
  std::vector<StemInput> inputs = job.stems;
  inputs.push_back(job.mix);
  refuse_overwriting(outputs, inputs);
  refuse_strangers(job.to, outputs.names);
}

}  // namespace

void deliver_folder(const DeliverOptions& options, std::size_t workers, OutputLines& lines,
                    const StopToken& stop) {
  lines.stage("looking at the stems");
  const DeliveredFolder folder = delivered_folder(*options.stems, stop);
  if (folder.manifest) require_hashes(*options.stems, *folder.manifest, stop);
  const ProgressLines progress(lines, options.progress_json);
  const Handover job{.mix = plan_mix_input(*options.mix),
                     .stems = folder.stems,
                     .to = *options.to,
                     .format = format_of(options),
                     .workers = workers,
                     .stop = stop,
                     .progress = [&](std::string_view phase, std::size_t done, std::size_t total) {
                       progress.emit_progress(phase, done, total);
                       lines.stage(phase == "write" ? "writing" : "proving",
                                   static_cast<double>(done) /
                                       static_cast<double>(std::max<std::size_t>(total, 1)));
                     }};
  const HandoverPlan plan = plan_handover(job, options.name);
  refuse_places(job, plan.names);
  if (!options.json) print_handover_head(job, plan, lines);
  const HandedOver done = hand_over(job, plan, Profile{}.null_threshold);
  if (options.json) {
    print_handover_json(job, plan, done, lines);
  } else {
    print_handover(job, plan, done, lines);
  }
}

}  // namespace verdel::internal
