// kavoctl's views of the defect family.
#include "kavoctl.h"

namespace kavoctl {

std::span<const verb> defect_verbs() { return {}; }

} // namespace kavoctl
