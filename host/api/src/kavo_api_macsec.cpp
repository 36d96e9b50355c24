/* MACsec commands whose trace depends on the record: the rule's packet type
   picks the union member printed, the id range of the vport or SA picks the
   flow-control member (egress vports 0..767 and SAs 0..1535, ingress above).
   Each branch, the refused null record included, counts in its own statistics
   object under the command's name. The regular commands are generated. */
#include "kavo/kavo_api.h"
#include "kavo_command_frame.h"

namespace {

constexpr UINT32 LAST_EGRESS_VPORT = KAVO_MACSEC_NUM_VPORTS - 1;
constexpr UINT32 LAST_EGRESS_SA = KAVO_MACSEC_NUM_SAS - 1;
constexpr const char* NULL_INPUT = " NULL Pointer supplied for Input parameter.\n";
constexpr const char* NULL_OUTPUT = " NULL Pointer supplied for Output parameter\n";

/* Sends a request that creates an object: its id comes from response.value. */
VELT_ERROR send_create(kavo_command_frame& frame, UINT32* id_ptr)
{
    const VELT_ERROR rc = frame.send_for_results();
    if (frame.response().result != VELT_SUCCESS) return frame.response().result;
    *id_ptr = frame.response().value;
    return rc;
}

/* The flow-control member of an SA record that applies to its direction. */
void trace_flow_control(kavo_command_frame& frame, const kavo_macsec_sa_config_t& sa, bool ingress)
{
    if (ingress)
        frame.trace_record("\nkavo_macsec_ingress_sa_flow_control_t", &sa.sa_type.ingress);
    else
        frame.trace_record("\nkavo_macsec_egress_sa_flow_control_t", &sa.sa_type.egress);
}

VELT_ERROR rule_add_send(kavo_command_frame& frame, UINT32 vport_id, kavo_macsec_rule_config_t* rule_config,
                         UINT32* rule_id_ptr)
{
    frame.request(KAVO_HTL_OPERATION_MACSEC_RULE_ADD).parent(vport_id).data(rule_config, 52);
    return send_create(frame, rule_id_ptr);
}

VELT_ERROR sa_send(kavo_command_frame& frame, kavo_htl_operation_t op, UINT32 parent, kavo_macsec_sa_config_t* sa,
                   UINT32* id_ptr)
{
    frame.request(op).parent(parent).data(sa, 100);
    return send_create(frame, id_ptr);
}

} // namespace

KAVO_STATIC_ASSERT(sizeof(kavo_macsec_rule_config_t) == 52, "a rule travels as 52 bytes");
KAVO_STATIC_ASSERT(sizeof(kavo_macsec_sa_config_t) == 100, "an SA travels as 100 bytes");
KAVO_STATIC_ASSERT(sizeof(kavo_macsec_sa_update_t) == 104, "an SA update travels as 104 bytes");

VELT_ERROR kavo_macsec_rule_add(const UINT32 device_id, const UINT32 vport_id, kavo_macsec_rule_config_t* rule_config,
                                UINT32* rule_id_ptr)
{
    if (rule_config == nullptr) {
        KAVO_COMMAND(frame, device_id);
        frame.trace(", vport_id = %d", vport_id);
        KAVO_POINTER_MISSING(frame, rule_config, MACSEC_LOG_DEBUG, NULL_INPUT);
        return MACSEC_ERR_INVALID_PARAMETERS;
    }
    switch (rule_config->packet_type) {
    case KAVO_MACSEC_PACKET_TYPE_OTHER: {
        KAVO_COMMAND(frame, device_id);
        frame.trace(", vport_id = %d", vport_id);
        frame.trace_record("\nkavo_macsec_rule_config_t", rule_config);
        frame.trace_record("\nkavo_macsec_rule_config_others_t", &rule_config->type.others);
        return rule_add_send(frame, vport_id, rule_config, rule_id_ptr);
    }
    case KAVO_MACSEC_PACKET_TYPE_PBB: {
        KAVO_COMMAND(frame, device_id);
        frame.trace(", vport_id = %d", vport_id);
        frame.trace_record("\nkavo_macsec_rule_config_t", rule_config);
        frame.trace_record("\nkavo_macsec_rule_config_pbb_t", &rule_config->type.pbb);
        return rule_add_send(frame, vport_id, rule_config, rule_id_ptr);
    }
    case KAVO_MACSEC_PACKET_TYPE_MPLS: {
        KAVO_COMMAND(frame, device_id);
        frame.trace(", vport_id = %d", vport_id);
        frame.trace_record("\nkavo_macsec_rule_config_t", rule_config);
        frame.trace_record("\nkavo_macsec_rule_config_mpls_t", &rule_config->type.mpls);
        return rule_add_send(frame, vport_id, rule_config, rule_id_ptr);
    }
    default: {
        KAVO_COMMAND(frame, device_id);
        frame.trace(", vport_id = %d", vport_id);
        frame.trace_record("\nkavo_macsec_rule_config_t", rule_config);
        return rule_add_send(frame, vport_id, rule_config, rule_id_ptr);
    }
    }
}

