/* Named options: each option is a global object that registers itself with
   one process-wide registry when it is constructed and takes its value from
   the environment variable "VELT_<name>" at that moment. Values come later
   from an argument vector (ParseOptions), from a string (ParseString) or one
   at a time (SetOption).

   An argument names an option as "name=value", "-name=value" or
   "--name=value"; names are case-sensitive. A parse error ends the process
   through Usage() (exit status -1); applications and tools that must not end
   use the *OrError forms, which return the error text instead. */
#ifndef VELT_CMD_LINE_OPTIONS_H
#define VELT_CMD_LINE_OPTIONS_H

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "kavo/kavo_api.h"

/* Null-safe case-insensitive comparison; null compares as the empty string. */
int my_stricmp(const char* a, const char* b);

class CmdLineOption
{
  public:
    CmdLineOption(const CmdLineOption&) = delete;
    CmdLineOption& operator=(const CmdLineOption&) = delete;
    virtual ~CmdLineOption();

    /* Stores the value text; false when the text is not a value of this kind. */
    virtual bool ParseValue(const char* value) = 0;
    /* ParseValue, ending the process through Usage() on failure. */
    virtual void ParseValueWithError(const char* value);
    /* A list option has taken its last element. */
    virtual void EndOfList() {}
    /* Back to the default; is_set becomes false. */
    virtual void Reset() = 0;
    /* Run after a value is stored. */
    virtual void OptionSet() {}
    /* The current value as text, as it would be written after "name=". */
    virtual std::string ValueText() const = 0;

    /* Applies "VELT_<name>" when that environment variable is present. */
    void SetFromEnvironmentVariable();

    const char* name;
    const char* usage_message;
    bool is_set = false;
    bool is_list = false;
    bool is_option_free_list = false;
    bool is_bool = false;

  protected:
    CmdLineOption(const char* name, const char* usage_message);
    /* Called by the most derived constructor once the option can parse:
       registers it and applies its environment variable. */
    void Register();
};

class CmdLineOptions
{
  public:
    static CmdLineOptions& GetInstance();

    void AddOption(CmdLineOption* option);
    void RemoveOption(CmdLineOption* option);
    /* Prints the usage text and ends the process with exit status -1. */
    [[noreturn]] void Usage();
    /* Prints the usage text to standard output. */
    void ShowUsage();
    std::string UsageText() const;
    /* Every option back to its default. */
    void Reset();

    /* Parses argv[1..argc-1]; any error ends the process through Usage(). */
    void ParseOptions(int argc, const char** argv);
    /* Same, but returns false with the error text instead of ending. */
    bool ParseOptionsOrError(int argc, const char** argv, std::string& error);
    /* Splits the text at blanks (double quotes group) and parses the words
       as arguments. */
    void ParseString(const char* text);
    bool ParseStringOrError(const char* text, std::string& error);
    /* Whether the argument ("--name=value" etc.) names a registered option. */
    bool MatchesAnOption(const char* argument) const;
    /* The option of that exact name, or null. */
    CmdLineOption* Find(const char* name) const;
    /* Stores one value; returns false with the error text when the name is
       unknown or the value does not parse. Never ends the process. */
    bool SetOption(const char* name, const char* value, std::string& error);

    const std::vector<CmdLineOption*>& options() const { return option_list_; }

    std::vector<std::string> tokens_allocated_by_ParseString;

  private:
    CmdLineOptions() = default;
    bool Parse(int argc, const char** argv, std::string* error);
    bool Fail(std::string* error, std::string text);
    bool Apply(CmdLineOption* option, const char* argument, const char* value, std::string* error);

    std::vector<CmdLineOption*> option_list_;
};

/* An option with one value of type T and a default that Reset restores. */
template <typename T> class ValueOption : public CmdLineOption
{
  public:
    void Reset() override { value = default_value; }

    T value;
    const T default_value;

  protected:
    ValueOption(const char* name, const char* usage_message, T default_value_)
        : CmdLineOption(name, usage_message), value(default_value_), default_value(default_value_)
    {
    }
};

class BoolOption : public ValueOption<bool>
{
  public:
    /* on_set, when given, is told every stored value (and the default on Reset). */
    BoolOption(const char* name, const char* usage_message, bool default_value = false, void (*on_set)(bool) = nullptr);
    bool ParseValue(const char* value) override;
    void Reset() override;
    void OptionSet() override;
    std::string ValueText() const override;

  private:
    void (*on_set_)(bool);
};

/* Decimal, or hexadecimal after "0x"; an optional sign. */
class IntOption : public ValueOption<int>
{
  public:
    IntOption(const char* name, const char* usage_message, int default_value = 0);
    bool ParseValue(const char* value) override;
    std::string ValueText() const override;
};

class UintOption : public ValueOption<unsigned>
{
  public:
    UintOption(const char* name, const char* usage_message, unsigned default_value = 0);
    bool ParseValue(const char* value) override;
    std::string ValueText() const override;
};

