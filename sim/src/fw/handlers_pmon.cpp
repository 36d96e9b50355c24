// Performance counters and their triggers.
#include "fw/firmware.h"

namespace kavo_sim::fw {

void pmon_model::advance(firmware&, UINT64) {}


std::span<const handler> pmon_handlers() { return {}; }

} // namespace kavo_sim::fw
