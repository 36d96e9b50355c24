// The Interlaken interface and its packet channels.
#include "fw/firmware.h"

namespace kavo_sim::fw {

void ilkn_model::advance(firmware&, UINT64) {}


std::span<const handler> ilkn_handlers() { return {}; }

} // namespace kavo_sim::fw
