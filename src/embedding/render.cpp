#include <verdel/verdel.hpp>

#include <algorithm>
#include <atomic>
#include <exception>
#include <limits>
#include <optional>
#include <utility>

#include "alignment/tap_alignment.hpp"
#include "allocation/channels.hpp"
#include "allocation/interval_rendering.hpp"
#include "allocation/worker_budgets.hpp"
#include "delivery/coordinated_float32.hpp"
#include "gain/shared_gain.hpp"
#include "signal/levels.hpp"
#include "signal/stem_sums.hpp"
#include "support/errors.hpp"
#include "support/machine.hpp"

// The way of a render without files: what the driver does between loading and writing.
namespace verdel::internal {
namespace {

constexpr double kNullThreshold = -140.0;  // dBFS

AudioArray copy_of(const std::vector<ChannelView>& channels, std::size_t frames,
                   const std::string& owner) {
  auto audio = AudioArray::uninitialised(channels.size(), frames);
  for (std::size_t channel = 0; channel < channels.size(); ++channel) {
    if (channels[channel].size() != frames) {
      throw ValueError(owner + ": channels and mix must have one length");
    }
    std::ranges::copy(channels[channel], audio.row(channel).begin());
  }
  return audio;
}

StemMap taps_of(const RenderRequest& request, const AudioArray& mix) {
  StemMap taps;
  for (const TapRequest& tap : request.taps) {
    const std::string owner = "tap \"" + tap.name + "\"";
    if (tap.channels.size() != mix.rows()) {
      throw ValueError(owner + ": must have as many channels as the mix");
    }
    taps.push_back({tap.name, copy_of(tap.channels, mix.columns(), owner)});
  }
  return taps;
}

AudioArray mix_of(const RenderRequest& request) {
  if (request.mix.empty() || request.taps.empty()) {
    throw ValueError("a render needs a mix and at least one tap");
  }
  if (request.sample_rate <= 0) throw ValueError("the sample rate must be positive");
  return copy_of(request.mix, request.mix.front().size(), "mix");
}

Machine machine_for(const RenderRequest& request) {
  Machine machine = system_machine();
  if (request.processors != 0) {
    machine.processors = [count = request.processors] { return count; };
  }
  if (!request.temporary_folder.empty()) {
    machine.temporary_folder = [folder = request.temporary_folder] { return folder; };
  }
  return machine;
}

/// Hands progress to the caller and keeps the caller's wish to stop.
class CallersProgress {
 public:
  explicit CallersProgress(const RenderRequest& request) : request_(request) {}

  void tell(double done) {
    if (request_.progress && !request_.progress(done)) stop_ = true;
  }
  StopToken token() const { return StopToken(stop_); }

 private:
  const RenderRequest& request_;
  std::atomic<bool> stop_ = false;
};

RenderResult result_of(const DeliveredStems& delivered, AudioView mix,
                       const std::vector<AppliedLag>& lags) {
  RenderResult result;
  auto sum = AudioArray::zeros(mix.rows(), mix.columns());
  for (const auto& [name, audio] : delivered) {
    RenderedStem stem{name, {}};
    for (std::size_t channel = 0; channel < audio.rows(); ++channel) {
      const auto row = audio.row(channel);
      stem.channels.emplace_back(row.begin(), row.end());
      const auto total = sum.row(channel);
      for (std::size_t i = 0; i < row.size(); ++i) total[i] += static_cast<double>(row[i]);
    }
    result.stems.push_back(std::move(stem));
  }
  for (const AppliedLag& moved : lags) result.moved.push_back({moved.name, moved.lag});
  result.null_peak = levels(difference_from(mix, std::move(sum)).view()).peak;
  return result;
}

RenderResult render_request(const RenderRequest& request, CallersProgress& progress) {
  const StopToken stop = progress.token();
  const AudioArray mix = mix_of(request);
  const std::size_t frames = mix.columns(), to = std::min(request.stop, frames);
  if (request.start >= to) throw ValueError("the range to deliver is empty");
  const Machine machine = machine_for(request);
  if (const auto error = _c14_resource_budget_error(frames, request.sample_rate,
                                                    request.taps.size(), mix.rows(), machine)) {
    throw ValueError(*error);
  }
  StemMap taps = taps_of(request, mix);
  progress.tell(0.0);
  std::vector<AppliedLag> lags;
  if (request.align) {
    lags = align_taps_to_mix(mix.view(), taps, request.sample_rate, machine, stop);
  }
  const SampleSpan needed = with_context({request.start, to}, frames);
  SharedGainModel fitted =
      shared_single_band_model(mix.view(), taps, request.sample_rate, 30.0, 120.0, stop, needed);
  taps.clear();
  Model model = model_of_part(std::move(fitted.models),
                              difference_from(mix.view(), std::move(fitted.model_sum)), needed);
  const ChannelsJob job{.sr = request.sample_rate,
                        .start = request.start,
                        .stop = to,
                        .progress = [&](std::size_t done, std::size_t total) {
                          progress.tell(static_cast<double>(done) / static_cast<double>(total + 1));
                        }};
  const StemMap est = render_channels(std::move(model), job, machine, stop);
  const AudioView part = mix.view().column_range(request.start, to);
  const auto delivered = _coordinated_float32_delivery(views_of(est), part, kNullThreshold, stop);
  RenderResult result = result_of(delivered, part, lags);
  if (!(result.null_peak < kNullThreshold)) {
    throw RuntimeError("the stems do not add up to the mix");
  }
  progress.tell(1.0);
  return result;
}

}  // namespace
}  // namespace verdel::internal

namespace verdel {

RenderResult render(const RenderRequest& request) {
  internal::CallersProgress progress(request);
  try {
    return internal::render_request(request, progress);
  } catch (const internal::Cancelled& cancelled) {
    throw RenderCancelled(cancelled.what());
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& failure) {
    throw RenderError(failure.what());
  }
}

const char* version() {
  return VERDEL_VERSION;
}

}  // namespace verdel