VELT_ERROR kavo_macsec_sa_add(const UINT32 device_id, const UINT32 vport_id, kavo_macsec_sa_config_t* sa_params,
                              UINT32* sa_id_ptr)
{
    if (sa_params == nullptr) {
        KAVO_COMMAND(frame, device_id);
        frame.trace(", vport_id = %d", vport_id);
        KAVO_POINTER_MISSING(frame, sa_params, MACSEC_LOG_DEBUG, NULL_INPUT);
        return MACSEC_ERR_INVALID_PARAMETERS;
    }
    if (vport_id > LAST_EGRESS_VPORT) {
        KAVO_COMMAND(frame, device_id);
        frame.trace(", vport_id = %d", vport_id);
        frame.trace_record("\nkavo_macsec_sa_config_t", sa_params);
        trace_flow_control(frame, *sa_params, true);
        return sa_send(frame, KAVO_HTL_OPERATION_MACSEC_SA_ADD, vport_id, sa_params, sa_id_ptr);
    }
    KAVO_COMMAND(frame, device_id);
    frame.trace(", vport_id = %d", vport_id);
    frame.trace_record("\nkavo_macsec_sa_config_t", sa_params);
    trace_flow_control(frame, *sa_params, false);
    return sa_send(frame, KAVO_HTL_OPERATION_MACSEC_SA_ADD, vport_id, sa_params, sa_id_ptr);
}

VELT_ERROR kavo_macsec_sa_chain(const UINT32 device_id, const UINT32 active_sa_id,
                                kavo_macsec_sa_config_t* chain_sa_params, UINT32* chain_sa_id_ptr)
{
    if (chain_sa_params == nullptr) {
        KAVO_COMMAND(frame, device_id);
        frame.trace(", active_sa_id = %d", active_sa_id);
        KAVO_POINTER_MISSING(frame, chain_sa_params, MACSEC_LOG_DEBUG, NULL_INPUT);
        return MACSEC_ERR_INVALID_PARAMETERS;
    }
    if (active_sa_id > LAST_EGRESS_SA) {
        KAVO_COMMAND(frame, device_id);
        frame.trace(", active_sa_id = %d", active_sa_id);
        frame.trace_record("\nkavo_macsec_sa_config_t", chain_sa_params);
        trace_flow_control(frame, *chain_sa_params, true);
        return sa_send(frame, KAVO_HTL_OPERATION_MACSEC_SA_CHAIN, active_sa_id, chain_sa_params, chain_sa_id_ptr);
    }
    KAVO_COMMAND(frame, device_id);
    frame.trace(", active_sa_id = %d", active_sa_id);
    frame.trace_record("\nkavo_macsec_sa_config_t", chain_sa_params);
    trace_flow_control(frame, *chain_sa_params, false);
    return sa_send(frame, KAVO_HTL_OPERATION_MACSEC_SA_CHAIN, active_sa_id, chain_sa_params, chain_sa_id_ptr);
}

VELT_ERROR kavo_macsec_sa_update(const UINT32 device_id, const UINT32 sa_id, kavo_macsec_sa_update_t* sa_params)
{
    if (sa_params == nullptr) {
        KAVO_COMMAND(frame, device_id);
        frame.trace(", sa_id = %d", sa_id);
        KAVO_POINTER_MISSING(frame, sa_params, MACSEC_LOG_DEBUG, NULL_INPUT);
        return MACSEC_ERR_INVALID_PARAMETERS;
    }
    if (sa_id > LAST_EGRESS_SA) {
        KAVO_COMMAND(frame, device_id);
        frame.trace(", sa_id = %d", sa_id);
        frame.trace_record("\nkavo_macsec_sa_update_t", sa_params);
        trace_flow_control(frame, sa_params->cfg, true);
        frame.request(KAVO_HTL_OPERATION_MACSEC_SA_UPDATE).element(sa_id).data(sa_params, 104);
        return frame.send();
    }
    KAVO_COMMAND(frame, device_id);
    frame.trace(", sa_id = %d", sa_id);
    frame.trace_record("\nkavo_macsec_sa_update_t", sa_params);
    trace_flow_control(frame, sa_params->cfg, false);
    frame.request(KAVO_HTL_OPERATION_MACSEC_SA_UPDATE).element(sa_id).data(sa_params, 104);
    return frame.send();
}

VELT_ERROR kavo_macsec_fips_test(const UINT32 device_id, const UINT32 chnl_id,
                                 const kavo_macsec_device_direction_t direction, UINT8* in_packet,
                                 const UINT32 in_packet_size, const UINT32 bypass_length, UINT8* out_packet,
                                 UINT32* out_packet_size)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", 0x%x, %d, [in_packet=0x%p], %u, %u, [out_packet=0x%p], [out_packet_size=0x%p]", chnl_id,
                (int)direction, (const void*)in_packet, in_packet_size, bypass_length, (const void*)out_packet,
                (const void*)out_packet_size);
    if (KAVO_POINTER_MISSING(frame, in_packet, MACSEC_LOG_DEBUG, NULL_INPUT) ||
        KAVO_POINTER_MISSING(frame, out_packet, MACSEC_LOG_DEBUG, NULL_OUTPUT) ||
        KAVO_POINTER_MISSING(frame, out_packet_size, MACSEC_LOG_DEBUG, NULL_OUTPUT))
        return MACSEC_ERR_INVALID_PARAMETERS;
    // The frame travels in whole words; the firmware reads in_packet_size bytes of it.
    frame.request(KAVO_HTL_OPERATION_MACSEC_FIPS_TEST)
        .parent(chnl_id)
        .element(in_packet_size)
        .flag((UINT32)direction)
        .mode(bypass_length)
        .data(in_packet, (in_packet_size + 3) & ~3u)
        .reply(out_packet, *out_packet_size);
    const VELT_ERROR rc = frame.send();
    if (rc == VELT_SUCCESS) *out_packet_size = frame.response().data_size;
    return rc;
}
