// PE host provisioning.
#include "fw/firmware.h"

namespace kavo_sim::fw {

void pe_model::advance(firmware&, UINT64) {}


std::span<const handler> pe_handlers() { return {}; }

} // namespace kavo_sim::fw
