// FlexE groups, clients, calendars and the FlexE overhead processor.
#include "fw/firmware.h"

namespace kavo_sim::fw {

void flexe_model::advance(firmware&, UINT64) {}


std::span<const handler> flexe_handlers() { return {}; }

} // namespace kavo_sim::fw
