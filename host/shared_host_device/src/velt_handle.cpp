#include "velt_handle.h"

void velt_handle_init(velt_handle_t* handle, velt_sys_handle_t* sys_handle, UINT32 base_address)
{
    handle->sys_handle = sys_handle;
    handle->base_address = base_address;
}
