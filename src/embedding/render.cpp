#include <verdel/verdel.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <map>
#include <optional>
#include <utility>

#include "allocation/worker_budgets.hpp"
#include "chain/chain_figures.hpp"
#include "delivery/coordinated_float32.hpp"
#include "embedding/chain_result.hpp"
#include "inputs/input_planning.hpp"
#include "render/render_song.hpp"
#include "render/unfit_input.hpp"
#include "signal/levels.hpp"
#include "signal/stem_sums.hpp"
#include "support/errors.hpp"
#include "support/machine.hpp"
#include "support/unicode_text.hpp"

// A render without files: from the caller's arrays to arrays.
namespace verdel::internal {
namespace {

template <class Sample>
Array2D<Sample> copy_of(const std::vector<ChannelView>& channels, std::size_t frames,
                        const std::string& owner) {
  auto audio = Array2D<Sample>::uninitialised(channels.size(), frames);
  for (std::size_t channel = 0; channel < channels.size(); ++channel) {
    if (channels[channel].size() != frames) {
      throw ValueError(owner + ": channels and mix must have one length");
    }
    std::ranges::transform(channels[channel], audio.row(channel).begin(),
                           [](double sample) { return static_cast<Sample>(sample); });
  }
  return audio;
}

std::string tap_called(const std::string& name) {
  return "tap " + quoted_path(name);
}

/// Stems that would share a file's name are refused, as they are where taps come from files.
void require_unique_names(const RenderRequest& request) {
  std::map<std::string, std::string> names;
  for (const TapRequest& tap : request.taps) {
    const auto [earlier, is_new] = names.emplace(_normalized_stem_name(tap.name), tap.name);
    if (is_new) continue;
    throw ValueError(fmt::format(
        "{} and {} would print with the same stem name. Rename one so every source stem has a "
        "unique name.",
        quoted_path(earlier->second), quoted_path(tap.name)));
  }
}

StemMap taps_of(const RenderRequest& request, const AudioArray& mix) {
  require_unique_names(request);
  StemMap taps;
  for (const TapRequest& tap : request.taps) {
    const std::string owner = tap_called(tap.name);
    if (tap.channels.size() != mix.rows()) {
      throw ValueError(owner + ": must have as many channels as the mix");
    }
    taps.push_back({tap.name, copy_of<float>(tap.channels, mix.columns(), owner)});
  }
  return taps;
}

AudioArray mix_of(const RenderRequest& request) {
  if (request.mix.empty() || request.taps.empty()) {
    throw ValueError("a render needs a mix and at least one tap");
  }
  if (request.sample_rate <= 0) throw ValueError("the sample rate must be positive");
  return copy_of<double>(request.mix, request.mix.front().size(), "mix");
}

Machine machine_for(const RenderRequest& request) {
  Machine machine = system_machine(request.temporary_folder);
  if (request.processors != 0) {
    machine.processors = [count = request.processors] { return count; };
  }
  return machine;
}

/// Hands progress to the caller and keeps the caller's wish to stop.
class CallersView : public SongObserver {
 public:
  explicit CallersView(const RenderRequest& request) : request_(request) {}

  void aligned(const std::vector<AppliedLag>& lags) override { lags_ = lags; }
  void progress(std::size_t done, std::size_t total) override {
    const double rest = 1.0 - before_render_;
    tell(before_render_ + rest * static_cast<double>(done) / static_cast<double>(total + 1));
  }
  /// The chain's curve is one half of its way, what follows it the other.
  void chain_progress(std::string_view phase, std::size_t done, std::size_t total) {
    const double half = 0.5 * static_cast<double>(done) / static_cast<double>(total);
    before_render_ = std::max(before_render_, kChainShare * (phase == "curve" ? half : 0.5 + half));
    tell(before_render_);
  }

  void tell(double done) {
    if (request_.progress && !request_.progress(done)) stop_ = true;
  }
  StopToken token() const { return StopToken(stop_); }
  const std::vector<AppliedLag>& lags() const { return lags_; }

 private:
  static constexpr double kChainShare = 0.2;  // of the time

