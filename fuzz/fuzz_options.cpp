// The option parser on arbitrary argument text: every option kind is
// registered once, the input is parsed as a ParseString text through the
// non-exiting path and, split at its first newline, as one name and value
// for kavo_option_set. Every option is reset after each input.
#include <cstddef>
#include <cstdint>
#include <string>

#include "kavo_fuzz_support.h"
#include "velt_cmd_line_options.h"
#include "velt_library_options.h"

namespace {
struct every_kind {
    IntOption i{"i", ""};
    UintOption u{"u", ""};
    DoubleOption d{"d", ""};
    StringListOption sl{"sl", ""};
    OptionFreeStringListOption fl{"fl", ""};
    IntListOption il{"il", "", 3};
    IntRangeOption ir{"ir", ""};
    EnumOption e{"e", "", 0, {{1, "one", ""}, {2, "two", ""}}};
    EnumPairOption ep{"ep", "", {0, 0}, {{1, "a", ""}}, {{2, "b", ""}}};
    AliasOption a{"a", "", "verbosity"};
    AliasOption loop{"loop", "", "loop"};
    AliasListOption al{"al", "", {"notimeout", "a=7", "il=1..9"}};
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    kavo_fuzz::install();
    static every_kind options;
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string error;
    auto& registry = CmdLineOptions::GetInstance();
    registry.ParseStringOrError(text.c_str(), error);
    const size_t newline = text.find('\n');
    if (newline != std::string::npos)
        kavo_option_set(text.substr(0, newline).c_str(), text.c_str() + newline + 1);
    char value[64];
    for (const CmdLineOption* option : registry.options()) kavo_option_get(option->name, value, sizeof(value));
    registry.Reset();
    registry.tokens_allocated_by_ParseString.clear();
    return 0;
}
