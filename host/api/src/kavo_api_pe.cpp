/* PE commands whose request the command table cannot express. */
#include "kavo/kavo_api.h"
#include "kavo_command_frame.h"

namespace {
/* The size of the provisioning record, announced by a deprovisioning as well. */
constexpr UINT32 PE_CONFIG_SIZE = 48;
}  // namespace
KAVO_STATIC_ASSERT(sizeof(kavo_pe_config_t) == PE_CONFIG_SIZE, "kavo_pe_config_t is 48 bytes");

/* A deprovisioning is the provisioning request with parent_id 0 and no record:
   the header announces the record's size, the transport writes no payload. */
VELT_ERROR kavo_pe_deprov(const UINT32 device_id, const kavo_pe_host_id_t host_id)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", %d", (int)host_id);
    frame.request(KAVO_HTL_OPERATION_PE_HOST_PROV).element((UINT32)host_id).parent(0).data(nullptr, PE_CONFIG_SIZE);
    return frame.send();
}
