// Programmable clock outputs and MACsec memory scrubbing.
#include "fw/firmware.h"

namespace kavo_sim::fw {

void pgmrclk_model::advance(firmware&, UINT64) {}


std::span<const handler> pgmrclk_handlers() { return {}; }

} // namespace kavo_sim::fw
