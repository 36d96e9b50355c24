#include "velt_cmd_line_options.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "velt_log.h"

namespace
{

/* Longest argument name (and "VELT_<name>") that is looked at. */
constexpr size_t max_name_length = 99;
/* A list holds at most this many values, so that a typo such as
   "0..2000000000", or many long ranges, fails instead of exhausting memory. */
constexpr long long max_list_values = 65536;
/* Aliases may name aliases; a cycle stops here. */
constexpr int max_alias_depth = 8;

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string out(n > 0 ? (size_t)n : 0, '\0');
    if (n > 0) std::vsnprintf(out.data(), out.size() + 1, fmt, args);
    va_end(args);
    return out;
}

void print_out(const std::string& text)
{
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

/* An optional sign, then "0x" for base 16 or decimal digits; the whole text. */
bool parse_number(const char* text, long long* out)
{
    if (text == nullptr) return false;
    const char* p = text;
    const bool negative = *p == '-';
    if (*p == '-' || *p == '+') ++p;
    int base = 10;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    }
    // Every character a digit of the base: strtoull would take a second "0x".
    if (*p == '\0') return false;
    for (const char* c = p; *c != '\0'; ++c)
        if (base == 16 ? !std::isxdigit((unsigned char)*c) : !std::isdigit((unsigned char)*c)) return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long long magnitude = std::strtoull(p, &end, base);
    if (*end != '\0' || errno == ERANGE || magnitude > (unsigned long long)LLONG_MAX) return false;
    *out = negative ? -(long long)magnitude : (long long)magnitude;
    return true;
}

bool parse_int(const char* text, int* out)
{
    long long v = 0;
    if (!parse_number(text, &v) || v < INT_MIN || v > INT_MAX) return false;
    *out = (int)v;
    return true;
}

bool parse_int(const std::string& text, int* out)
{
    return parse_int(text.c_str(), out);
}

bool parse_double(const std::string& text, double* out)
{
    if (text.empty() || std::isspace((unsigned char)text[0])) return false;
    char* end = nullptr;
    *out = std::strtod(text.c_str(), &end);
    return *end == '\0';
}

/* Splits "--name=value": drops up to two leading "-", keeps at most 99
   characters, and cuts at the first "=". */
void split_argument(const char* argument, std::string* name, std::string* value)
{
    const char* p = argument;
    if (*p == '-') ++p;
    if (*p == '-') ++p;
    const std::string text(p, strnlen(p, max_name_length));
    const size_t eq = text.find('=');
    *name = text.substr(0, eq);
    *value = eq == std::string::npos ? std::string() : text.substr(eq + 1);
}

std::vector<std::string> split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        const size_t at = text.find(separator, start);
        parts.push_back(text.substr(start, at - start));
        if (at == std::string::npos) return parts;
        start = at + 1;
    }
}

const CmdLineEnumEntry* find_enum(const std::vector<CmdLineEnumEntry>& table, const char* text)
{
    for (const auto& e : table)
        if (my_stricmp(e.name, text) == 0) return &e;
    return nullptr;
}

bool parse_enum(const std::vector<CmdLineEnumEntry>& table, const char* text, int* out)
{
    if (parse_int(text, out)) return true;
    const CmdLineEnumEntry* e = find_enum(table, text);
    if (e == nullptr) return false;
    *out = e->value;
    return true;
}

std::string enum_text(const std::vector<CmdLineEnumEntry>& table, int value)
{
    for (const auto& e : table)
        if (e.value == value) return e.name;
    return std::to_string(value);
}

int alias_depth = 0;

} // namespace

int my_stricmp(const char* a, const char* b)
{
    if (a == nullptr) a = "";
    if (b == nullptr) b = "";
    for (;; ++a, ++b) {
        const int ca = std::tolower((unsigned char)*a);
        const int cb = std::tolower((unsigned char)*b);
        if (ca != cb || ca == 0) return ca - cb;
    }
}

/* ---- CmdLineOption ---- */

CmdLineOption::CmdLineOption(const char* name_, const char* usage_message_)
    : name(name_ != nullptr ? name_ : ""), usage_message(usage_message_ != nullptr ? usage_message_ : "")
{
}

