// Defect commands. All defect traffic goes through four senders without a
// frame of their own; the exported commands are frames around them with the
// object's type and record size fixed.
#include "kavo_api_defect_internal.h"
#include "kavo_command_frame.h"

UINT32 kavo_defect_sizeof(const kavo_defect_type_t defect_type)
{
    switch (defect_type) {
    case KAVO_DEFECT_TYPE_ENET_PORT: return sizeof(kavo_defect_enet_port_segment_t);
    case KAVO_DEFECT_TYPE_ILKN_PKT_CHNL: return sizeof(kavo_defect_ilkn_pkt_segment_t);
    case KAVO_DEFECT_TYPE_ILKN_INTERFACE: return sizeof(kavo_defect_ilkn_intf_t);
    case KAVO_DEFECT_TYPE_FLEXE_GROUP: return sizeof(kavo_defect_flexe_group_segment_t);
    case KAVO_DEFECT_TYPE_FLEXE_CLIENT: return sizeof(kavo_defect_flexe_client_segment_t);
    case KAVO_DEFECT_TYPE_SERDES: return sizeof(kavo_defect_serdes_t);
    case KAVO_DEFECT_TYPE_TLIC: return sizeof(kavo_defect_tlic_t);
    case KAVO_DEFECT_TYPE_DCSU: return sizeof(kavo_defect_dcsu_t);
    case KAVO_DEFECT_TYPE_ANLT: return sizeof(kavo_defect_anlt_chnl_t);
    default: break;
    }
    // No record for this type: a programming error.
    VELT_ASSERT_FAIL(VELT_LOG_NO_DEVID, 0);
}

// The senders.

VELT_ERROR kavo_defect_enable_set(const UINT32 device_id, const UINT32 chnl_id, const kavo_defect_type_t defect_type,
                                  const void* enables, const UINT32 enables_size)
{
    kavo_htl_request_t request;
    request.device_id = device_id;
    request.operation = KAVO_HTL_OPERATION_DEFECT_ENABLE_SET;
    request.info.element_id = chnl_id;
    request.info.mode = defect_type;
    request.info.flag = 0;
    request.data_ptr = const_cast<void*>(enables);
    request.data_size = enables_size;
    return kavo_device::send(request);
}

/* The single-defect requests carry the defect's offset in the size word, with no data. */
static VELT_ERROR defect_single_set(kavo_htl_operation_t operation, const UINT32 device_id, const UINT32 chnl_id,
                                    const kavo_defect_type_t defect_type, const UINT32 ive_offset, const BOOL32 enable)
{
    kavo_htl_request_t request;
    request.device_id = device_id;
    request.operation = operation;
    request.info.element_id = chnl_id;
    request.info.mode = defect_type;
    request.info.flag = enable;
    request.data_size = ive_offset;
    request.data_ptr = nullptr;
    return kavo_device::send(request);
}

VELT_ERROR kavo_defect_e_set_internal(const UINT32 device_id, const UINT32 chnl_id, const kavo_defect_type_t defect_type,
                                      const UINT32 ive_offset, const BOOL32 enable)
{
    return defect_single_set(KAVO_HTL_OPERATION_DEFECT_E_SET, device_id, chnl_id, defect_type, ive_offset, enable);
}

VELT_ERROR kavo_defect_chnl_v_set_internal(const UINT32 device_id, const UINT32 chnl_id,
                                           const kavo_defect_type_t defect_type, const UINT32 ive_offset,
                                           const BOOL32 enable)
{
    return defect_single_set(KAVO_HTL_OPERATION_DEFECT_V_SET, device_id, chnl_id, defect_type, ive_offset, enable);
}

/* The record read carries the defect type in the size word. */
VELT_ERROR kavo_defect_get(const UINT32 device_id, const UINT32 chnl_id, const kavo_defect_type_t defect_type,
                           const kavo_defect_transfer_clear_t clear_type, void* defect_ptr)
{
    kavo_htl_request_t request;
    kavo_htl_response_t response;
    request.device_id = device_id;
    request.operation = KAVO_HTL_OPERATION_DEFECT_GET;
    request.info.element_id = chnl_id;
    request.info.mode = clear_type;
    request.data_size = defect_type;
    request.data_ptr = nullptr;
    response.data_ptr = defect_ptr;
    response.data_size = kavo_defect_sizeof(defect_type);
    return kavo_device::send(request, response);
}

