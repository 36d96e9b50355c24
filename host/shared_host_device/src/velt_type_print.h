/* Helpers of the generated enumeration and structure printers. */
#ifndef VELT_TYPE_PRINT_H
#define VELT_TYPE_PRINT_H

#include "kavo/kavo_api.h"
#include "velt_customer_os.h"

extern "C" {
/* One named value of an enumeration. */
struct velt_enum_entry_t {
    const char* name;
    UINT32 value;
};
/* Every enumeration's names and values, in declaration order; the printers'
   selection and these tables come from the same definition. */
struct velt_enum_table_t {
    const char* type_name;
    const char* prefix;
    const velt_enum_entry_t* entries;
    UINT32 count;
};
}

/* "illegal <type> (<value>)" into the buffer, or the constant text without one. */
const char* velt_enum_illegal_text(const char* type_name, const char* constant, int value, char* buffer, UINT32 length);
/* "%*s%s:\n", or the list item "%*s-   # %s[%d]\n" for an array element. */
void velt_print_struct_header(FILE* file, const char* name, int indent, int index);
void velt_print_defect_header(const char* name, int indent, int index);
/* Counter records print to standard output (through the print callout), filtered by the selection. */
void velt_print_counts_header(const char* name, int indent, int index);
void velt_print_counter(kavo_pmon_print_sel_t selection, int indent, const char* name, UINT64 value, const char* fmt);
/* "name:" and one "- v    #name[i]" line per selected element; nothing when none is selected. */
void velt_print_counter_array(kavo_pmon_print_sel_t selection, int indent, const char* name, const UINT32* values,
                              int count);
void velt_print_counter_array(kavo_pmon_print_sel_t selection, int indent, const char* name, const UINT64* values,
                              int count);

/* Looks an enumeration value up by name, or by number (decimal or 0x hex). */
bool velt_enum_value_from_text(const velt_enum_table_t& table, const char* text, UINT32* value);

#endif /* VELT_TYPE_PRINT_H */
