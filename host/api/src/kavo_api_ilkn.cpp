/* Interlaken commands written out by hand: the flow-control calendars go in up
   to two requests, transmit first, each a call frame of its own. */
#include "kavo/kavo_api.h"
#include "kavo_command_frame.h"

namespace {

/* One calendar direction (flag 1 transmit, 0 receive); the size counts entries.
   A calendar longer than its record is refused before it is read. */
VELT_ERROR fc_cal_send(UINT32 device_id, kavo_command_frame& frame, const char* name, const kavo_ilkn_fc_cal_t* cal,
                       UINT32 size, UINT32 direction)
{
    frame.trace_record(name, cal);
    frame.trace(", %u", size);
    if (size > KAVO_ILKN_MAX_FC_CAL_ENTRIES) {
        frame.trace_end();
        VELT_RUNTIME_ERROR(device_id, ILKN_ERR_INVALID_ILKN_FC_CAL_LEN);
        return ILKN_ERR_INVALID_ILKN_FC_CAL_LEN;
    }
    frame.request(KAVO_HTL_OPERATION_ILKN_FC_CFG).flag(direction).data(cal, 4 * size);
    return frame.send();
}

}  // namespace

VELT_ERROR kavo_ilkn_fc_set(const UINT32 device_id, kavo_ilkn_fc_cal_t* tx_fc_cal, kavo_ilkn_fc_cal_t* rx_fc_cal,
                            const UINT32 tx_fc_cal_size, const UINT32 rx_fc_cal_size)
{
    VELT_ERROR rc = VELT_SUCCESS;
    if (tx_fc_cal != nullptr) {
        KAVO_COMMAND(frame, device_id);
        rc = fc_cal_send(device_id, frame, "tx_fc_cal", tx_fc_cal, tx_fc_cal_size, 1);
        if (rc != VELT_SUCCESS) return rc;
    }
    if (rx_fc_cal != nullptr) {
        KAVO_COMMAND(frame, device_id);
        rc = fc_cal_send(device_id, frame, "rx_fc_cal", rx_fc_cal, rx_fc_cal_size, 0);
    }
    return rc;
}