CmdLineOption::~CmdLineOption()
{
    CmdLineOptions::GetInstance().RemoveOption(this);
}

void CmdLineOption::Register()
{
    CmdLineOptions::GetInstance().AddOption(this);
    SetFromEnvironmentVariable();
}

void CmdLineOption::ParseValueWithError(const char* value)
{
    if (ParseValue(value)) return;
    print_out(format("error parsing '%s'\n", value));
    CmdLineOptions::GetInstance().Usage();
}

void CmdLineOption::SetFromEnvironmentVariable()
{
    if (*name == '\0') return; // a heading
    const std::string variable = ("VELT_" + std::string(name)).substr(0, max_name_length);
    const char* value = std::getenv(variable.c_str());
    if (value == nullptr) return;
    print_out(format("setting %s to \"%s\" (from environment variable %s)\n", name, value, variable.c_str()));
    ParseValueWithError(value);
    if (is_list) EndOfList();
    OptionSet();
    is_set = true;
}

/* ---- CmdLineOptions ---- */

CmdLineOptions& CmdLineOptions::GetInstance()
{
    static CmdLineOptions instance;
    return instance;
}

void CmdLineOptions::AddOption(CmdLineOption* option)
{
    option_list_.push_back(option);
}

void CmdLineOptions::RemoveOption(CmdLineOption* option)
{
    option_list_.erase(std::remove(option_list_.begin(), option_list_.end(), option), option_list_.end());
}

std::string CmdLineOptions::UsageText() const
{
    int width = 0;
    for (const CmdLineOption* o : option_list_)
        width = std::max(width, (int)std::strlen(o->name));
    std::string text;
    for (const CmdLineOption* o : option_list_) {
        if (*o->name == '\0')
            text += format("%s\n", o->usage_message);
        else
            text += format("  %*s - %s\n", -width, o->name, o->usage_message);
    }
    return text;
}

void CmdLineOptions::ShowUsage()
{
    print_out(UsageText());
}

void CmdLineOptions::Usage()
{
    ShowUsage();
    std::exit(-1);
}

void CmdLineOptions::Reset()
{
    for (CmdLineOption* o : option_list_) {
        o->Reset();
        o->is_set = false;
    }
}

CmdLineOption* CmdLineOptions::Find(const char* name) const
{
    if (name == nullptr || *name == '\0') return nullptr; // headings match nothing
    for (CmdLineOption* o : option_list_)
        if (std::strcmp(o->name, name) == 0) return o;
    return nullptr;
}

bool CmdLineOptions::MatchesAnOption(const char* argument) const
{
    if (argument == nullptr) return false;
    std::string name, value;
    split_argument(argument, &name, &value);
    return Find(name.c_str()) != nullptr;
}

bool CmdLineOptions::Fail(std::string* error, std::string text)
{
    if (error != nullptr) {
        *error = std::move(text);
        return false;
    }
    print_out(text);
    Usage();
}

bool CmdLineOptions::Apply(CmdLineOption* option, const char* argument, const char* value, std::string* error)
{
    (void)argument;
    if (!option->ParseValue(value)) return Fail(error, format("error parsing '%s'\n", value));
    option->OptionSet();
    option->is_set = true;
    return true;
}

bool CmdLineOptions::Parse(int argc, const char** argv, std::string* error)
{
    if (argc > 0 && argv[0] != nullptr && std::strcmp(argv[0], "parse_string") != 0) {
        // The command line becomes the terminal's window title.
        const char* slash = std::strrchr(argv[0], '/');
        std::string title = slash != nullptr ? slash + 1 : argv[0];
        for (int i = 1; i < argc; ++i)
            title += std::string(" ") + (argv[i] != nullptr ? argv[i] : "");
        print_out("\033]0;" + title + "\a");
    }
    for (int i = 1; i < argc; ++i) {
        const char* argument = argv[i] != nullptr ? argv[i] : "";
        std::string name, value;
        split_argument(argument, &name, &value);
        CmdLineOption* option = Find(name.c_str());
        if (option == nullptr) return Fail(error, format("no match for '%s'\n", argument));
        if (!option->is_list) {
            if (!Apply(option, argument, value.c_str(), error)) return false;
            continue;
        }
        if (!value.empty() && !option->ParseValue(value.c_str()))
            return Fail(error, format("error parsing '%s'\n", value.c_str()));
        // The list goes on while the following arguments parse as elements.
        while (i + 1 < argc && argv[i + 1] != nullptr) {
            if (option->is_option_free_list && MatchesAnOption(argv[i + 1])) break;
            if (!option->ParseValue(argv[i + 1])) break;
            ++i;
        }
        option->EndOfList();
        option->OptionSet();
        option->is_set = true;
    }
    return true;
}