// Enables.

#define DEFECT_ENABLE_SET(frame, chnl, type, record)                                           \
    do {                                                                                       \
        (frame).trace_end();                                                                   \
        return kavo_defect_enable_set(device_id, (chnl), (type), (record), sizeof(*(record))); \
    } while (0)

VELT_ERROR kavo_enet_port_defect_enable_set(const UINT32 device_id, const UINT32 chnl_id,
                                            kavo_defect_enet_port_segment_t* enable)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", chnl_id=0x%x", chnl_id);
    DEFECT_ENABLE_SET(frame, chnl_id, KAVO_DEFECT_TYPE_ENET_PORT, enable);
}

VELT_ERROR kavo_flexe_client_defect_enable_set(const UINT32 device_id, const UINT32 chnl_id,
                                               kavo_defect_flexe_client_segment_t* enable)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", chnl_id=0x%x", chnl_id);
    DEFECT_ENABLE_SET(frame, chnl_id, KAVO_DEFECT_TYPE_FLEXE_CLIENT, enable);
}

VELT_ERROR kavo_flexe_group_defect_enable_set(const UINT32 device_id, const UINT32 chnl_id,
                                              kavo_defect_flexe_group_segment_t* enable)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", chnl_id=0x%x", chnl_id);
    DEFECT_ENABLE_SET(frame, chnl_id, KAVO_DEFECT_TYPE_FLEXE_GROUP, enable);
}

VELT_ERROR kavo_ilkn_pkt_defect_enable_set(const UINT32 device_id, const UINT32 chnl_id,
                                           kavo_defect_ilkn_pkt_segment_t* enable)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", chnl_id=0x%x", chnl_id);
    DEFECT_ENABLE_SET(frame, chnl_id, KAVO_DEFECT_TYPE_ILKN_PKT_CHNL, enable);
}

VELT_ERROR kavo_ilkn_intf_defect_enable_set(const UINT32 device_id, kavo_defect_ilkn_intf_t* enable)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", ilkn_intf=0");
    DEFECT_ENABLE_SET(frame, 0, KAVO_DEFECT_TYPE_ILKN_INTERFACE, enable);
}

VELT_ERROR kavo_serdes_port_defect_enable_set(const UINT32 device_id, const UINT32 serdes_port_id,
                                              kavo_defect_serdes_t* enable)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", serdes_port_id=0x%x", serdes_port_id);
    DEFECT_ENABLE_SET(frame, serdes_port_id, KAVO_DEFECT_TYPE_SERDES, enable);
}

VELT_ERROR kavo_tlic_defect_enable_set(const UINT32 device_id, kavo_defect_tlic_t* enable)
{
    KAVO_COMMAND(frame, device_id);
    DEFECT_ENABLE_SET(frame, 0, KAVO_DEFECT_TYPE_TLIC, enable);
}

VELT_ERROR kavo_dcsu_defect_enable_set(const UINT32 device_id, const kavo_dcsu_instance_t dcsu_inst,
                                       kavo_defect_dcsu_t* enable)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", dcsu_inst=0x%x", (unsigned)dcsu_inst);
    DEFECT_ENABLE_SET(frame, dcsu_inst, KAVO_DEFECT_TYPE_DCSU, enable);
}

VELT_ERROR kavo_anlt_defect_enable_set(const UINT32 device_id, const UINT32 chnl_id, kavo_defect_anlt_chnl_t* enable)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", chnl_id=0x%x", chnl_id);
    DEFECT_ENABLE_SET(frame, chnl_id, KAVO_DEFECT_TYPE_ANLT, enable);
}

// Single defects.

VELT_ERROR kavo_defect_e_set(const UINT32 device_id, const kavo_defect_type_t defect_type, const UINT32 ive_offset,
                             const BOOL32 enable)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", defect_type=%d, ive_offset=%d, enable=%d", (int)defect_type, (int)ive_offset, (int)enable);
    frame.trace_end();
    return kavo_defect_e_set_internal(device_id, 0, defect_type, ive_offset, enable);
}

