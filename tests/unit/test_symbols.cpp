/* libkavo.so.1 exports exactly the functions and objects that the public
   headers declare with KAVO_API. */
#include <elf.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#ifndef KAVO_SHARED_LIBRARY
#error "KAVO_SHARED_LIBRARY (path of libkavo.so.1) is defined by tests/CMakeLists.txt"
#endif

namespace
{

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

/* Names of the defined global symbols of an ELF64 shared object's dynamic table. */
std::set<std::string> exported_symbols(const std::string& path)
{
    const std::string image = read_file(path);
    std::set<std::string> names;
    if (image.size() < sizeof(Elf64_Ehdr) || std::memcmp(image.data(), ELFMAG, SELFMAG) != 0) {
        ADD_FAILURE() << path << " is not an ELF file";
        return names;
    }
    const auto* base = reinterpret_cast<const unsigned char*>(image.data());
    const auto* header = reinterpret_cast<const Elf64_Ehdr*>(base);
    const auto* sections = reinterpret_cast<const Elf64_Shdr*>(base + header->e_shoff);
    for (int s = 0; s < header->e_shnum; ++s) {
        if (sections[s].sh_type != SHT_DYNSYM) continue;
        const char* strings = reinterpret_cast<const char*>(base + sections[sections[s].sh_link].sh_offset);
        const auto* symbols = reinterpret_cast<const Elf64_Sym*>(base + sections[s].sh_offset);
        for (size_t i = 0; i < sections[s].sh_size / sizeof(Elf64_Sym); ++i) {
            const Elf64_Sym& sym = symbols[i];
            const int binding = ELF64_ST_BIND(sym.st_info);
            // Undefined references and the version name (an absolute symbol) are not exports.
            if (sym.st_shndx == SHN_UNDEF || sym.st_shndx == SHN_ABS) continue;
            if (binding != STB_GLOBAL && binding != STB_WEAK && binding != STB_GNU_UNIQUE) continue;
            names.insert(strings + sym.st_name);
        }
    }
    return names;
}

/* The header text without comments and preprocessor lines. */
std::string declarations_only(const std::string& text)
{
    std::string out;
    bool line_start = true;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text.compare(i, 2, "/*") == 0) {
            i = std::min(text.find("*/", i + 2), text.size() - 2) + 1;
            out += ' ';
        } else if (text.compare(i, 2, "//") == 0 || (line_start && text[i] == '#')) {
            // A directive may go on over escaped newlines.
            while (i < text.size() && (text[i] != '\n' || text[i - 1] == '\\'))
                ++i;
            out += '\n';
            line_start = true;
        } else {
            out += text[i];
            if (text[i] == '\n')
                line_start = true;
            else if (!std::isspace((unsigned char)text[i]))
                line_start = false;
        }
    }
    return out;
}

/* Names declared with KAVO_API in every header below the directory: the last
   identifier before the declaration's "(", "[" or ";". */
std::set<std::string> declared_symbols(const std::string& directory)
{
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        if (entry.path().extension() != ".h") continue;
        const std::string text = declarations_only(read_file(entry.path().string()));
        for (size_t at = text.find("KAVO_API"); at != std::string::npos; at = text.find("KAVO_API", at + 1)) {
            const size_t end = text.find_first_of("([;", at + 8);
            if (end == std::string::npos) break;
            size_t last = end;
            while (last > at + 8 && std::isspace((unsigned char)text[last - 1]))
                --last;
            size_t first = last;
            while (first > at + 8 && (std::isalnum((unsigned char)text[first - 1]) || text[first - 1] == '_'))
                --first;
            names.insert(text.substr(first, last - first));
        }
    }
    return names;
}

std::string difference(const std::set<std::string>& a, const std::set<std::string>& b)
{
    std::string out;
    for (const auto& name : a)
        if (b.count(name) == 0) out += "  " + name + "\n";
    return out;
}

TEST(Symbols, ExportsAreExactlyThePublicDeclarations)
{
    const auto exported = exported_symbols(KAVO_SHARED_LIBRARY);
    const auto declared = declared_symbols(KAVO_PUBLIC_INCLUDE_DIR);
    ASSERT_FALSE(exported.empty());
    EXPECT_GT(declared.size(), 50u);
    EXPECT_EQ(difference(exported, declared), "") << "exported but not declared KAVO_API in the public headers";
    EXPECT_EQ(difference(declared, exported), "") << "declared KAVO_API but not exported";
    for (const char* name : {"kavo_option_set", "kavo_assert_handler_set", "kavo_err_t_print"})
        EXPECT_EQ(exported.count(name), 1u) << name;
}

} // namespace