void CmdLineOptions::ParseOptions(int argc, const char** argv)
{
    Parse(argc, argv, nullptr);
}

bool CmdLineOptions::ParseOptionsOrError(int argc, const char** argv, std::string& error)
{
    return Parse(argc, argv, &error);
}

static std::vector<std::string> tokenize(const char* text)
{
    std::vector<std::string> tokens;
    std::string token;
    bool in_token = false, quoted = false;
    for (const char* p = text != nullptr ? text : ""; *p != '\0'; ++p) {
        if (*p == '"') {
            quoted = !quoted;
            in_token = true;
        } else if (!quoted && std::isspace((unsigned char)*p)) {
            if (in_token) tokens.push_back(token);
            token.clear();
            in_token = false;
        } else {
            token += *p;
            in_token = true;
        }
    }
    if (in_token) tokens.push_back(token);
    return tokens;
}

bool CmdLineOptions::ParseStringOrError(const char* text, std::string& error)
{
    const size_t first = tokens_allocated_by_ParseString.size();
    for (auto& t : tokenize(text))
        tokens_allocated_by_ParseString.push_back(std::move(t));
    std::vector<const char*> argv{"parse_string"};
    for (size_t i = first; i < tokens_allocated_by_ParseString.size(); ++i)
        argv.push_back(tokens_allocated_by_ParseString[i].c_str());
    return Parse((int)argv.size(), argv.data(), &error);
}

void CmdLineOptions::ParseString(const char* text)
{
    std::string error;
    if (!ParseStringOrError(text, error)) Fail(nullptr, error);
}

bool CmdLineOptions::SetOption(const char* name, const char* value, std::string& error)
{
    CmdLineOption* option = Find(name);
    if (option == nullptr) {
        error = format("no match for '%s'\n", name != nullptr ? name : "");
        return false;
    }
    if (value == nullptr) value = "";
    const std::string argument = std::string(name) + "=" + value;
    if (option->is_list) {
        if (*value != '\0' && !option->ParseValue(value)) {
            error = format("error parsing '%s'\n", value);
            return false;
        }
        option->EndOfList();
        option->OptionSet();
        option->is_set = true;
        return true;
    }
    return Apply(option, argument.c_str(), value, &error);
}

/* ---- BoolOption ---- */

BoolOption::BoolOption(const char* name_, const char* usage_message_, bool default_value_, void (*on_set)(bool))
    : ValueOption(name_, usage_message_, default_value_), on_set_(on_set)
{
    is_bool = true;
    Register();
}

bool BoolOption::ParseValue(const char* text)
{
    for (const char* t : {"", "1", "on", "yes", "true"})
        if (my_stricmp(text, t) == 0) return value = true;
    for (const char* f : {"0", "no", "off", "false"})
        if (my_stricmp(text, f) == 0) return !(value = false);
    return false;
}

void BoolOption::Reset()
{
    ValueOption::Reset();
    if (on_set_ != nullptr) on_set_(value);
}

void BoolOption::OptionSet()
{
    if (on_set_ != nullptr) on_set_(value);
}

std::string BoolOption::ValueText() const
{
    return value ? "true" : "false";
}

/* ---- IntOption, UintOption, DoubleOption, StringOption ---- */

IntOption::IntOption(const char* name_, const char* usage_message_, int default_value_)
    : ValueOption(name_, usage_message_, default_value_)
{
    Register();
}

bool IntOption::ParseValue(const char* text)
{
    return parse_int(text, &value);
}
std::string IntOption::ValueText() const
{
    return std::to_string(value);
}