  double before_render_ = 0.0;
  const RenderRequest& request_;
  std::vector<AppliedLag> lags_;
  std::atomic<bool> stop_ = false;
};

/// A failure that an input's samples explain names the input on a second line.
std::string with_input(const std::exception& failure, AudioView mix, const StemMap& taps,
                       const std::vector<AppliedLag>& lags) {
  const auto unfit = unfit_input(mix, taps, lags);
  if (!unfit) return failure.what();
  const std::string owner = unfit->tap ? tap_called(taps[*unfit->tap].name) : "mix";
  return std::string(failure.what()) + "\n" + owner + ": " +
         unfit_text(*unfit, mix.rows(), unfit->channel);
}

RenderResult result_of(StemMap delivered, AudioView mix, const std::vector<AppliedLag>& lags) {
  RenderResult result;
  const AudioArray sum = sum_of(delivered, mix.rows(), mix.columns());
  result.null_peak = levels_of_difference(mix, sum.view()).peak;
  for (auto& entry : delivered) {
    const auto [name, audio] = std::move(entry);  // given up as soon as it is copied
    RenderedStem stem{name, {}};
    for (std::size_t channel = 0; channel < audio.rows(); ++channel) {
      const auto row = audio.row(channel);
      stem.channels.emplace_back(row.begin(), row.end());
    }
    result.stems.push_back(std::move(stem));
  }
  for (const AppliedLag& moved : lags) result.moved.push_back({moved.name, moved.lag});
  return result;
}

CoordinatedStems stems_of(const SongJob& job, StemMap& taps, const Machine& machine,
                          CallersView& caller) {
  try {
    return render_song(job, taps, machine, caller, caller.token());
  } catch (const FloatingPointError& failure) {
    throw FloatingPointError(with_input(failure, job.mix, taps, caller.lags()));
  } catch (const ValueError& failure) {
    throw ValueError(with_input(failure, job.mix, taps, caller.lags()));
  }
}

ChainResult hear(SongJob& job, StemMap& taps, const Machine& machine, CallersView& caller) {
  ThreadPool pool(machine.processors(), "verdel-chain");
  const ChainJob chain{
      .mix = job.mix,
      .sr = job.sr,
      .pool = &pool,
      .stop = caller.token(),
      .progress = [&](std::string_view phase, std::size_t done, std::size_t total) {
        caller.chain_progress(phase, done, total);
      }};
  std::vector<std::string> names;
  for (const auto& tap : taps) names.push_back(tap.name);
  const ChainFinding finding = hear_chain(chain, taps);
  const auto moves = moves_of(finding, names);
  caller.aligned(moves);
  // The render does not move again what stands in line with the chain.
  job.align = job.align && moves.empty();
  return chain_result(finding, names, job.sr);
}

RenderResult render_request(const RenderRequest& request) {
  const AudioArray mix = mix_of(request);
  const std::size_t frames = mix.columns();
  SongJob job{.mix = mix.view(),
              .sr = request.sample_rate,
              .range = {request.start, std::min(request.stop, frames)},
              .align = request.align};
  if (job.range.first >= job.range.stop) throw ValueError("the range to deliver is empty");
  const Machine machine = machine_for(request);
  if (const auto error = _c14_resource_budget_error(frames, request.sample_rate,
                                                    request.taps.size(), mix.rows(), machine)) {
    throw ValueError(*error);
  }
  StemMap taps = taps_of(request, mix);
  CallersView caller(request);
  caller.tell(0.0);
  std::optional<ChainResult> chain;
  if (request.chain) chain = hear(job, taps, machine, caller);
  CoordinatedStems stems = stems_of(job, taps, machine, caller);
  taps.clear();
  RenderResult result =
      result_of(stems.finish(caller.token()), job.mix.column_range(job.range.first, job.range.stop),
                caller.lags());
  result.chain = std::move(chain);
  if (!(result.null_peak < job.profile.null_threshold)) {
    throw RuntimeError(fmt::format("the stems miss the mix by {:.1f} dBFS. {}", result.null_peak,
                                   "Turn the mix down: beyond 2.0 a float32 step is too coarse."));
  }
  caller.tell(1.0);
  return result;
}

}  // namespace
}  // namespace verdel::internal

namespace verdel {

RenderResult render(const RenderRequest& request) {
  try {
    return internal::render_request(request);
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