VELT_ERROR kavo_defect_chnl_e_set(const UINT32 device_id, const UINT32 chnl_id, const kavo_defect_type_t defect_type,
                                  const UINT32 ive_offset, const BOOL32 enable)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", defect_type=%d, chnl_id=0x%x, ive_offset=%d, enable=%d", (int)defect_type, chnl_id,
                (int)ive_offset, (int)enable);
    frame.trace_end();
    return kavo_defect_e_set_internal(device_id, chnl_id, defect_type, ive_offset, enable);
}

VELT_ERROR kavo_defect_v_set(const UINT32 device_id, const kavo_defect_type_t defect_type, const UINT32 ive_offset,
                             const BOOL32 enable)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", defect_type=%d, ive_offset=%d, enable=%d", (int)defect_type, (int)ive_offset, (int)enable);
    frame.trace_end();
    return kavo_defect_chnl_v_set_internal(device_id, 0, defect_type, ive_offset, enable);
}

VELT_ERROR kavo_defect_chnl_v_set(const UINT32 device_id, const UINT32 chnl_id, const kavo_defect_type_t defect_type,
                                  const UINT32 ive_offset, const BOOL32 enable)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", chnl_id=0x%x, defect_type=%d, ive_offset=%d, enable=%d", chnl_id, (int)defect_type,
                (int)ive_offset, (int)enable);
    frame.trace_end();
    return kavo_defect_chnl_v_set_internal(device_id, chnl_id, defect_type, ive_offset, enable);
}

// Records: status polls.

VELT_ERROR kavo_ilkn_intf_defect_get(const UINT32 device_id, const kavo_defect_transfer_clear_t clear_type,
                                     kavo_defect_ilkn_intf_t* defect_ptr)
{
    KAVO_STATUS_COMMAND(frame, device_id);
    frame.trace(", clear_type=%d, ilkn_intf=0", (int)clear_type);
    frame.trace_end();
    return kavo_defect_get(device_id, 0, KAVO_DEFECT_TYPE_ILKN_INTERFACE, clear_type, defect_ptr);
}

#define DEFECT_GET(name, id_type, type, record)                                                                   \
    VELT_ERROR name(const UINT32 device_id, const id_type id, const kavo_defect_transfer_clear_t clear_type,      \
                    record* defect_ptr)                                                                           \
    {                                                                                                             \
        KAVO_STATUS_COMMAND(frame, device_id);                                                                    \
        frame.trace(", %d, %d", (int)id, (int)clear_type);                                                        \
        frame.trace_end();                                                                                        \
        return kavo_defect_get(device_id, id, type, clear_type, defect_ptr);                                      \
    }

DEFECT_GET(kavo_enet_port_defect_get, UINT32, KAVO_DEFECT_TYPE_ENET_PORT, kavo_defect_enet_port_segment_t)
DEFECT_GET(kavo_anlt_defect_get, UINT32, KAVO_DEFECT_TYPE_ANLT, kavo_defect_anlt_chnl_t)
DEFECT_GET(kavo_serdes_port_defect_get, UINT32, KAVO_DEFECT_TYPE_SERDES, kavo_defect_serdes_t)
DEFECT_GET(kavo_dcsu_defect_get, kavo_dcsu_instance_t, KAVO_DEFECT_TYPE_DCSU, kavo_defect_dcsu_t)
DEFECT_GET(kavo_flexe_client_defect_get, UINT32, KAVO_DEFECT_TYPE_FLEXE_CLIENT, kavo_defect_flexe_client_segment_t)
DEFECT_GET(kavo_flexe_group_defect_get, UINT32, KAVO_DEFECT_TYPE_FLEXE_GROUP, kavo_defect_flexe_group_segment_t)
DEFECT_GET(kavo_ilkn_pkt_defect_get, UINT32, KAVO_DEFECT_TYPE_ILKN_PKT_CHNL, kavo_defect_ilkn_pkt_segment_t)

VELT_ERROR kavo_tlic_defect_get(const UINT32 device_id, const kavo_defect_transfer_clear_t clear_type,
                                kavo_defect_tlic_t* defect_ptr)
{
    KAVO_STATUS_COMMAND(frame, device_id);
    frame.trace(", %d", (int)clear_type);
    frame.trace_end();
    return kavo_defect_get(device_id, 0, KAVO_DEFECT_TYPE_TLIC, clear_type, defect_ptr);
}