UintOption::UintOption(const char* name_, const char* usage_message_, unsigned default_value_)
    : ValueOption(name_, usage_message_, default_value_)
{
    Register();
}

bool UintOption::ParseValue(const char* text)
{
    long long v = 0;
    if (text == nullptr || text[0] == '-' || text[0] == '+' || !parse_number(text, &v) || v > UINT_MAX) return false;
    value = (unsigned)v;
    return true;
}

std::string UintOption::ValueText() const
{
    return std::to_string(value);
}

DoubleOption::DoubleOption(const char* name_, const char* usage_message_, double default_value_)
    : ValueOption(name_, usage_message_, default_value_)
{
    Register();
}

bool DoubleOption::ParseValue(const char* text)
{
    const std::string s = text != nullptr ? text : "";
    const size_t slash = s.find('/');
    if (slash == std::string::npos) return parse_double(s, &value);
    double a = 0, b = 0;
    if (!parse_double(s.substr(0, slash), &a) || !parse_double(s.substr(slash + 1), &b) || b == 0) return false;
    value = a / b;
    print_out(format("setting %s to %g/%g = %g\n", name, a, b, value));
    return true;
}

std::string DoubleOption::ValueText() const
{
    return format("%.17g", value);
}

StringOption::StringOption(const char* name_, const char* usage_message_, const char* default_value_)
    : ValueOption(name_, usage_message_, default_value_ != nullptr ? default_value_ : "")
{
    Register();
}

bool StringOption::ParseValue(const char* text)
{
    value = text != nullptr ? text : "";
    return true;
}

std::string StringOption::ValueText() const
{
    return value;
}

/* ---- string lists ---- */

StringListOption::StringListOption(const char* name_, const char* usage_message_)
    : StringListOption(name_, usage_message_, false)
{
    Register();
}

StringListOption::StringListOption(const char* name_, const char* usage_message_, bool option_free)
    : CmdLineOption(name_, usage_message_)
{
    is_list = true;
    is_option_free_list = option_free;
}

bool StringListOption::ParseValue(const char* text)
{
    if (text == nullptr) return false;
    value.emplace_back(text);
    return true;
}

void StringListOption::Reset()
{
    value.clear();
}

std::string StringListOption::ValueText() const
{
    std::string text;
    for (const auto& v : value)
        text += (text.empty() ? "" : " ") + v;
    return text;
}

OptionFreeStringListOption::OptionFreeStringListOption(const char* name_, const char* usage_message_)
    : StringListOption(name_, usage_message_, true)
{
    Register();
}

/* ---- IntListOption ---- */

IntListOption::IntListOption(const char* name_, const char* usage_message_, int default_step_)
    : CmdLineOption(name_, usage_message_), default_step(default_step_)
{
    is_list = true;
    Register();
}

bool IntListOption::ParseToken(const std::string& token)
{
    long long first = 0, step = default_step, n = 0;
    int a = 0, b = 0;
    const size_t dots = token.find("..");
    const size_t plus = token.find('+', 1); // past a leading sign
    if (dots != std::string::npos) {
        if (!parse_int(token.substr(0, dots), &a) || !parse_int(token.substr(dots + 2), &b) || b < a) return false;
        if (step <= 0) return false;
        first = a;
        n = ((long long)b - a) / step + 1;
    } else if (plus != std::string::npos) {
        const size_t slash = token.find('/', plus);
        int count = 0, s = 0;
        if (!parse_int(token.substr(0, plus), &a) ||
            !parse_int(token.substr(plus + 1, slash == std::string::npos ? std::string::npos : slash - plus - 1),
                       &count) ||
            count < 0)
            return false;
        if (slash != std::string::npos) {
            if (!parse_int(token.substr(slash + 1), &s)) return false;
            step = s;
        }
        first = a;
        n = count;
    } else {
        if (!parse_int(token, &a)) return false;
        first = a;
        n = 1;
    }
    if (n > max_list_values - (long long)value.size()) return false;
    const long long end = first + (n > 0 ? (n - 1) * step : 0);
    if (end < INT_MIN || end > INT_MAX) return false;
    for (long long k = 0; k < n; ++k) {
        const int v = (int)(first + k * step);
        value.push_back(v);
        mask |= 1u << (((v % 32) + 32) % 32);
    }
    tokens.push_back(token);
    return true;
}

