// kavoctl's views of the datapath family.
#include "kavoctl.h"

namespace kavoctl {

std::span<const verb> datapath_verbs() { return {}; }

} // namespace kavoctl
