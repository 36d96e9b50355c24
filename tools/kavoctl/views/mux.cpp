// kavoctl's views of the mux family.
#include "kavoctl.h"

namespace kavoctl {

std::span<const verb> mux_verbs() { return {}; }

} // namespace kavoctl
