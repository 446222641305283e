#include <algorithm>
#include <verdel/verdel.hpp>

#include "diagnosis/diagnose.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

// Findings without files: from the caller's arrays to records.
namespace verdel::internal {
namespace {

template <class Sample>
Array2D<Sample> copy_of(const std::vector<ChannelView>& channels, const CheckRequest& request,
                        const std::string& owner) {
  const std::size_t frames = request.mix.front().size();
  const bool fits = channels.size() == request.mix.size() &&
                    std::ranges::all_of(channels, [&](auto row) { return row.size() == frames; });
  if (!fits) throw ValueError(owner + ": channels and length must be those of the mix");
  auto audio = Array2D<Sample>::uninitialised(channels.size(), frames);
  for (std::size_t c = 0; c < channels.size(); ++c) {
    std::ranges::transform(channels[c], audio.row(c).begin(),
                           [](double sample) { return static_cast<Sample>(sample); });
  }
  return audio;
}

std::vector<TapFinding> check_request(const CheckRequest& request) {
  if (request.mix.empty() || request.mix.size() > 2 || request.taps.empty()) {
    throw ValueError("a check needs a mix of one or two channels and at least one tap");
  }
  if (request.sample_rate <= 0) throw ValueError("the sample rate must be positive");
  const AudioArray mix = copy_of<double>(request.mix, request, "mix");
  StemMap taps;
  for (const TapRequest& tap : request.taps) {
    taps.push_back(
        {tap.name, copy_of<float>(tap.channels, request, "tap " + quoted_path(tap.name))});
  }
  std::vector<TapFinding> found;
  for (Finding& finding : diagnose(mix.view(), taps, request.sample_rate, system_machine())) {
    TapFinding& told = found.emplace_back();
    told.kind = std::move(finding.kind);
    told.taps = std::move(finding.taps);
    for (const auto& [from, to] : finding.where) told.where.push_back({from, to});
    told.severity = name_of(finding.severity);
    told.text = std::move(finding.text);
    told.figures = std::move(finding.figures);
  }
  return found;
}

}  // namespace
}  // namespace verdel::internal

namespace verdel {

std::vector<TapFinding> check(const CheckRequest& request) {
  try {
    return internal::check_request(request);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& failure) {
    throw RenderError(failure.what());
  }
}

}  // namespace verdel
