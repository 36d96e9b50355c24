// kavoctl's views of the counters: one object's snapshot, or a watch that
// triggers once a second and shows each period's counts and rates.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "kavo_sim/image.h"
#include "kavoctl.h"

namespace kavoctl {
namespace {

struct object_kind {
    const char* name;
    const char* record;
    bool has_id;
    VELT_ERROR (*get)(UINT32 device, UINT32 id, void* out);
    void (*print)(const void* rec, kavo_pmon_print_sel_t selection);
};

#define KIND(name, T, has_id, call)                                                                                \
    object_kind                                                                                                    \
    {                                                                                                              \
        name, #T, has_id,                                                                                          \
            [](UINT32 d, UINT32 id, void* out) -> VELT_ERROR {                                                     \
                (void)id;                                                                                          \
                return call;                                                                                       \
            },                                                                                                     \
            [](const void* rec, kavo_pmon_print_sel_t sel) { T##_print(static_cast<const T*>(rec), sel); }         \
    }

const object_kind KINDS[] = {
    KIND("enet", kavo_pmon_enet_port_segment_t, true,
         kavo_enet_port_pmon_get(d, id, 0, static_cast<kavo_pmon_enet_port_segment_t*>(out))),
    KIND("ilkn_intf", kavo_pmon_ilkn_intf_t, false, kavo_ilkn_intf_pmon_get(d, 0, static_cast<kavo_pmon_ilkn_intf_t*>(out))),
    KIND("ilkn_pkt", kavo_pmon_ilkn_pkt_t, true, kavo_ilkn_pkt_pmon_get(d, id, 0, static_cast<kavo_pmon_ilkn_pkt_t*>(out))),
    KIND("flexe_client", kavo_pmon_flexe_client_t, true,
         kavo_flexe_client_pmon_get(d, id, 0, static_cast<kavo_pmon_flexe_client_t*>(out))),
    KIND("flexe_group", kavo_pmon_flexe_group_t, true,
         kavo_flexe_group_pmon_get(d, id, 0, static_cast<kavo_pmon_flexe_group_t*>(out))),
};

/* The catalogue's record with each pair of 32-bit halves joined into one count;
   only non-zero counts unless all are asked for. */
nlohmann::json counts_json(const nlohmann::json& in, bool all)
{
    nlohmann::json out = nlohmann::json::object();
    for (auto it = in.begin(); it != in.end(); ++it) {
        const std::string& key = it.key();
        if (it.value().is_object()) {
            out[key] = counts_json(it.value(), all);
            continue;
        }
        if (key.size() > 4 && key.compare(key.size() - 4, 4, "_msb") == 0) continue;
        UINT64 value = it.value().get<UINT64>();
        std::string name = key;
        if (key.size() > 4 && key.compare(key.size() - 4, 4, "_lsb") == 0) {
            name = key.substr(0, key.size() - 4);
            value |= in[name + "_msb"].get<UINT64>() << 32;
        }
        if (all || value != 0 || name == "trigger_count" || name == "period_ms") out[name] = value;
    }
    return out;
}

/* Counts per second over the snapshot's period, beside each count. */
void print_rates(const nlohmann::json& counts, double seconds, int depth)
{
    for (auto it = counts.begin(); it != counts.end(); ++it) {
        if (it.value().is_object()) {
            std::printf("%*s%s:\n", 4 * depth, "", it.key().c_str());
            print_rates(it.value(), seconds, depth + 1);
        } else if (it.key() != "trigger_count" && it.key() != "period_ms") {
            const UINT64 v = it.value().get<UINT64>();
            std::printf("%*s%s: %llu (%.1f/s)\n", 4 * depth, "", it.key().c_str(), (unsigned long long)v,
                        seconds > 0 ? double(v) / seconds : 0.0);
        }
    }
}

int cmd_pmon(const settings& s, const args_t& args)
{
    const char* usage = "pmon OBJECT [ID] [--all|--non-zero] [--watch SECONDS] | pmon trigger";
    if (args.size() == 1 && args[0] == "trigger") {
        if (int failed = device_ready(s)) return failed;
        const VELT_ERROR rc = kavo_pmon_manual_trigger(s.device);
        if (s.json) print_json(result_json(rc));
        return s.json ? (rc == VELT_SUCCESS ? 0 : 1) : finish(rc, "pmon trigger");
    }
    bool all = false;
    UINT32 watch = 0;
    args_t rest;
    for (size_t k = 0; k < args.size(); ++k) {
        if (args[k] == "--all") {
            all = true;
        } else if (args[k] == "--non-zero") {
            all = false;
        } else if (args[k] == "--watch") {
            if (++k == args.size() || !kavo_sim::parse_u32(args[k].c_str(), watch) || watch == 0)
                return usage_error(std::string("--watch needs a number of seconds; ") + usage);
        } else {
            rest.push_back(args[k]);
        }
    }
    const object_kind* kind = nullptr;
    for (const auto& k : KINDS)
        if (!rest.empty() && rest[0] == k.name) kind = &k;
    if (kind == nullptr) return usage_error(std::string(usage) + " (enet, ilkn_intf, ilkn_pkt, flexe_client, flexe_group)");
    UINT32 id = 0;
    if (rest.size() != (kind->has_id ? 2u : 1u) || (kind->has_id && !kavo_sim::parse_u32(rest[1].c_str(), id)))
        return usage_error(std::string("pmon ") + kind->name + (kind->has_id ? " ID" : "") + " [--all|--non-zero]");
    if (int failed = device_ready(s)) return failed;

    alignas(8) UINT8 record[sizeof(kavo_pmon_enet_port_segment_t)] = {};
    const auto sel = all ? KAVO_PMON_PRINT_ALL : KAVO_PMON_PRINT_ALL_NON_ZERO;
    for (UINT32 round = 0; round < (watch ? watch : 1); ++round) {
        VELT_ERROR rc = VELT_SUCCESS;
        if (watch) {
            // One period a second; a device on automatic triggers takes its own.
            std::this_thread::sleep_for(std::chrono::seconds(1));
            kavo_pmon_cfg_t cfg;
            rc = kavo_pmon_cfg_get(s.device, &cfg);
            if (rc == VELT_SUCCESS && !cfg.auto_trigger) rc = kavo_pmon_manual_trigger(s.device);
        }
        if (rc == VELT_SUCCESS) rc = kind->get(s.device, id, record);
        const nlohmann::json counts =
            rc == VELT_SUCCESS ? counts_json(record_json(kind->record, record), all) : nlohmann::json();
        if (s.json) {
            nlohmann::json doc = result_json(rc);
            doc["object"] = kind->name;
            if (kind->has_id) doc["id"] = id;
            if (rc == VELT_SUCCESS) doc["counts"] = counts;
            print_json(doc);
            std::fflush(stdout);
            if (rc != VELT_SUCCESS) return 1;
            continue;
        }
        if (rc != VELT_SUCCESS) return finish(rc, "pmon");
        if (watch) {
            std::printf("trigger %llu, %llu ms:\n", (unsigned long long)counts["trigger_count"].get<UINT64>(),
                        (unsigned long long)counts["period_ms"].get<UINT64>());
            print_rates(counts, counts["period_ms"].get<UINT64>() / 1000.0, 1);
        } else {
            log_to(stdout);
            kind->print(record, sel);
            log_to(stderr);
        }
        std::fflush(stdout);
    }
    return 0;
}

const verb VERBS[] = {
    {"pmon", "OBJECT [ID] [--all|--non-zero] [--watch SECONDS] | trigger",
     "an object's counters (enet, ilkn_intf, ilkn_pkt, flexe_client, flexe_group), or their counts and rates each "
     "second; trigger takes a snapshot",
     cmd_pmon},
};

} // namespace

std::span<const verb> pmon_verbs() { return VERBS; }

} // namespace kavoctl
