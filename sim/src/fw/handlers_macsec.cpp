// The MACsec engines: vports, rules, SAs, statistics, notifications.
#include "fw/firmware.h"

namespace kavo_sim::fw {

void macsec_model::advance(firmware&, UINT64) {}


std::span<const handler> macsec_handlers() { return {}; }

} // namespace kavo_sim::fw
