// The command catalogue: every command of the tables with its arguments, and
// the enumerations and records they take, member by member. Generated into
// generated/kavo_catalogue.cpp by tools/gen/kavo_gen.py.
#ifndef KAVOCTL_CATALOGUE_H
#define KAVOCTL_CATALOGUE_H

#include <cstddef>
#include <cstdio>
#include <string>

#include "kavo/kavo_types.h"

namespace kavoctl {

enum class value_kind { U8, U16, U32, U64, I8, I16, I32, I64, F32, F64, CHAR, ENUM, RECORD, PTR };

struct enum_value {
    const char* name;
    UINT32 value;
};

struct enum_info {
    const char* name;
    const char* prefix; // constants' common prefix, which may be left out when naming one
    const enum_value* values;
    size_t count;
};

struct record_info;

struct member_info {
    const char* name;
    size_t offset;
    size_t element_size;
    size_t rows; // 1 for a plain member or a one-dimensional array
    size_t cols; // elements per row (1 for a plain member)
    value_kind kind;
    const enum_info* enumeration;
    const record_info* record;
    bool hex;
    size_t count() const { return rows * cols; }
};

struct record_info {
    const char* name;
    size_t size;
    bool is_union;
    const member_info* members;
    size_t count;
    void (*init)(void* record);
    void (*print)(const void* record, FILE* file); // null for records without a printer
};

struct arg_info {
    const char* name;
    const char* ctype;
    bool out;
    int stars; // pointer depth
    value_kind kind;
    size_t size; // of the pointed-to or passed type
    const enum_info* enumeration;
    const record_info* record;
};

struct command_info {
    const char* name;
    const char* family;
    const char* doc;
    const char* signature;
    const arg_info* args;
    size_t num_args;
    // Calls the command with a[i] pointing at argument i's storage (the value
    // itself for a scalar, the pointed-to buffer for a pointer); null for the
    // commands kavoctl cannot call (they take the application's context).
    VELT_ERROR (*call)(void* const* a);
};

extern const command_info COMMANDS[];
extern const size_t NUM_COMMANDS;
extern const enum_info* const ENUMS[];
extern const size_t NUM_ENUMS;
extern const record_info* const RECORDS[];
extern const size_t NUM_RECORDS;

const command_info* find_command(const std::string& name);
const record_info* find_record(const std::string& name);
/* A constant by its full name, its name without the prefix, or a number. */
bool parse_enum(const enum_info& e, const std::string& text, UINT32& value);
const char* enum_name(const enum_info& e, UINT32 value); // null for a value with no name

} // namespace kavoctl

#endif
