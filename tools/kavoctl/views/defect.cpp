// kavoctl's views of the defect family: one object's defects, filtered, with
// the latched bits cleared as asked, and the device summary.
#include <cstdio>
#include <cstring>

#include "kavo_sim/image.h"
#include "kavoctl.h"

namespace kavoctl {
namespace {

/* One kind of object: how to read its record and print it. */
struct object_kind {
    const char* name;
    const char* record;
    bool has_id;
    VELT_ERROR (*get)(UINT32 device, UINT32 id, kavo_defect_transfer_clear_t clear, void* out);
    void (*print)(const void* rec, kavo_defect_print_filter_t filter);
};

#define KIND(name, T, has_id, call)                                                                                 \
    object_kind                                                                                                     \
    {                                                                                                               \
        name, #T, has_id,                                                                                           \
            [](UINT32 d, UINT32 id, kavo_defect_transfer_clear_t c, void* out) -> VELT_ERROR {                      \
                (void)id;                                                                                           \
                return call;                                                                                        \
            },                                                                                                      \
            [](const void* rec, kavo_defect_print_filter_t f) { T##_print(static_cast<const T*>(rec), f); }         \
    }

const object_kind KINDS[] = {
    KIND("enet", kavo_defect_enet_port_segment_t, true,
         kavo_enet_port_defect_get(d, id, c, static_cast<kavo_defect_enet_port_segment_t*>(out))),
    KIND("ilkn_pkt", kavo_defect_ilkn_pkt_segment_t, true,
         kavo_ilkn_pkt_defect_get(d, id, c, static_cast<kavo_defect_ilkn_pkt_segment_t*>(out))),
    KIND("ilkn_intf", kavo_defect_ilkn_intf_t, false,
         kavo_ilkn_intf_defect_get(d, c, static_cast<kavo_defect_ilkn_intf_t*>(out))),
    KIND("flexe_group", kavo_defect_flexe_group_segment_t, true,
         kavo_flexe_group_defect_get(d, id, c, static_cast<kavo_defect_flexe_group_segment_t*>(out))),
    KIND("flexe_client", kavo_defect_flexe_client_segment_t, true,
         kavo_flexe_client_defect_get(d, id, c, static_cast<kavo_defect_flexe_client_segment_t*>(out))),
    KIND("serdes", kavo_defect_serdes_t, true,
         kavo_serdes_port_defect_get(d, id, c, static_cast<kavo_defect_serdes_t*>(out))),
    KIND("tlic", kavo_defect_tlic_t, false, kavo_tlic_defect_get(d, c, static_cast<kavo_defect_tlic_t*>(out))),
    KIND("dcsu", kavo_defect_dcsu_t, true,
         kavo_dcsu_defect_get(d, kavo_dcsu_instance_t(id), c, static_cast<kavo_defect_dcsu_t*>(out))),
    KIND("anlt", kavo_defect_anlt_chnl_t, true,
         kavo_anlt_defect_get(d, id, c, static_cast<kavo_defect_anlt_chnl_t*>(out))),
};

bool shown(UINT8 byte, kavo_defect_print_filter_t filter)
{
    const bool i = byte & 1, v = byte & 2;
    switch (filter) {
    case KAVO_DEFECT_PRINT_FILTER_I_ASSERTED: return i;
    case KAVO_DEFECT_PRINT_FILTER_V_ASSERTED: return v;
    case KAVO_DEFECT_PRINT_FILTER_V_OR_I_ASSERTED: return v || i;
    default: return true;
    }
}

/* The catalogue shows a defect byte as {"value": n}: here it becomes its bits,
   and defects the filter does not show are left out. */
nlohmann::json defects_json(const nlohmann::json& in, kavo_defect_print_filter_t filter)
{
    if (in.is_object() && in.size() == 1 && in.contains("value")) {
        const UINT8 b = in["value"].get<UINT8>();
        if (!shown(b, filter)) return nullptr;
        return {{"v", (b >> 1) & 1}, {"i", b & 1}, {"e", (b >> 2) & 1}, {"valid", (b >> 3) & 1}};
    }
    if (!in.is_object() && !in.is_array()) return nullptr; // padding
    nlohmann::json out = in.is_object() ? nlohmann::json::object() : nlohmann::json::array();
    if (in.is_object()) {
        for (auto it = in.begin(); it != in.end(); ++it) {
            nlohmann::json v = defects_json(it.value(), filter);
            if (!v.is_null() && !v.empty()) out[it.key()] = v;
        }
    } else {
        for (size_t k = 0; k < in.size(); ++k) {
            nlohmann::json v = defects_json(in[k], filter);
            if (!v.is_null() && !v.empty()) out[std::to_string(k)] = v;
        }
    }
    return out;
}

struct options {
    kavo_defect_print_filter_t filter = KAVO_DEFECT_PRINT_FILTER_ALL;
    kavo_defect_transfer_clear_t clear = KAVO_DEFECT_CLEAR_NONE;
    args_t rest;
};

bool parse(const args_t& args, options& o, std::string& why)
{
    static const struct {
        const char* name;
        kavo_defect_print_filter_t filter;
    } filters[] = {{"all", KAVO_DEFECT_PRINT_FILTER_ALL},
                   {"i", KAVO_DEFECT_PRINT_FILTER_I_ASSERTED},
                   {"v", KAVO_DEFECT_PRINT_FILTER_V_ASSERTED},
                   {"vi", KAVO_DEFECT_PRINT_FILTER_V_OR_I_ASSERTED}};
    static const struct {
        const char* name;
        kavo_defect_transfer_clear_t clear;
    } clears[] = {{"all", KAVO_DEFECT_CLEAR_ALL},
                  {"enabled", KAVO_DEFECT_CLEAR_ENABLED},
                  {"disabled", KAVO_DEFECT_CLEAR_DISABLED},
                  {"none", KAVO_DEFECT_CLEAR_NONE}};
    for (size_t k = 0; k < args.size(); ++k) {
        const std::string& a = args[k];
        if (a != "--filter" && a != "--clear") {
            o.rest.push_back(a);
            continue;
        }
        if (++k == args.size()) return why = a + " needs a value", false;
        bool found = false;
        if (a == "--filter") {
            for (const auto& f : filters)
                if (args[k] == f.name) o.filter = f.filter, found = true;
        } else {
            for (const auto& c : clears)
                if (args[k] == c.name) o.clear = c.clear, found = true;
        }
        if (!found) return why = "unknown " + a.substr(2) + " " + args[k], false;
    }
    return true;
}

int show_summary(const settings& s, const options& o)
{
    kavo_defect_device_summary_t sum;
    const VELT_ERROR rc = kavo_defect_summary_get(s.device, &sum);
    if (s.json) {
        nlohmann::json doc = result_json(rc);
        if (rc == VELT_SUCCESS)
            doc["summary"] = defects_json(record_json("kavo_defect_device_summary_t", sum), o.filter);
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (rc == VELT_SUCCESS) {
        log_to(stdout);
        kavo_defect_device_summary_t_print(&sum, o.filter);
        log_to(stderr);
    }
    return finish(rc, "defects summary");
}

int cmd_defects(const settings& s, const args_t& args)
{
    options o;
    std::string why;
    const char* usage = "defects [summary | OBJECT [ID]] [--filter all|i|v|vi] [--clear all|enabled|disabled|none]";
    if (!parse(args, o, why)) return usage_error(why + "; " + usage);
    if (o.rest.empty() || (o.rest.size() == 1 && o.rest[0] == "summary")) {
        if (int failed = device_ready(s)) return failed;
        return show_summary(s, o);
    }
    const object_kind* kind = nullptr;
    for (const auto& k : KINDS)
        if (o.rest[0] == k.name) kind = &k;
    if (kind == nullptr) {
        std::string names;
        for (const auto& k : KINDS) names += std::string(names.empty() ? "" : ", ") + k.name;
        return usage_error("unknown object " + o.rest[0] + " (" + names + ")");
    }
    UINT32 id = 0;
    if (o.rest.size() != (kind->has_id ? 2u : 1u) ||
        (kind->has_id && !kavo_sim::parse_u32(o.rest[1].c_str(), id)))
        return usage_error(std::string("defects ") + kind->name + (kind->has_id ? " ID" : "") + " [--filter ...]");
    if (int failed = device_ready(s)) return failed;
    alignas(8) UINT8 record[sizeof(kavo_defect_flexe_group_segment_t)] = {};
    const VELT_ERROR rc = kind->get(s.device, id, o.clear, record);
    if (s.json) {
        nlohmann::json doc = result_json(rc);
        doc["object"] = kind->name;
        if (kind->has_id) doc["id"] = id;
        if (rc == VELT_SUCCESS) doc["defects"] = defects_json(record_json(kind->record, record), o.filter);
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (rc == VELT_SUCCESS) {
        log_to(stdout);
        kind->print(record, o.filter);
        log_to(stderr);
    }
    return finish(rc, "defects");
}

const verb VERBS[] = {
    {"defects", "[summary | OBJECT [ID]] [--filter all|i|v|vi] [--clear all|enabled|disabled|none]",
     "an object's defects (enet, ilkn_pkt, ilkn_intf, flexe_group, flexe_client, serdes, tlic, dcsu, anlt) or the "
     "device summary",
     cmd_defects},
};

} // namespace

std::span<const verb> defect_verbs() { return VERBS; }

} // namespace kavoctl
