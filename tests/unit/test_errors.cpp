#include <gtest/gtest.h>

#include "kavo_test_device.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "velt_type_print.h"

extern "C" {
extern const velt_enum_table_t kavo_module_id_t_table;
extern const velt_enum_table_t kavo_err_t_table;
}

namespace
{

/* The entries of a table as "NAME=0x<value>" lines in ascending value order. */
std::vector<std::string> rows_of(const velt_enum_table_t& table)
{
    std::vector<std::pair<UINT32, std::string>> rows;
    for (UINT32 i = 0; i < table.count; ++i) rows.emplace_back(table.entries[i].value, table.entries[i].name);
    std::sort(rows.begin(), rows.end());
    std::vector<std::string> lines;
    for (const auto& [value, name] : rows) {
        char line[128];
        std::snprintf(line, sizeof(line), "%s=0x%x", name.c_str(), value);
        lines.push_back(line);
    }
    return lines;
}

/* The list as the chip's documentation gives it, kept beside the tests. */
std::vector<std::string> documented(const char* name)
{
    const std::string path = kavo_test::types_path(name);
    std::ifstream in(path);
    EXPECT_TRUE(in.good()) << path;
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

/* Names the first entry that differs, so that a changed code is seen by name. */
void expect_same_list(const std::vector<std::string>& table, const std::vector<std::string>& expected)
{
    for (size_t i = 0; i < std::max(table.size(), expected.size()); ++i) {
        const std::string got = i < table.size() ? table[i] : "(none)";
        const std::string want = i < expected.size() ? expected[i] : "(none)";
        if (got != want) {
            ADD_FAILURE() << "entry " << i << ": the library has " << got << ", the documented list " << want;
            return;
        }
    }
}

TEST(Errors, CodesAreAsListedAndEachPrintsAndParsesBack)
{
    // Any added, removed, renamed or renumbered entry is named.
    expect_same_list(rows_of(kavo_err_t_table), documented("kavo_err_t.codes"));
    expect_same_list(rows_of(kavo_module_id_t_table), documented("kavo_module_id_t.codes"));
    EXPECT_EQ(kavo_err_t_table.count, 449u);

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