/* A number, or "a/b" for the quotient. */
class DoubleOption : public ValueOption<double>
{
  public:
    DoubleOption(const char* name, const char* usage_message, double default_value = 0.0);
    bool ParseValue(const char* value) override;
    std::string ValueText() const override;
};

class StringOption : public ValueOption<std::string>
{
  public:
    StringOption(const char* name, const char* usage_message, const char* default_value = "");
    bool ParseValue(const char* value) override;
    std::string ValueText() const override;
};

/* Takes the value after "=" and then every following argument. */
class StringListOption : public CmdLineOption
{
  public:
    StringListOption(const char* name, const char* usage_message);
    bool ParseValue(const char* value) override;
    void Reset() override;
    std::string ValueText() const override;

    std::vector<std::string> value;

  protected:
    StringListOption(const char* name, const char* usage_message, bool option_free);
};

/* A string list that stops at the next argument that names an option. */
class OptionFreeStringListOption : public StringListOption
{
  public:
    OptionFreeStringListOption(const char* name, const char* usage_message);
};

/* Values "a", "a+n", "a+n/s" (step s), "a..b" (inclusive), several joined by
   ","; each value also sets bit (value mod 32) of mask. Takes following
   arguments while they parse. */
class IntListOption : public CmdLineOption
{
  public:
    IntListOption(const char* name, const char* usage_message, int default_step = 1);
    bool ParseValue(const char* value) override;
    void Reset() override;
    std::string ValueText() const override;

    std::vector<int> value;
    UINT32 mask = 0;
    std::vector<std::string> tokens;
    const int default_step;

  private:
    bool ParseToken(const std::string& token);
};

/* "a" (one value), "a+n" (last = a + n, count n), "a..b" (count b - a). */
class IntRangeOption : public CmdLineOption
{
  public:
    IntRangeOption(const char* name, const char* usage_message, int default_first = 0, int default_last = 0,
                   int default_count = 0);
    bool ParseValue(const char* value) override;
    void Reset() override;
    std::string ValueText() const override;

    int first;
    int last;
    int count;

  private:
    const int default_first;
    const int default_last;
    const int default_count;
};

struct CmdLineEnumEntry {
    int value;
    const char* name;
    const char* help;
};

/* A number (as for IntOption) or one of the listed names (case-insensitive). */
class EnumOption : public ValueOption<int>
{
  public:
    EnumOption(const char* name, const char* usage_message, int default_value,
               std::initializer_list<CmdLineEnumEntry> entries = {});
    void AddEnum(int value, const char* name, const char* help);
    /* The first name listed for the value, or null. */
    const char* GetString(int value) const;
    bool ParseValue(const char* value) override;
    std::string ValueText() const override;

    std::vector<CmdLineEnumEntry> enums;

  protected:
    struct unregistered_t {
    };
    EnumOption(unregistered_t, const char* name, const char* usage_message, int default_value);
};

/* "first,second": one name or number from each of two tables. */
class EnumPairOption : public ValueOption<std::pair<int, int>>
{
  public:
    EnumPairOption(const char* name, const char* usage_message, std::pair<int, int> default_value,
                   std::initializer_list<CmdLineEnumEntry> first_entries = {},
                   std::initializer_list<CmdLineEnumEntry> pair_entries = {});
    void AddFirstEnum(int value, const char* name, const char* help);
    void AddPairEnum(int value, const char* name, const char* help);
    bool ParseValue(const char* value) override;
    std::string ValueText() const override;

    std::vector<CmdLineEnumEntry> first_enums;
    std::vector<CmdLineEnumEntry> pair_enums;
};

/* A name that stands for another argument, e.g. "debug" for "verbosity=7".
   When the target has no "=", a value given to the alias is passed on. */
class AliasOption : public CmdLineOption
{
  public:
    AliasOption(const char* name, const char* usage_message, const char* target);
    bool ParseValue(const char* value) override;
    void Reset() override;
    std::string ValueText() const override;

    const std::string value;
};

/* A name that stands for several arguments; it takes no value of its own. */
class AliasListOption : public CmdLineOption
{
  public:
    AliasListOption(const char* name, const char* usage_message, std::initializer_list<const char*> targets);
    bool ParseValue(const char* value) override;
    void Reset() override;
    std::string ValueText() const override;

    const std::vector<std::string> value;
};

/* The log level: 1 "Fatal", 2 "Error", 2 "Highest", 3 "High", 4 "Event",
   5 "Medium", 6 "Low", 7 "Lowest"; a stored value becomes the process-wide
   verbosity. */
class VerbosityOption : public EnumOption
{
  public:
    VerbosityOption(const char* name, const char* usage_message, int default_value = VELT_LOG_SEV_EVENT);
    /* A name, or a number from 0 (silent) to 7; other numbers are no level. */
    bool ParseValue(const char* value) override;
    void OptionSet() override;
    void Reset() override;
};

#endif /* VELT_CMD_LINE_OPTIONS_H */
