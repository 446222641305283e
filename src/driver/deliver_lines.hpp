#pragma once

#include "driver/output_lines.hpp"
#include "handover/hand_over.hpp"

/// What verdel-deliver tells.
namespace verdel::internal {

/// Mix and target, before anything is decoded.
void print_handover_head(const Handover& job, const HandoverPlan& plan, OutputLines& lines);

/// What was rounded and moved, the stems' levels, and the verdict.
void print_handover(const Handover& job, const HandoverPlan& plan, const HandedOver& done,
                    OutputLines& lines);

/// The same as one JSON object.
void print_handover_json(const Handover& job, const HandoverPlan& plan, const HandedOver& done,
                         OutputLines& lines);

}  // namespace verdel::internal
