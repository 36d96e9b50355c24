// Printers of the defect byte, the summary byte and the summary mask. The
// records built of them are printed by the generated printers, which call
// these for every defect; all of them write to standard output.
#include "kavo/kavo_api.h"
#include "velt_customer_os.h"

namespace {

bool shown(const kavo_defect_ive_t& d, kavo_defect_print_filter_t filter)
{
    switch (filter) {
    case KAVO_DEFECT_PRINT_FILTER_I_ASSERTED:
        return d.i;
    case KAVO_DEFECT_PRINT_FILTER_V_ASSERTED:
        return d.v;
    case KAVO_DEFECT_PRINT_FILTER_V_OR_I_ASSERTED:
        return d.v || d.i;
    default:
        return true;
    }
}

void print_ive(const kavo_defect_ive_t& d, const char* name, kavo_defect_print_filter_t filter, int indent,
               int index)
{
    if (!shown(d, filter)) return;
    if (index < 0)
        std::printf("%*s%s: {V: %d, I: %d, E: %d}\n", 4 * indent, "", name, (int)d.v, (int)d.i, (int)d.e);
    else
        std::printf("%*s- {V: %d, I: %d, E: %d}    # %s[%d]\n", 4 * indent, "", (int)d.v, (int)d.i, (int)d.e,
                    name, index);
}

} // namespace

extern "C" {

void kavo_defect_ive_t_print_at(const kavo_defect_ive_t* value, const char* name, kavo_defect_print_filter_t filter,
                                int indent, int index)
{
    print_ive(*value, name, filter, indent, index);
}

void kavo_defect_ive_t_print(const kavo_defect_ive_t* value, kavo_defect_print_filter_t filter)
{
    kavo_defect_ive_t_print_at(value, "kavo_defect_ive_t", filter, 0, -1);
}

// An object's own summary prints as "Summary:"; as an element of the device
// summary it prints like any defect in a list, named by object and id.
void kavo_defect_summary_ive_valid_t_print_at(const kavo_defect_summary_ive_valid_t* value, const char* name,
                                              kavo_defect_print_filter_t filter, int indent, int index)
{
    kavo_defect_ive_t d;
    std::memcpy(static_cast<void*>(&d), value, sizeof(d));
    if (index >= 0) return print_ive(d, name, filter, indent, index);
    if (!shown(d, filter)) return;
    std::printf("%*sSummary: {V: %d, I: %d, E: %d}\n", 4 * indent, "", (int)d.v, (int)d.i, (int)d.e);
}

void kavo_defect_summary_ive_valid_t_print(const kavo_defect_summary_ive_valid_t* value,
                                           kavo_defect_print_filter_t filter)
{
    kavo_defect_summary_ive_valid_t_print_at(value, "kavo_defect_summary_ive_valid_t", filter, 0, -1);
}

// Bit 0 is printed first, bit 23 last.
void kavo_defect_summary_mask_t_print_at(const kavo_defect_summary_mask_t* value, const char*,
                                         kavo_defect_print_filter_t, int indent, int)
{
    char bits[25];
    for (int b = 0; b < 24; ++b)
        bits[b] = (value->active >> b) & 1 ? '1' : '0';
    bits[24] = '\0';
    std::printf("%*sActive Mask [23:0]: {%s}\n", 4 * indent, "", bits);
}

void kavo_defect_summary_mask_t_print(const kavo_defect_summary_mask_t* value, kavo_defect_print_filter_t filter)
{
    kavo_defect_summary_mask_t_print_at(value, "kavo_defect_summary_mask_t", filter, 0, -1);
}

} // extern "C"
