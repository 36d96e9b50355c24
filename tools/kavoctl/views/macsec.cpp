// kavoctl's views of the macsec family.
#include "kavoctl.h"

namespace kavoctl {

std::span<const verb> macsec_verbs() { return {}; }

} // namespace kavoctl
