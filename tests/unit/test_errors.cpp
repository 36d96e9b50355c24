#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "velt_type_print.h"

extern "C" {
extern const velt_enum_table_t kavo_module_id_t_table;
extern const velt_enum_table_t kavo_err_t_table;
}

namespace
{

/* FNV-1a over "NAME=0x<value>\n" of every entry in ascending value order. */
UINT64 fingerprint(const velt_enum_table_t& table)
{
    std::vector<std::pair<UINT32, std::string>> rows;
    for (UINT32 i = 0; i < table.count; ++i)
        rows.emplace_back(table.entries[i].value, table.entries[i].name);
    std::sort(rows.begin(), rows.end());
    UINT64 h = 0xcbf29ce484222325ull;
    for (const auto& [value, name] : rows) {
        char line[128];
        std::snprintf(line, sizeof(line), "%s=0x%x\n", name.c_str(), value);
        for (const char* p = line; *p != '\0'; ++p)
            h = (h ^ (unsigned char)*p) * 0x100000001b3ull;
    }
    return h;
}

TEST(Errors, AllCodesAreUniqueNamedAndAsListed)
{
    // Fingerprints of the code and module lists as the chip's documentation gives them.
    EXPECT_EQ(kavo_err_t_table.count, 449u);
    EXPECT_EQ(fingerprint(kavo_err_t_table), 0xd9add3ae16a2e79cull);
    EXPECT_EQ(kavo_module_id_t_table.count, 55u);
    EXPECT_EQ(fingerprint(kavo_module_id_t_table), 0x5dea839c0fff6434ull);

    const int per_module[LAST_KAVO_MID] = {26, 4,   10, 2, 2, 0,  0,  6,  6,  4, 10, 7, 5, 3,  3, 2,  20, 2,
                                           2,  2,   3,  2, 2, 36, 12, 18, 24, 8, 5,  2, 3, 27, 5, 10, 4,  4,
                                           8,  103, 4,  5, 3, 2,  1,  11, 12, 0, 0,  0, 0, 0,  0, 0,  0,  19};
    int counted[LAST_KAVO_MID] = {};
    std::set<UINT32> values;
    std::set<std::string> names;
    for (UINT32 i = 0; i < kavo_err_t_table.count; ++i) {
        const velt_enum_entry_t& e = kavo_err_t_table.entries[i];
        EXPECT_TRUE(values.insert(e.value).second) << e.name;
        EXPECT_TRUE(names.insert(e.name).second) << e.name;
        ASSERT_LT(e.value >> 8, (UINT32)LAST_KAVO_MID) << e.name;
        ++counted[e.value >> 8];
        // Round trip: value -> name through both printers, name -> value through the table.
        const kavo_err_t code = static_cast<kavo_err_t>(e.value);
        EXPECT_STREQ(kavo_err_t_print(code, nullptr, 0), e.name);
        EXPECT_EQ(kavo_err_t_print(code), kavo_err_t_print(code, nullptr, 0)); // a constant string
        char buffer[8];
        EXPECT_STREQ(kavo_err_t_suffix_print(code, buffer, sizeof(buffer)), e.name); // no prefix to strip
        UINT32 parsed = ~0u;
        EXPECT_TRUE(velt_enum_value_from_text(kavo_err_t_table, e.name, &parsed));
        EXPECT_EQ(parsed, e.value);
    }
    for (int m = 0; m < LAST_KAVO_MID; ++m) {
        EXPECT_EQ(counted[m], per_module[m]) << kavo_module_id_t_print((kavo_module_id_t)m);
        // Each module's codes follow index 0 one apart.
        for (int i = 0; i < counted[m]; ++i)
            EXPECT_EQ(values.count((UINT32)(m << 8 | i)), 1u) << m << "/" << i;
    }
}

TEST(Errors, DeviationsFromTheNumberingRule)
{
    const std::pair<UINT32, const char*> rows[] = {
        {0x100A, "PE_CANNOT_USE_API_IN_THIS_DEVICE_MODE"}, // module 0x10 goes on with the PE codes
        {0x1013, "PTP_NOT_SUPPORTED_IN_PE_DATAPATH"},
        {0x2601, "RESOURCE_TABLE_LOG_FREE_CHNL_ASSIGN"},
        {0x2800, "FW_COMMON_LOG_CODE_DEBUG"}, // module 0x28 has no start marker
        {0x2B00, "RUNTIME_FEATURES_START"},
        {0x2105, "HTL_ERR_DEVICE_OFFLINE"},
    };
    for (const auto& [value, name] : rows)
        EXPECT_STREQ(kavo_err_t_print((kavo_err_t)value, nullptr, 0), name);
    EXPECT_EQ((UINT32)PE_CANNOT_USE_API_IN_THIS_DEVICE_MODE, 0x100Au);
}

TEST(Errors, IllegalValuesWithAndWithoutBuffer)
{
    char buffer[64];
    const struct {
        UINT32 value;
        const char* text;
    } codes[] = {{0x2110, "illegal kavo_err_t (8464)"},
                 {0x1A, "illegal kavo_err_t (26)"},
                 {0x500, "illegal kavo_err_t (1280)"},
                 {0xFFFFFFFF, "illegal kavo_err_t (-1)"}};
    for (const auto& c : codes) {
        EXPECT_STREQ(kavo_err_t_print((kavo_err_t)c.value, nullptr, 0), "illegal kavo_err_t");
        EXPECT_STREQ(kavo_err_t_print((kavo_err_t)c.value), "illegal kavo_err_t");
        EXPECT_EQ(kavo_err_t_print((kavo_err_t)c.value, buffer, sizeof(buffer)), buffer);
        EXPECT_STREQ(buffer, c.text);
        EXPECT_STREQ(kavo_err_t_suffix_print((kavo_err_t)c.value, buffer, sizeof(buffer)), c.text);
    }
    char small[12];
    EXPECT_STREQ(kavo_err_t_print((kavo_err_t)0x2110, small, sizeof(small)), "illegal kav"); // limited to the length
    EXPECT_STREQ(kavo_module_id_t_print((kavo_module_id_t)55, buffer, sizeof(buffer)), "illegal kavo_module_id_t (55)");
    EXPECT_STREQ(kavo_module_id_t_print((kavo_module_id_t)99), "illegal kavo_module_id_t");
    // The illegal text does not begin with the prefix, so the suffix printer leaves it whole.
    EXPECT_STREQ(kavo_module_id_t_suffix_print((kavo_module_id_t)-3, buffer, sizeof(buffer)),
                 "illegal kavo_module_id_t (-3)");
    EXPECT_STREQ(kavo_module_id_t_suffix_print((kavo_module_id_t)56), "illegal kavo_module_id_t");
}

TEST(Errors, ModuleNamesAndSuffixes)
{
    const struct {
        int value;
        const char* name;
        const char* suffix;
    } rows[] = {{0, "KAVO_MID_BASE", "BASE"},
                {33, "KAVO_MID_HTL", "HTL"},
                {46, "KAVO_MID_MULITTASK", "MULITTASK"},
                {53, "KAVO_MID_ANLT", "ANLT"},
                {54, "LAST_KAVO_MID", "LAST_KAVO_MID"}};
    char buffer[64];
    for (const auto& r : rows) {
        EXPECT_STREQ(kavo_module_id_t_print((kavo_module_id_t)r.value, buffer, sizeof(buffer)), r.name);
        EXPECT_STREQ(kavo_module_id_t_suffix_print((kavo_module_id_t)r.value, buffer, sizeof(buffer)), r.suffix);
        EXPECT_STREQ(kavo_module_id_t_suffix_print((kavo_module_id_t)r.value), r.suffix);
    }
    EXPECT_EQ((int)LAST_KAVO_MID, 54);
}

} // namespace