bool IntListOption::ParseValue(const char* text)
{
    if (text == nullptr || *text == '\0') return false;
    // A text that is not a list adds nothing: tokens only append, so the
    // lengths before it are enough to take back what its good tokens added.
    const size_t saved_values = value.size();
    const size_t saved_tokens = tokens.size();
    const UINT32 saved_mask = mask;
    for (const auto& token : split(text, ',')) {
        if (!ParseToken(token)) {
            value.resize(saved_values);
            tokens.resize(saved_tokens);
            mask = saved_mask;
            return false;
        }
    }
    return true;
}

void IntListOption::Reset()
{
    value.clear();
    tokens.clear();
    mask = 0;
}

std::string IntListOption::ValueText() const
{
    std::string text;
    for (const auto& t : tokens)
        text += (text.empty() ? "" : ",") + t;
    return text;
}

/* ---- IntRangeOption ---- */

IntRangeOption::IntRangeOption(const char* name_, const char* usage_message_, int default_first_, int default_last_,
                               int default_count_)
    : CmdLineOption(name_, usage_message_), first(default_first_), last(default_last_), count(default_count_),
      default_first(default_first_), default_last(default_last_), default_count(default_count_)
{
    Register();
}

bool IntRangeOption::ParseValue(const char* text)
{
    const std::string s = text != nullptr ? text : "";
    const size_t dots = s.find("..");
    const size_t plus = s.find('+', 1);
    int a = 0, b = 0;
    long long l = 0, c = 0;
    if (dots != std::string::npos) {
        if (!parse_int(s.substr(0, dots), &a) || !parse_int(s.substr(dots + 2), &b)) return false;
        l = b;
        c = (long long)b - a;
    } else if (plus != std::string::npos) {
        if (!parse_int(s.substr(0, plus), &a) || !parse_int(s.substr(plus + 1), &b)) return false;
        l = (long long)a + b;
        c = b;
    } else {
        if (!parse_int(s, &a)) return false;
        l = a;
        c = 1;
    }
    if (l < INT_MIN || l > INT_MAX || c < INT_MIN || c > INT_MAX) return false;
    first = a;
    last = (int)l;
    count = (int)c;
    return true;
}

void IntRangeOption::Reset()
{
    first = default_first;
    last = default_last;
    count = default_count;
}

std::string IntRangeOption::ValueText() const
{
    return format("%d..%d", first, last);
}

/* ---- EnumOption, VerbosityOption ---- */

EnumOption::EnumOption(const char* name_, const char* usage_message_, int default_value_,
                       std::initializer_list<CmdLineEnumEntry> entries)
    : EnumOption(unregistered_t{}, name_, usage_message_, default_value_)
{
    enums.assign(entries.begin(), entries.end());
    Register();
}

EnumOption::EnumOption(unregistered_t, const char* name_, const char* usage_message_, int default_value_)
    : ValueOption(name_, usage_message_, default_value_)
{
}

void EnumOption::AddEnum(int v, const char* n, const char* help)
{
    enums.push_back({v, n, help != nullptr ? help : ""});
}

const char* EnumOption::GetString(int v) const
{
    for (const auto& e : enums)
        if (e.value == v) return e.name;
    return nullptr;
}

static void show_invalid(const char* name, const char* text, const std::vector<CmdLineEnumEntry>& table)
{
    int width = 0;
    for (const auto& e : table)
        width = std::max(width, (int)std::strlen(e.name));
    std::string out = format("option %s: '%s' is not a valid value\n", name, text);
    out += "valid enumerations are: \n";
    for (const auto& e : table)
        out += format("  %*s 0x%02x %s\n", -width, e.name, (unsigned)e.value, e.help);
    print_out(out);
}

bool EnumOption::ParseValue(const char* text)
{
    if (parse_enum(enums, text, &value)) return true;
    show_invalid(name, text != nullptr ? text : "", enums);
    return false;
}

std::string EnumOption::ValueText() const
{
    return enum_text(enums, value);
}

