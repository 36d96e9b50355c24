/* The C interface of the option registry. */
#include <cstring>
#include <string>

#include "kavo/kavo_api.h"
#include "velt_cmd_line_options.h"
#include "velt_library_options.h"

/* The library's own options live in velt_library_options; naming one here
   keeps that unit in every program that links the static library. */
[[gnu::used]] static const void* const library_options_anchor = &velt_option_verbosity;

extern "C" {

VELT_ERROR kavo_option_set(const char* name, const char* value)
{
    std::string error;
    return CmdLineOptions::GetInstance().SetOption(name, value, error) ? VELT_SUCCESS : VELT_ERR_INVALID_ARGS;
}

VELT_ERROR kavo_option_get(const char* name, char* buffer, UINT32 length)
{
    const CmdLineOption* option = CmdLineOptions::GetInstance().Find(name);
    if (option == nullptr || buffer == nullptr || length == 0) return VELT_ERR_INVALID_ARGS;
    std::snprintf(buffer, length, "%s", option->ValueText().c_str());
    return VELT_SUCCESS;
}

BOOL8 kavo_option_is_known(const char* name)
{
    return CmdLineOptions::GetInstance().Find(name) != nullptr ? 1 : 0;
}

void kavo_options_parse_args(int argc, const char** argv)
{
    CmdLineOptions::GetInstance().ParseOptions(argc, argv);
}

void kavo_options_parse_string(const char* text)
{
    CmdLineOptions::GetInstance().ParseString(text);
}

void kavo_options_usage_print(void)
{
    CmdLineOptions::GetInstance().ShowUsage();
}

void kavo_options_reset(void)
{
    CmdLineOptions::GetInstance().Reset();
}

} // extern "C"
