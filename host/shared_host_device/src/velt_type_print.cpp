#include "velt_type_print.h"

#include <cstdlib>
#include <cstring>

const char* velt_enum_illegal_text(const char* type_name, const char* constant, int value, char* buffer, UINT32 length)
{
    if (buffer == nullptr || length == 0) return constant;
    std::snprintf(buffer, length, "illegal %s (%d)", type_name, value);
    return buffer;
}

void velt_print_struct_header(FILE* file, const char* name, int indent, int index)
{
    if (index < 0)
        VELT_PRINTF(file, "%*s%s:\n", 4 * indent, "", name);
    else
        VELT_PRINTF(file, "%*s-   # %s[%d]\n", 4 * indent, "", name, index);
}

// Defect records print to the process's standard output, like counter records.
void velt_print_defect_header(const char* name, int indent, int index)
{
    if (index < 0)
        std::printf("%*s%s:\n", 4 * indent, "", name);
    else
        std::printf("%*s-   # %s[%d]\n", 4 * indent, "", name, index);
}

// Counter records print straight to the process's standard output, not through the
// print callout: they are reports for the operator, like the statistics summary.
void velt_print_counts_header(const char* name, int indent, int index)
{
    if (index < 0)
        std::printf("%*s%s:\n", 4 * indent, "", name);
    else
        std::printf("%*s%u:\n", 4 * indent, "", (unsigned)index);
}

static bool counter_selected(kavo_pmon_print_sel_t selection, UINT64 value)
{
    return selection == KAVO_PMON_PRINT_ALL || (selection == KAVO_PMON_PRINT_ALL_NON_ZERO && value != 0);
}

void velt_print_counter(kavo_pmon_print_sel_t selection, int indent, const char* name, UINT64 value, const char* fmt)
{
    if (!counter_selected(selection, value)) return;
    if (std::strcmp(fmt, "%lu") == 0)
        std::printf("%*s%s: %lu\n", 4 * indent, "", name, (unsigned long)value);
    else
        std::printf("%*s%s: %u\n", 4 * indent, "", name, (unsigned)value);
}

template <typename T>
static void print_counter_array(kavo_pmon_print_sel_t selection, int indent, const char* name, const T* values,
                                int count)
{
    bool any = false;
    for (int i = 0; i < count && !any; ++i) any = counter_selected(selection, values[i]);
    if (!any) return;
    std::printf("%*s%s:\n", 4 * indent, "", name);
    for (int i = 0; i < count; ++i)
        if (counter_selected(selection, values[i]))
            std::printf("%*s- %lu    #%s[%d]\n", 4 * indent, "", (unsigned long)values[i], name, i);
}

void velt_print_counter_array(kavo_pmon_print_sel_t selection, int indent, const char* name, const UINT32* values,
                              int count)
{
    print_counter_array(selection, indent, name, values, count);
}

void velt_print_counter_array(kavo_pmon_print_sel_t selection, int indent, const char* name, const UINT64* values,
                              int count)
{
    print_counter_array(selection, indent, name, values, count);
}

bool velt_enum_value_from_text(const velt_enum_table_t& table, const char* text, UINT32* value)
{
    if (text == nullptr || *text == '\0') return false;
    char* end = nullptr;
    const bool hex = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    unsigned long number = std::strtoul(hex ? text + 2 : text, &end, hex ? 16 : 10);
    if (end != nullptr && *end == '\0' && end != (hex ? text + 2 : text)) {
        *value = (UINT32)number;
        return true;
    }
    const size_t plen = std::strlen(table.prefix);
    for (UINT32 i = 0; i < table.count; ++i) {
        const char* name = table.entries[i].name;
        if (std::strcmp(name, text) == 0 ||
            (plen != 0 && std::strncmp(name, table.prefix, plen) == 0 && std::strcmp(name + plen, text) == 0)) {
            *value = table.entries[i].value;
            return true;
        }
    }
    return false;
}
