// kavoctl's views of the serdes family.
#include "kavoctl.h"

namespace kavoctl {

std::span<const verb> serdes_verbs() { return {}; }

} // namespace kavoctl
