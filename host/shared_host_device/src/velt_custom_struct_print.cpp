// Records whose printers are written by hand: time stamps print as durations
// with their unit, through the timing statistics' value formatter.
#include "velt_type_print.h"
#include "velt_stat.h"

extern "C" {

void kavo_enet_anlt_chnl_ts_t_print_at(const kavo_enet_anlt_chnl_ts_t* value, const char* name, FILE* file,
                                       int indent, int index)
{
    velt_print_struct_header(file, name, indent, index);
    const int pad = 4 * (indent + 1);
    char text[2 * VELT_STAT_NUMBER_SIZE];
    const struct {
        const char* name;
        UINT32 us;
    } scalars[] = {{"start_us", value->start_us},
                   {"an_done_us", value->an_done_us},
                   {"lt_done_us", value->lt_done_us},
                   {"link_up_us", value->link_up_us}};
    for (const auto& s : scalars)
        VELT_PRINTF(file, "%*s%s: %s\n", pad, "", s.name, velt_stat_print_val(s.us, text));
    const UINT32 n = sizeof(value->lt_lane_done_us) / sizeof(value->lt_lane_done_us[0]);
    VELT_PRINTF(file, "%*s%s: [", pad, "", "lt_lane_done_us");
    for (UINT32 i = 0; i + 1 < n; ++i)
        VELT_PRINTF(file, "%s, ", velt_stat_print_val(value->lt_lane_done_us[i], text));
    VELT_PRINTF(file, "%s]\n", velt_stat_print_val(value->lt_lane_done_us[n - 1], text));
}

void kavo_enet_anlt_chnl_ts_t_print(const kavo_enet_anlt_chnl_ts_t* value, FILE* file)
{
    kavo_enet_anlt_chnl_ts_t_print_at(value, "kavo_enet_anlt_chnl_ts_t", file, 0, -1);
}

} // extern "C"
