#include "chain/chain_job.hpp"

#include <algorithm>
#include <numeric>

namespace verdel::internal {
namespace {

// Long enough that a task costs nothing, short enough for many threads and a quick stop.
constexpr std::size_t kPartFrames = std::size_t{1} << 19;

}  // namespace

std::vector<ChannelPart> parts_of(const ChainJob& job) {
  std::vector<ChannelPart> parts;
  for (std::size_t channel = 0; channel < job.mix.rows(); ++channel) {
    for (std::size_t first = 0; first < job.mix.columns(); first += kPartFrames) {
      parts.push_back({channel, {first, std::min(first + kPartFrames, job.mix.columns())}});
    }
  }
  return parts;
}

void for_each_part(const ChainJob& job, const std::function<void(const ChannelPart& part)>& work) {
  const auto parts = parts_of(job);
  run_indexed(job.pool, parts.size(), [&](std::size_t i) {
    job.stop.check();
    work(parts[i]);
  });
}

double sum_over_parts(const ChainJob& job,
                      const std::function<double(const ChannelPart& part)>& term) {
  const auto parts = parts_of(job);
  std::vector<double> terms(parts.size());
  run_indexed(job.pool, parts.size(), [&](std::size_t i) {
    job.stop.check();
    terms[i] = term(parts[i]);
  });
  return std::accumulate(terms.begin(), terms.end(), 0.0);
}

}  // namespace verdel::internal
