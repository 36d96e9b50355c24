// SerDes lanes: sources, PRBS, equalisation, eye, adaptation, microcode.
#include "fw/firmware.h"

namespace kavo_sim::fw {

void serdes_model::advance(firmware&, UINT64) {}

bool serdes_model::signal_present(const firmware& fw, UINT32 port) const
{
    return fw.knob(SIM_KNOB_LINK_PARTNER, port) != 0 || fw.model.datapath.serdes_looped(fw, port);
}

std::span<const handler> serdes_handlers() { return {}; }

} // namespace kavo_sim::fw
