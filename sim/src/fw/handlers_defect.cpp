// Defects of every object, derived from the other models' state.
#include <cstdlib>

#include "fw/firmware.h"

namespace kavo_sim::fw {
namespace {

constexpr UINT8 BIT_I = 0x01;
constexpr UINT8 BIT_V = 0x02;
constexpr UINT8 BIT_E = 0x04;
constexpr UINT8 BIT_VALID = 0x08;

// Bit errors per 10^12 bits from which the receiver reports a high bit error
// ratio (10^-4, where block lock starts to fail) and the FEC a degraded
// symbol error ratio (10^-6).
constexpr UINT32 HI_BER_ERRORS = 100000000;
constexpr UINT32 FEC_DEGRADE_ERRORS = 1000000;
// Clock offset beyond which a SerDes receiver reports it out of range.
constexpr INT32 PPM_LIMIT = 100;

// Offsets of the state-derived defects within their records.
using enet = kavo_defect_enet_port_segment_t;
constexpr size_t PHY = offsetof(enet, phy);
constexpr size_t MAC = offsetof(enet, mac);
constexpr size_t ALARMS = offsetof(enet, alarms);
#define PHY_AT(m) (PHY + offsetof(kavo_defect_enet_phy_chnl_t, m))
#define MAC_AT(m) (MAC + offsetof(kavo_defect_enet_mac_chnl_t, m))
#define ALARM_AT(m) (ALARMS + offsetof(kavo_defect_enet_alarms_proc_chnl_t, m))
#define SERDES_AT(m) offsetof(kavo_defect_serdes_t, m)

/* Bytes 1 .. end - 1 of a record are defects; the summary byte and the padding are not. */
template <class T, size_t PAD = sizeof(T)> std::vector<UINT8> valid_map()
{
    std::vector<UINT8> v(sizeof(T), 0);
    for (size_t k = 1; k < PAD; ++k)
        v[k] = 1;
    return v;
}

} // namespace

bool firmware_view::enet_port(UINT32 chnl) const
{
    // A port with auto-negotiation and link training is an Ethernet port too.
    return chnl < KAVO_NUM_CHANNELS && (fw.device.channels[chnl] == KAVO_SEGMENT_TYPE_ENET_PORT ||
                                        fw.device.channels[chnl] == KAVO_SEGMENT_TYPE_ENET_ANLT);
}
bool firmware_view::link_up(UINT32 chnl) const { return fw.model.datapath.link_up(fw, chnl); }
bool firmware_view::signal_present(UINT32 port) const { return fw.model.serdes.signal_present(fw, port); }
UINT32 firmware_view::serdes_owner(UINT32 port) const
{
    return port < NUM_SERDES_PORTS ? fw.device.serdes_owner[port] : NO_OWNER;
}
UINT32 firmware_view::knob(sim_knob_t k, UINT32 index) const { return fw.knob(k, index); }

defect_model::defect_model()
{
    valid_[KAVO_DEFECT_TYPE_ENET_PORT] = valid_map<enet, offsetof(enet, pad)>();
    valid_[KAVO_DEFECT_TYPE_ILKN_PKT_CHNL] =
        valid_map<kavo_defect_ilkn_pkt_segment_t, offsetof(kavo_defect_ilkn_pkt_segment_t, pad)>();
    valid_[KAVO_DEFECT_TYPE_ILKN_INTERFACE] = valid_map<kavo_defect_ilkn_intf_t, offsetof(kavo_defect_ilkn_intf_t, pad)>();
    valid_[KAVO_DEFECT_TYPE_FLEXE_GROUP] =
        valid_map<kavo_defect_flexe_group_segment_t, offsetof(kavo_defect_flexe_group_segment_t, pad)>();
    valid_[KAVO_DEFECT_TYPE_FLEXE_CLIENT] =
        valid_map<kavo_defect_flexe_client_segment_t, offsetof(kavo_defect_flexe_client_segment_t, pad)>();
    valid_[KAVO_DEFECT_TYPE_SERDES] = valid_map<kavo_defect_serdes_t, offsetof(kavo_defect_serdes_t, pad)>();
    valid_[KAVO_DEFECT_TYPE_TLIC] = valid_map<kavo_defect_tlic_t>();
    valid_[KAVO_DEFECT_TYPE_DCSU] = valid_map<kavo_defect_dcsu_t, offsetof(kavo_defect_dcsu_t, pad)>();
    valid_[KAVO_DEFECT_TYPE_ANLT] = valid_map<kavo_defect_anlt_chnl_t, offsetof(kavo_defect_anlt_chnl_t, pad)>();
    for (UINT32 t = 0; t < NUM_TYPES; ++t) {
        objects_[t].resize(object_count(t));
        for (auto& obj : objects_[t]) {
            reset(t, obj);
            // Objects other than Ethernet ports exist from power-up.
            obj.present = t != KAVO_DEFECT_TYPE_ENET_PORT;
            summarise(obj);
        }
    }
}

UINT32 defect_model::record_size(UINT32 type)
{
    switch (type) {
    case KAVO_DEFECT_TYPE_ENET_PORT: return sizeof(kavo_defect_enet_port_segment_t);
    case KAVO_DEFECT_TYPE_ILKN_PKT_CHNL: return sizeof(kavo_defect_ilkn_pkt_segment_t);
    case KAVO_DEFECT_TYPE_ILKN_INTERFACE: return sizeof(kavo_defect_ilkn_intf_t);
    case KAVO_DEFECT_TYPE_FLEXE_GROUP: return sizeof(kavo_defect_flexe_group_segment_t);
    case KAVO_DEFECT_TYPE_FLEXE_CLIENT: return sizeof(kavo_defect_flexe_client_segment_t);
    case KAVO_DEFECT_TYPE_SERDES: return sizeof(kavo_defect_serdes_t);
    case KAVO_DEFECT_TYPE_TLIC: return sizeof(kavo_defect_tlic_t);
    case KAVO_DEFECT_TYPE_DCSU: return sizeof(kavo_defect_dcsu_t);
    case KAVO_DEFECT_TYPE_ANLT: return sizeof(kavo_defect_anlt_chnl_t);
    default: return 0;
    }
}

UINT32 defect_model::object_count(UINT32 type)
{
    switch (type) {
    case KAVO_DEFECT_TYPE_ENET_PORT: return KAVO_NUM_CHANNELS;
    case KAVO_DEFECT_TYPE_ILKN_PKT_CHNL: return 8;
    case KAVO_DEFECT_TYPE_ILKN_INTERFACE: return 1;
    case KAVO_DEFECT_TYPE_FLEXE_GROUP: return 12;
    case KAVO_DEFECT_TYPE_FLEXE_CLIENT: return 24;
    case KAVO_DEFECT_TYPE_SERDES: return NUM_SERDES_PORTS;
    case KAVO_DEFECT_TYPE_TLIC: return 1;
    case KAVO_DEFECT_TYPE_DCSU: return LAST_KAVO_DCSU_INSTANCE;
    case KAVO_DEFECT_TYPE_ANLT: return KAVO_NUM_CHANNELS;
    default: return 0;
    }
}

void defect_model::reset(UINT32 type, object& obj)
{
    const auto& valid = valid_[type];
    obj.bytes.assign(valid.size(), 0);
    obj.state.assign(valid.size(), 0);
    obj.forced.assign(valid.size(), 0);
    for (size_t k = 0; k < valid.size(); ++k)
        if (valid[k]) obj.bytes[k] = BIT_VALID;
}

void defect_model::summarise(object& obj)
{
    UINT8 s = obj.present ? BIT_VALID : 0;
    for (size_t k = 1; k < obj.bytes.size(); ++k)
        s |= obj.bytes[k] & (BIT_I | BIT_V | BIT_E);
    obj.bytes[0] = s;
}

bool defect_model::settle(object& obj)
{
    // One pass that also summarises (this runs for every object on every request).
    bool latched_enabled = false;
    UINT8 summary = obj.present ? BIT_VALID : 0;
    for (size_t k = 1; k < obj.bytes.size(); ++k) {
        UINT8& b = obj.bytes[k];
        if (b & BIT_VALID) {
            const bool v = obj.state[k] || obj.forced[k];
            if (v && !(b & BIT_V)) {
                b |= BIT_I;
                latched_enabled = latched_enabled || (b & BIT_E);
            }
            b = v ? (b | BIT_V) : (b & ~BIT_V);
        }
        summary |= b & (BIT_I | BIT_V | BIT_E);
    }
    obj.bytes[0] = summary;
    return latched_enabled;
}

void defect_model::derive_enet(const chip_view& chip, UINT32 chnl, object& obj)
{
    // The port's receiver has a signal when every SerDes lane it owns sees one.
    bool signal = true;
    UINT32 bit_errors = 0;
    for (UINT32 p = 0; p < NUM_SERDES_PORTS; ++p) {
        if (chip.serdes_owner(p) != chnl) continue;
        signal = signal && chip.signal_present(p);
        bit_errors = std::max(bit_errors, chip.knob(SIM_KNOB_BIT_ERRORS, p));
    }
    const bool up = chip.link_up(chnl);
    auto& s = obj.state;
    s[PHY_AT(los)] = s[PHY_AT(cdr_lol)] = s[ALARM_AT(ca_los)] = !signal;
    s[PHY_AT(block_lock_lost)] = s[PHY_AT(align_lost)] = s[PHY_AT(fec_align_lost)] = !up;
    s[PHY_AT(local_fault)] = s[PHY_AT(link_down)] = s[ALARM_AT(ca_lf)] = !up;
    // A port that receives a local fault sends a remote fault to its partner.
    s[ALARM_AT(tx_rf_insert)] = !up;
    s[PHY_AT(hi_ber)] = s[ALARM_AT(ca_hi_ber)] = up && bit_errors >= HI_BER_ERRORS;
    s[PHY_AT(fec_degraded_ser)] = s[ALARM_AT(ca_fec_deg)] = up && bit_errors >= FEC_DEGRADE_ERRORS;
    s[MAC_AT(rx_fcs_err)] =
        up && chip.knob(SIM_KNOB_TRAFFIC_LOAD, chnl) != 0 && chip.knob(SIM_KNOB_TRAFFIC_FCS_ERRORS, chnl) != 0;
}

void defect_model::derive_serdes(const chip_view& chip, UINT32 port, object& obj)
{
    const bool signal = chip.signal_present(port);
    const INT32 ppm = INT32(chip.knob(SIM_KNOB_PPM_OFFSET, port));
    auto& s = obj.state;
    s[SERDES_AT(los)] = s[SERDES_AT(cdr_lol)] = !signal;
    s[SERDES_AT(ppm_out_of_range)] = signal && std::abs(ppm) > PPM_LIMIT;
    s[SERDES_AT(bit_err_high)] = signal && chip.knob(SIM_KNOB_BIT_ERRORS, port) >= HI_BER_ERRORS;
}

bool defect_model::update(const chip_view& chip)
{
    bool latched_enabled = false;
    for (UINT32 c = 0; c < KAVO_NUM_CHANNELS; ++c) {
        object& obj = objects_[KAVO_DEFECT_TYPE_ENET_PORT][c];
        const bool present = chip.enet_port(c);
        const bool changed = present != obj.present;
        if (changed) {
            // A port provisioned anew starts with nothing latched or enabled.
            reset(KAVO_DEFECT_TYPE_ENET_PORT, obj);
            obj.present = present;
        }
        if (present) {
            derive_enet(chip, c, obj);
            latched_enabled = settle(obj) || latched_enabled;
        } else if (changed) {
            // Nothing else touches an absent port's record: its summary only
            // changes with its presence (this runs on every request).
            summarise(obj);
        }
    }
    for (UINT32 p = 0; p < NUM_SERDES_PORTS; ++p) {
        object& obj = objects_[KAVO_DEFECT_TYPE_SERDES][p];
        derive_serdes(chip, p, obj);
        latched_enabled = settle(obj) || latched_enabled;
    }
    return latched_enabled;
}

void defect_model::advance(firmware& fw, UINT64)
{
    if (update(firmware_view(fw))) fw.raise_ipi(VELT_IPI_DEFECTS_ENABLED);
}

VELT_ERROR defect_model::find(const chip_view& chip, UINT32 type, UINT32 id, object*& obj)
{
    if (record_size(type) == 0) return DEFECTS_ERR_UNKNOWN_SW_DEFECT;
    if (id >= object_count(type)) return DEFECTS_ERR_UNKNOWN_CHNL_ID;
    if (type == KAVO_DEFECT_TYPE_ENET_PORT && !chip.enet_port(id)) return DEFECTS_ERR_INVALID_CHNL_ID;
    obj = &objects_[type][id];
    if (!obj->present) update(chip); // provisioned since the last update
    return VELT_SUCCESS;
}

VELT_ERROR defect_model::find_defect(const chip_view& chip, UINT32 type, UINT32 id, UINT32 offset, object*& obj)
{
    const VELT_ERROR rc = find(chip, type, id, obj);
    if (rc != VELT_SUCCESS) return rc;
    if (offset >= valid_[type].size() || !valid_[type][offset]) return DEFECTS_ERR_IVE_NOT_VALID;
    return VELT_SUCCESS;
}

VELT_ERROR defect_model::enable_set(const chip_view& chip, UINT32 type, UINT32 id, const UINT8* enables, UINT32 size,
                                    bool& latched_enabled)
{
    object* obj = nullptr;
    const VELT_ERROR rc = find(chip, type, id, obj);
    if (rc != VELT_SUCCESS) return rc;
    if (size != record_size(type)) return KAVO_FW_ERR_INVALID_PARAMETERS;
    latched_enabled = false;
    for (size_t k = 1; k < size; ++k) {
        UINT8& b = obj->bytes[k];
        if (!(b & BIT_VALID)) continue;
        const bool e = enables[k] & BIT_E;
        latched_enabled = latched_enabled || (e && !(b & BIT_E) && (b & BIT_I));
        b = e ? (b | BIT_E) : (b & ~BIT_E);
    }
    summarise(*obj);
    return VELT_SUCCESS;
}

VELT_ERROR defect_model::e_set(const chip_view& chip, UINT32 type, UINT32 id, UINT32 offset, bool enable,
                               bool& latched_enabled)
{
    object* obj = nullptr;
    const VELT_ERROR rc = find_defect(chip, type, id, offset, obj);
    if (rc != VELT_SUCCESS) return rc;
    UINT8& b = obj->bytes[offset];
    latched_enabled = enable && !(b & BIT_E) && (b & BIT_I);
    b = enable ? (b | BIT_E) : (b & ~BIT_E);
    summarise(*obj);
    return VELT_SUCCESS;
}

VELT_ERROR defect_model::v_set(const chip_view& chip, UINT32 type, UINT32 id, UINT32 offset, bool force,
                               bool& latched_enabled)
{
    object* obj = nullptr;
    const VELT_ERROR rc = find_defect(chip, type, id, offset, obj);
    if (rc != VELT_SUCCESS) return rc;
    obj->forced[offset] = force;
    latched_enabled = settle(*obj);
    return VELT_SUCCESS;
}

VELT_ERROR defect_model::get(const chip_view& chip, UINT32 type, UINT32 id, UINT32 clear, UINT8* out)
{
    object* obj = nullptr;
    const VELT_ERROR rc = find(chip, type, id, obj);
    if (rc != VELT_SUCCESS) return rc;
    if (clear >= LAST_KAVO_DEFECT_CLEAR) return KAVO_FW_ERR_INVALID_PARAMETERS;
    std::memcpy(out, obj->bytes.data(), obj->bytes.size());
    for (size_t k = 1; k < obj->bytes.size(); ++k) {
        UINT8& b = obj->bytes[k];
        const bool enabled = b & BIT_E;
        const bool cleared = clear == KAVO_DEFECT_CLEAR_ALL || (clear == KAVO_DEFECT_CLEAR_ENABLED && enabled) ||
                             (clear == KAVO_DEFECT_CLEAR_DISABLED && !enabled);
        if (cleared) b &= ~BIT_I;
    }
    summarise(*obj);
    return VELT_SUCCESS;
}

void defect_model::summary(kavo_defect_device_summary_t& out) const
{
    auto put = [this](kavo_defect_summary_ive_valid_t* dst, UINT32 type) {
        for (const object& obj : objects_[type])
            std::memcpy(static_cast<void*>(dst++), obj.bytes.data(), 1);
    };
    put(&out.ilkn_intf, KAVO_DEFECT_TYPE_ILKN_INTERFACE);
    put(out.ilkn_chnl, KAVO_DEFECT_TYPE_ILKN_PKT_CHNL);
    put(out.enet_port, KAVO_DEFECT_TYPE_ENET_PORT);
    put(out.flexe_client, KAVO_DEFECT_TYPE_FLEXE_CLIENT);
    put(out.flexe_group, KAVO_DEFECT_TYPE_FLEXE_GROUP);
    put(out.serdes, KAVO_DEFECT_TYPE_SERDES);
    put(&out.tlic, KAVO_DEFECT_TYPE_TLIC);
    put(out.dcsu, KAVO_DEFECT_TYPE_DCSU);
    put(out.anlt, KAVO_DEFECT_TYPE_ANLT);
}

// Handlers.

namespace {

bool is_bool(UINT32 v) { return v <= 1; }

void finish(firmware& fw, bool latched_enabled)
{
    if (latched_enabled) fw.raise_ipi(VELT_IPI_DEFECTS_ENABLED);
}

void enable_set(firmware& fw, const request& req, reply& rep)
{
    bool latched = false;
    rep.result = fw.model.defect.enable_set(firmware_view(fw), req.info.mode, req.info.element_id, req.data.data(),
                                            UINT32(req.data.size()), latched);
    finish(fw, latched);
}

// The single-defect requests carry the defect's offset in the size word and no payload.
void e_set(firmware& fw, const request& req, reply& rep)
{
    if (!is_bool(req.info.flag)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    bool latched = false;
    rep.result = fw.model.defect.e_set(firmware_view(fw), req.info.mode, req.info.element_id, req.data_size,
                                       req.info.flag != 0, latched);
    finish(fw, latched);
}

void v_set(firmware& fw, const request& req, reply& rep)
{
    if (!is_bool(req.info.flag)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    bool latched = false;
    rep.result = fw.model.defect.v_set(firmware_view(fw), req.info.mode, req.info.element_id, req.data_size,
                                       req.info.flag != 0, latched);
    finish(fw, latched);
}

// The record read carries the defect type in the size word.
void get(firmware& fw, const request& req, reply& rep)
{
    UINT8 record[defect_model::MAX_RECORD];
    rep.result = fw.model.defect.get(firmware_view(fw), req.data_size, req.info.element_id, req.info.mode, record);
    if (rep.result == VELT_SUCCESS)
        rep.data.assign(record, record + defect_model::record_size(req.data_size));
}

void summary_get(firmware& fw, const request&, reply& rep)
{
    kavo_defect_device_summary_t s;
    fw.model.defect.summary(s);
    rep.record(s);
}

constexpr handler HANDLERS[] = {
    {KAVO_HTL_OPERATION_DEFECT_ENABLE_SET, "defect_enable_set", enable_set},
    {KAVO_HTL_OPERATION_DEFECT_E_SET, "defect_e_set", e_set},
    {KAVO_HTL_OPERATION_DEFECT_V_SET, "defect_v_set", v_set},
    {KAVO_HTL_OPERATION_DEFECT_SUMMARY_GET, "defect_summary_get", summary_get},
    {KAVO_HTL_OPERATION_DEFECT_GET, "defect_get", get},
};

} // namespace

std::span<const handler> defect_handlers() { return HANDLERS; }

} // namespace kavo_sim::fw
