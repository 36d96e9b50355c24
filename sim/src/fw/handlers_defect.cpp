// Defects of every object, derived from the other models' state.
#include "fw/firmware.h"

namespace kavo_sim::fw {

void defect_model::advance(firmware&, UINT64) {}


std::span<const handler> defect_handlers() { return {}; }

} // namespace kavo_sim::fw
