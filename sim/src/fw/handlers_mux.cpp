// The protection mux between two line sides.
#include "fw/firmware.h"

namespace kavo_sim::fw {

void mux_model::advance(firmware&, UINT64) {}


std::span<const handler> mux_handlers() { return {}; }

} // namespace kavo_sim::fw
