// Channels, cross-connects, loopback, flow control, Ethernet ports and AN/LT.
#include "fw/firmware.h"

namespace kavo_sim::fw {

void datapath_model::advance(firmware&, UINT64) {}

bool datapath_model::link_up(const firmware&, UINT32) const { return false; }
bool datapath_model::serdes_looped(const firmware&, UINT32) const { return false; }

std::span<const handler> datapath_handlers() { return {}; }

} // namespace kavo_sim::fw