VerbosityOption::VerbosityOption(const char* name_, const char* usage_message_, int default_value_)
    : EnumOption(unregistered_t{}, name_, usage_message_, default_value_)
{
    // Two names for 2: older scripts say "Error", newer ones "Highest".
    enums = {{1, "Fatal", ""}, {2, "Error", ""},  {2, "Highest", ""}, {3, "High", ""},
             {4, "Event", ""}, {5, "Medium", ""}, {6, "Low", ""},     {7, "Lowest", ""}};
    Register();
}

/* An enumeration option: a name of the table or any number. A level above 7
   prints everything, 0 and below nothing (the level is an int-based
   enumeration, so every value is defined). */
bool VerbosityOption::ParseValue(const char* text) { return EnumOption::ParseValue(text); }

void VerbosityOption::OptionSet()
{
    velt_log_verbosity_level_set((UINT32)-1, (velt_log_sev_t)value);
}

void VerbosityOption::Reset()
{
    EnumOption::Reset();
    OptionSet();
}

/* ---- EnumPairOption ---- */

EnumPairOption::EnumPairOption(const char* name_, const char* usage_message_, std::pair<int, int> default_value_,
                               std::initializer_list<CmdLineEnumEntry> first_entries,
                               std::initializer_list<CmdLineEnumEntry> pair_entries)
    : ValueOption(name_, usage_message_, default_value_), first_enums(first_entries), pair_enums(pair_entries)
{
    Register();
}

void EnumPairOption::AddFirstEnum(int v, const char* n, const char* help)
{
    first_enums.push_back({v, n, help != nullptr ? help : ""});
}

void EnumPairOption::AddPairEnum(int v, const char* n, const char* help)
{
    pair_enums.push_back({v, n, help != nullptr ? help : ""});
}

bool EnumPairOption::ParseValue(const char* text)
{
    const std::string s = text != nullptr ? text : "";
    const size_t comma = s.find(',');
    if (comma == std::string::npos) return false;
    const std::string a = s.substr(0, comma), b = s.substr(comma + 1);
    std::pair<int, int> v;
    if (!parse_enum(first_enums, a.c_str(), &v.first)) {
        show_invalid(name, a.c_str(), first_enums);
        return false;
    }
    if (!parse_enum(pair_enums, b.c_str(), &v.second)) {
        show_invalid(name, b.c_str(), pair_enums);
        return false;
    }
    value = v;
    return true;
}

std::string EnumPairOption::ValueText() const
{
    return enum_text(first_enums, value.first) + "," + enum_text(pair_enums, value.second);
}

/* ---- aliases ---- */

/* Applies one argument ("name" or "name=value") on behalf of an alias. */
static bool apply_alias_target(const std::string& argument)
{
    if (alias_depth >= max_alias_depth) return false;
    ++alias_depth;
    std::string name, value, error;
    split_argument(argument.c_str(), &name, &value);
    const bool ok = CmdLineOptions::GetInstance().Find(name.c_str()) != nullptr &&
                    CmdLineOptions::GetInstance().SetOption(name.c_str(), value.c_str(), error);
    --alias_depth;
    return ok;
}

AliasOption::AliasOption(const char* name_, const char* usage_message_, const char* target)
    : CmdLineOption(name_, usage_message_), value(target != nullptr ? target : "")
{
    Register();
}

bool AliasOption::ParseValue(const char* text)
{
    if (text == nullptr || *text == '\0') return apply_alias_target(value);
    if (value.find('=') != std::string::npos) return false; // the target's value is fixed
    return apply_alias_target(value + "=" + text);
}

void AliasOption::Reset() {}
std::string AliasOption::ValueText() const
{
    return value;
}

AliasListOption::AliasListOption(const char* name_, const char* usage_message_,
                                 std::initializer_list<const char*> targets)
    : CmdLineOption(name_, usage_message_), value(targets.begin(), targets.end())
{
    Register();
}

bool AliasListOption::ParseValue(const char* text)
{
    if (text != nullptr && *text != '\0') return false;
    for (const auto& target : value)
        if (!apply_alias_target(target)) return false;
    return true;
}

void AliasListOption::Reset() {}

std::string AliasListOption::ValueText() const
{
    std::string text;
    for (const auto& t : value)
        text += (text.empty() ? "" : " ") + t;
    return text;
}
