#include "driver/option_table.hpp"

#include <algorithm>
#include <cctype>

#include "support/number_text.hpp"

namespace verdel::internal {
namespace {

/// The word that help puts in the place of a value: the option's name in capitals.
std::string metavar_from(std::string_view name) {
  std::string text(name.substr(2));
  std::transform(text.begin(), text.end(), text.begin(), [](char c) {
    return c == '-' ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  });
  return text;
}

std::vector<std::string_view> split_choices(std::string_view joined) {
  std::vector<std::string_view> choices;
  while (!joined.empty()) {
    const std::size_t end = std::min(joined.find(','), joined.size());
    choices.push_back(joined.substr(0, end));
    joined.remove_prefix(std::min(end + 1, joined.size()));
  }
  return choices;
}

OptionKind kind_of(bool) {
  return OptionKind::kFlag;
}
OptionKind kind_of(const std::string&) {
  return OptionKind::kText;
}
OptionKind kind_of(std::int64_t) {
  return OptionKind::kWhole;
}
OptionKind kind_of(double) {
  return OptionKind::kReal;
}
OptionKind kind_of(const std::vector<std::string>&) {
  return OptionKind::kList;
}
template <class Value>
OptionKind kind_of(const std::optional<Value>&) {
  return kind_of(Value{});
}

std::string default_text_of(bool) {
  return {};
}
std::string default_text_of(const std::string& value) {
  return value;
}
std::string default_text_of(double value) {
  return shortest_float64(value);
}
std::string default_text_of(const std::vector<std::string>&) {
  return {};
}
template <class Value>
std::string default_text_of(const std::optional<Value>&) {
  return {};
}

template <class Record>
std::vector<OptionEntry> entries_of_table(const OptionTable<Record>& table) {
  const Record defaults;
  std::vector<OptionEntry> entries;
  entries.reserve(table.size());
  for (const Option<Record>& option : table) {
    std::visit(
        [&](auto field) {
          const auto& initial = defaults.*field;
          const OptionKind kind = kind_of(initial);
          std::string metavar(option.metavar);
          if (metavar.empty() && kind != OptionKind::kFlag) metavar = metavar_from(option.name);
          entries.push_back({.name = option.name,
                             .kind = kind,
                             .choices = split_choices(option.choices),
                             .default_text = default_text_of(initial),
                             .metavar = std::move(metavar),
                             .hidden = option.hidden,
                             .required = option.required,
                             .help = option.help,
                             .path = option.path});
        },
        option.field);
  }
  return entries;
}

// Order within and among the pieces is that of usage, help and the ambiguous prefixes.
OptionTable<Options> project_options() {
  return {
      {.name = "--mix",
       .field = &Options::mix,
       .help = "the finished mix. Found automatically if there is exactly one audio file in the "
               "mix folder.",
       .path = PathKind::kFile},
      {.name = "--taps",
       .field = &Options::taps,
       .help = "folder of taps. Found automatically.",
       .path = PathKind::kFolder},
      {.name = "--out",
       .field = &Options::out,
       .help = "where the stems go. Defaults to <project>/out.",
       .path = PathKind::kFolder},
      {.name = "--project",
       .field = &Options::project,
       .help = "folder holding your mix and taps folders",
       .path = PathKind::kFolder},
  };
}

OptionTable<Options> allocation_options() {
  return {
      {.name = "--gain-model",
       .field = &Options::gain_model,
       .help = "shared gain model (legacy default: multiband)",
       .choices = "multiband,single-band"},
      {.name = "--bands",
       .field = &Options::bands,
       .help = "allocation bands; default32 for legacy,128 for single-band"},
      {.name = "--allocation",
       .field = &Options::allocation,
       .choices = "fixed,candidate14",
       .hidden = true},
      {.name = "--low-resolution",
       .field = &Options::low_resolution,
       .help =
           "exact tap basename to allocate with32-band evidence in single-band mode; repeatable",
       .metavar = "NAME"},
  };
}

OptionTable<Options> gain_options() {
  return {
      {.name = "--gain-window",
       .field = &Options::gain_window,
       .help = "ms over which each band's gain is measured. Smaller tracks the chain more closely "
               "but can start to distort. Try 0.5 to 5."},
      {.name = "--gain-smooth",
       .field = &Options::gain_smooth,
       .help = "ms of smoothing on the gain curve itself. This is what stops crackle. 0 disables. "
               "Ignored when --gain-attack and --gain-release are both set."},
      {.name = "--gain-attack",
       .field = &Options::gain_attack,
       .help = "ms attack for log-gain ballistics. 0 keeps the v0.1 box smoother. Fast when G is "
               "falling."},
      {.name = "--gain-release",
       .field = &Options::gain_release,
       .help = "ms release for log-gain ballistics. 0 keeps the v0.1 box smoother. Slow when G is "
               "rising."},
      {.name = "--gain-lookahead",
       .field = &Options::gain_lookahead,
       .help = "ms look-ahead for ballistics. -1 = attack time, 0 = causal / no shift."},
      {.name = "--stereo-link",
       .field = &Options::stereo_link,
       .help = "off: independent L/R gains (v0.1). mid: one G from the mid signal, applied to "
               "both. max: per-channel G, then the more reduced wins.",
       .choices = "off,mid,max"},
      {.name = "--band-couple",
       .field = &Options::band_couple,
       .help = "0..1 mix of each band's G with its neighbours. 0 is v0.1 (independent bands)."},
  };
}

OptionTable<Options> rule_options() {
  return {
      {.name = "--rule",
       .field = &Options::rule,
       .help =
           "how the leftover is allocated. tail = experimental last-transient owns soft leftover",
       .choices = "energy,sharp,corr,scorr,lsq,tail"},
      {.name = "--sharpness", .field = &Options::sharpness},
      {.name = "--tilt", .field = &Options::tilt},
      {.name = "--bound", .field = &Options::bound},
      {.name = "--tail-strength",
       .field = &Options::tail_strength,
       .help = "for --rule tail: 0 = pure energy, 1 = full last-owner on detected tails (default "
               "0.85)"},
      {.name = "--tail-hold",
       .field = &Options::tail_hold,
       .help = "for --rule tail: ms a hit keeps ownership (default 400)"},
      {.name = "--quiet-gate",
       .field = &Options::quiet_gate,
       .help = "experimental: stems far below the loudest tap get zero leftover weight (keeps "
               "silent sections silent)"},
      {.name = "--quiet-gate-db",
       .field = &Options::quiet_gate_db,
       .help = "with --quiet-gate: dB below the loudest tap to treat as silent (default -40)"},
  };
}

OptionTable<Options> tap_gain_options() {
  return {
      {.name = "--tap-gain",
       .field = &Options::tap_gain,
       .help = "shared: one gain for all taps (legacy). per/hybrid: regress mix onto each tap "
               "(measured: worse). sidechain: remap each tap through the shared gain curve using "
               "that tap's own level as detector (solo-dynamics correction). joint: experimental "
               "regularised multivariate gain fit.",
       .choices = "shared,per,hybrid,sidechain,joint"},
      {.name = "--tap-bound",
       .field = &Options::tap_bound,
       .help = "for hybrid/sidechain: max correction ratio"},
      {.name = "--joint-ridge",
       .field = &Options::joint_ridge,
       .help = "for joint tap-gain: strength of the shared-gain prior"},
      {.name = "--joint-hop",
       .field = &Options::joint_hop,
       .help = "for joint tap-gain: control-rate hop in ms"},
  };
}

OptionTable<Options> excerpt_and_input_options() {
  return {
      {.name = "--excerpt-start",
       .field = &Options::excerpt_start,
       .help = "demo mode: start of the printed excerpt in seconds"},
      {.name = "--excerpt-len",
       .field = &Options::excerpt_len,
       .help = "demo mode: length of the printed excerpt in seconds. Adds up to 2 s of pre-roll so "
               "the gain model is warmed up, then trims it before writing."},
      {.name = "--any-channels",
       .field = &Options::any_channels,
       .help = "allow non-stereo input (surround is untested)"},
      {.name = "--strict-inputs", .field = &Options::strict_inputs, .hidden = true},
      {.name = "--suggest-excerpt",
       .field = &Options::suggest_excerpt,
       .help = "analyse the mix only: print a musical excerpt of about this many seconds (whole "
               "bars) and exit"},
  };
}

OptionTable<Options> output_options() {
  return {
      {.name = "--write-null",
       .field = &Options::write_null,
       .help = "also write _NULL_RESIDUAL.wav next to the stems. Diagnostic only — the app does "
               "not ship it."},
      {.name = "--no-report",
       .field = &Options::no_report,
       .help = "skip the contamination report"},
      {.name = "--progress-json", .field = &Options::progress_json, .hidden = true},
  };
}

OptionTable<Options> leftover_options() {
  return {
      {.name = "--alloc-window",
       .field = &Options::alloc_window,
       .help = "ms over which the leftover is shared out"},
      {.name = "--priority",
       .field = &Options::priority,
       .help =
           "tap name (or unique substring) to protect: gets less leftover so soloing it stays "
           "cleaner. Repeatable for a duet. Other stems (or --sink) absorb what heroes refuse."},
      {.name = "--priority-share",
       .field = &Options::priority_share,
       .help = "fraction of each hero's normal leftover weight to keep (0 = none / cleanest solo, "
               "1 = no priority). Default 0. The fixer app uses 0.25."},
      {.name = "--sink",
       .field = &Options::sink,
       .help = "tap name/substring that may absorb leftover the hero stem(s) refuse. Repeatable. "
               "If omitted, all non-hero stems share it."},
  };
}

OptionTable<Options> make_option_table() {
  OptionTable<Options> table;
  for (const auto& piece :
       {project_options(), allocation_options(), gain_options(), rule_options(), tap_gain_options(),
        excerpt_and_input_options(), output_options(), leftover_options()}) {
    table.insert(table.end(), piece.begin(), piece.end());
  }
  return table;
}

OptionTable<EngineOptions> make_engine_option_table() {
  return {
      {.name = "--mix", .field = &EngineOptions::mix, .required = true, .path = PathKind::kFile},
      {.name = "--taps", .field = &EngineOptions::taps, .path = PathKind::kFolder},
      {.name = "--out", .field = &EngineOptions::out, .path = PathKind::kFolder},
      {.name = "--excerpt-start", .field = &EngineOptions::excerpt_start},
      {.name = "--excerpt-len", .field = &EngineOptions::excerpt_len},
      {.name = "--suggest-excerpt", .field = &EngineOptions::suggest_excerpt},
      {.name = "--strict-inputs", .field = &EngineOptions::strict_inputs},
      {.name = "--no-report", .field = &EngineOptions::no_report},
      {.name = "--progress-json", .field = &EngineOptions::progress_json},
  };
}

OptionTable<VerifyOptions> make_verify_option_table() {
  return {
      {.name = "--mix",
       .field = &VerifyOptions::mix,
       .help = "the finished mix",
       .required = true,
       .path = PathKind::kFile},
      {.name = "--stems",
       .field = &VerifyOptions::stems,
       .help = "folder of the stems, whoever wrote them",
       .required = true,
       .path = PathKind::kFolder},
      {.name = "--excerpt-start",
       .field = &VerifyOptions::excerpt_start,
       .help = "where in the mix the stems of an excerpt begin, in seconds"},
      {.name = "--threshold",
       .field = &VerifyOptions::threshold,
       .help = "dBFS that the peak of the difference must stay below"},
      {.name = "--json", .field = &VerifyOptions::json, .help = "print one JSON object"},
  };
}

OptionTable<ChainOptions> make_chain_option_table() {
  return {
      {.name = "--mix",
       .field = &ChainOptions::mix,
       .help = "the finished mix. Found automatically if there is exactly one audio file in the "
               "mix folder.",
       .path = PathKind::kFile},
      {.name = "--taps",
       .field = &ChainOptions::taps,
       .help = "folder of taps. Found automatically.",
       .path = PathKind::kFolder},
      {.name = "--out",
       .field = &ChainOptions::out,
       .help = "where the stems go. Defaults to <project>/out.",
       .path = PathKind::kFolder},
      {.name = "--project",
       .field = &ChainOptions::project,
       .help = "folder holding your mix and taps folders",
       .path = PathKind::kFolder},
      {.name = "--excerpt-start",
       .field = &ChainOptions::excerpt_start,
       .help =
           "deliver a part: where it begins, in seconds. The chain of the whole song is heard."},
      {.name = "--excerpt-len",
       .field = &ChainOptions::excerpt_len,
       .help = "deliver a part: how long it is, in seconds"},
      {.name = "--no-report",
       .field = &ChainOptions::no_report,
       .help = "skip the contamination report"},
      {.name = "--write-null",
       .field = &ChainOptions::write_null,
       .help = "also write _NULL_RESIDUAL.wav next to the stems"},
      {.name = "--look", .field = &ChainOptions::look, .help = "find and tell, render nothing"},
      {.name = "--no-tap-filters",
       .field = &ChainOptions::no_tap_filters,
       .help = "do not look for EQs and rooms of single taps"},
      {.name = "--no-gains",
       .field = &ChainOptions::no_gains,
       .help = "do not look for gains finer than the engine's"},
      {.name = "--taps-to",
       .field = &ChainOptions::taps_to,
       .help = "write the taps as heard through the chain into this folder",
       .path = PathKind::kFolder},
      {.name = "--json",
       .field = &ChainOptions::json,
       .help = "write what was found into this file",
       .path = PathKind::kFile},
      {.name = "--picture",
       .field = &ChainOptions::picture,
       .help = "draw what was found into this file, whose name ends in .svg or .png",
       .path = PathKind::kFile},
      {.name = "--progress-json", .field = &ChainOptions::progress_json, .hidden = true},
  };
}

OptionTable<DeliverOptions> make_deliver_option_table() {
  return {
      {.name = "--mix",
       .field = &DeliverOptions::mix,
       .help = "the finished mix",
       .required = true,
       .path = PathKind::kFile},
      {.name = "--stems",
       .field = &DeliverOptions::stems,
       .help = "folder of the stems that were rendered against it",
       .required = true,
       .path = PathKind::kFolder},
      {.name = "--to",
       .field = &DeliverOptions::to,
       .help = "folder for the files to hand over",
       .required = true,
       .path = PathKind::kFolder},
      {.name = "--bits",
       .field = &DeliverOptions::bits,
       .help = "integers of 16 or 24 bits whose sum is the mix, or 32-bit floats",
       .choices = "16,24,32f"},
      {.name = "--format",
       .field = &DeliverOptions::format,
       .help = "container of the files; flac and aiff with 16 or 24 bits",
       .choices = "wav,flac,aiff"},
      {.name = "--name",
       .field = &DeliverOptions::name,
       .help = "how the files are called, with {song}, {stem}, {index}, {rate} and {bits}",
       .metavar = "TEMPLATE"},
      {.name = "--json",
       .field = &DeliverOptions::json,
       .help = "print one JSON object instead of lines for people"},
      {.name = "--progress-json", .field = &DeliverOptions::progress_json, .hidden = true},
  };
}

OptionTable<CheckOptions> make_check_option_table() {
  return {
      {.name = "--mix",
       .field = &CheckOptions::mix,
       .help = "the finished mix. Found automatically if there is exactly one audio file in the "
               "mix folder.",
       .path = PathKind::kFile},
      {.name = "--taps",
       .field = &CheckOptions::taps,
       .help = "folder of taps. Found automatically.",
       .path = PathKind::kFolder},
      {.name = "--project",
       .field = &CheckOptions::project,
       .help = "folder holding your mix and taps folders",
       .path = PathKind::kFolder},
      {.name = "--json",
       .field = &CheckOptions::json,
       .help = "print one JSON object instead of lines for people"},
  };
}

}  // namespace

const OptionTable<Options>& option_table() {
  static const OptionTable<Options> table = make_option_table();
  return table;
}

const OptionTable<EngineOptions>& engine_option_table() {
  static const OptionTable<EngineOptions> table = make_engine_option_table();
  return table;
}

const OptionTable<VerifyOptions>& verify_option_table() {
  static const OptionTable<VerifyOptions> table = make_verify_option_table();
  return table;
}

const OptionTable<ChainOptions>& chain_option_table() {
  static const OptionTable<ChainOptions> table = make_chain_option_table();
  return table;
}

const OptionTable<DeliverOptions>& deliver_option_table() {
  static const OptionTable<DeliverOptions> table = make_deliver_option_table();
  return table;
}

const OptionTable<CheckOptions>& check_option_table() {
  static const OptionTable<CheckOptions> table = make_check_option_table();
  return table;
}

std::vector<OptionEntry> entries_of(const OptionTable<Options>& table) {
  return entries_of_table(table);
}

std::vector<OptionEntry> entries_of(const OptionTable<EngineOptions>& table) {
  return entries_of_table(table);
}

std::vector<OptionEntry> entries_of(const OptionTable<VerifyOptions>& table) {
  return entries_of_table(table);
}

std::vector<OptionEntry> entries_of(const OptionTable<ChainOptions>& table) {
  return entries_of_table(table);
}

std::vector<OptionEntry> entries_of(const OptionTable<DeliverOptions>& table) {
  return entries_of_table(table);
}

std::vector<OptionEntry> entries_of(const OptionTable<CheckOptions>& table) {
  return entries_of_table(table);
}

}  // namespace verdel::internal
