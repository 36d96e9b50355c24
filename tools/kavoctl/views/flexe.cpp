// kavoctl's views of the flexe family.
#include "kavoctl.h"

namespace kavoctl {

std::span<const verb> flexe_verbs() { return {}; }

} // namespace kavoctl
