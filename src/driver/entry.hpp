#pragma once

#include <exception>
#include <string>
#include <vector>

#include "driver/run_context.hpp"

/// The command lines. All take the arguments without the program's name, print on the
/// context's streams, let no exception out, and return the exit status: 0 at the end of the road, 1
/// for a run that was stopped by a failure, 2 for a command line that cannot be followed.
namespace verdel::internal {

inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitFindings = 3;     ///< of check_main: there is something to do
inline constexpr int kExitCancelled = 130;  ///< as a shell reports an interrupted program

/// What the user reads of a failure: its own words, or for a limit of the machine or of the
/// process, whose words nobody could act on, what to do.
const char* words_for(const std::exception& failure);

/// The full command line.
int main(const std::vector<std::string>& arguments, RunContext& context);

/// The engine, which the parent application starts: nine options, checked and handed to main with
/// the fixed processing profile.
int shipping_main(const std::vector<std::string>& arguments, RunContext& context);

/// The second opinion: proves a folder of stems against its mix. Status 1 also stands for stems
/// that fail.
int verify_main(const std::vector<std::string>& arguments, RunContext& context);

/// A render that hears the master chain first: its own lines, then those of main.
int chain_main(const std::vector<std::string>& arguments, RunContext& context);

/// Looks for what is wrong with taps. Status 3 stands for something to do.
int check_main(const std::vector<std::string>& arguments, RunContext& context);

/// Hands a folder of stems over as integers whose sum is the mix.
int deliver_main(const std::vector<std::string>& arguments, RunContext& context);

}  // namespace verdel::internal
