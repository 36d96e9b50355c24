#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

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

TEST(Errors, CodesAreAsListedAndEachPrintsAndParsesBack)
{
    // Fingerprints of the code and module lists as the chip's documentation gives them:
    // any added, removed, renamed or renumbered entry changes them.
    EXPECT_EQ(kavo_err_t_table.count, 449u);
    EXPECT_EQ(fingerprint(kavo_err_t_table), 0xd9add3ae16a2e79cull);
    EXPECT_EQ(kavo_module_id_t_table.count, 55u);
    EXPECT_EQ(fingerprint(kavo_module_id_t_table), 0x5dea839c0fff6434ull);

    for (UINT32 i = 0; i < kavo_err_t_table.count; ++i) {
        const velt_enum_entry_t& e = kavo_err_t_table.entries[i];
        const kavo_err_t code = static_cast<kavo_err_t>(e.value);
        EXPECT_STREQ(kavo_err_t_print(code, nullptr, 0), e.name);
        char buffer[8];
        EXPECT_STREQ(kavo_err_t_suffix_print(code, buffer, sizeof(buffer)), e.name); // no common prefix to strip
        UINT32 parsed = ~0u;
        EXPECT_TRUE(velt_enum_value_from_text(kavo_err_t_table, e.name, &parsed));
        EXPECT_EQ(parsed, e.value);
    }
}

TEST(Errors, ValuesBetweenTheCodesAreIllegal)
{
    // A gap inside a module, below the first module, a module without codes, all bits.
    const std::pair<UINT32, const char*> codes[] = {{0x2110, "illegal kavo_err_t (8464)"},
                                                    {0x1A, "illegal kavo_err_t (26)"},
                                                    {0x500, "illegal kavo_err_t (1280)"},
                                                    {0xFFFFFFFF, "illegal kavo_err_t (-1)"}};
    char buffer[64];
    for (const auto& [value, text] : codes) {
        EXPECT_STREQ(kavo_err_t_print((kavo_err_t)value), "illegal kavo_err_t");
        EXPECT_STREQ(kavo_err_t_print((kavo_err_t)value, buffer, sizeof(buffer)), text);
        EXPECT_STREQ(kavo_err_t_suffix_print((kavo_err_t)value, buffer, sizeof(buffer)), text);
    }
    EXPECT_STREQ(kavo_module_id_t_print((kavo_module_id_t)55, buffer, sizeof(buffer)), "illegal kavo_module_id_t (55)");
}

} // namespace
