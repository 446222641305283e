#pragma once

#include "driver/run_context.hpp"

namespace verdel::internal {

/// One run from its options to its end: a render, or the suggestion of an excerpt. Fills in what
/// the options leave open. Throws what stops it: UsageError, the four kinds of failure, Cancelled.
void run_engine(Run run);

/// Where a run on this machine keeps what is as long as its song.
SongStorage song_storage(const Machine& machine);

}  // namespace verdel::internal
