"""Generates fw_log_print, the decoder of firmware debug-log records.

Every code of the code list (host/types/errors.toml) gets an entry. Codes with
a text of their own are described in host/types/fw_log_formats.toml:

  [codes.LUMOHAL_LOG_WRITE]
  fmt = "WR addr=0x%08x value=0x%08x // %s"
  args = ["d0", "d1", "display_register_write(d0, 0xFFFFFFFF, d1)"]
  words = 2          # data words the message consumes (2, 3 or 5); default 2

Arguments are C++ expressions over the data words d0..d4 (UINT32), the
helpers of velt_shared_log.h and the enum printers. A data word is any 32-bit
value, so an enumeration is named through FW_LOG_ENUM_NAME(type, last, word),
which converts the word to the enumeration only when it is at most `last`
(otherwise the text is "illegal <type>"), e.g.

  args = ["FW_LOG_ENUM_NAME(velt_energy_state_t, LAST_VELT_ENERGY_STATE, d1)"]

Every other code prints "<MODULE>: <its name in words> d0=%d, d1=%d".
"""
import os
import tomllib


def default_entry(module, name):
    short = module[len("KAVO_MID_"):] if module.startswith("KAVO_MID_") else module
    words = name.lower().replace("_", " ")
    return {"fmt": f"{short}: {words} d0=%d, d1=%d", "args": ["(int)d0", "(int)d1"], "words": 2}


def c_string(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n") + '"'


def generate(err_group, formats_path, banner):
    formats = {}
    if os.path.exists(formats_path):
        with open(formats_path, "rb") as f:
            formats = tomllib.load(f).get("codes", {})
    known = {name for name, _ in err_group.codes}
    for name in formats:
        if name not in known:
            raise ValueError(f"fw_log_formats.toml: {name} is not a code of the code list")
    module_of = {}
    for m in err_group.errors:
        for c in m["codes"]:
            module_of[c] = m["name"]
    cases = []
    for name, value in err_group.codes:
        e = formats.get(name) or default_entry(module_of[name], name)
        args = e.get("args", [])
        call = f"std::snprintf(out, out_size, {c_string(e['fmt'])}{''.join(', ' + a for a in args)});"
        words = e.get("words", 2)
        set_words = f" *words_used = {words};" if words != 2 else ""
        cases.append(f"    case {value}: /* {name} */\n        {call}{set_words}\n        break;")
    body = "\n".join(cases)
    return f"""{banner.format(src="host/types/errors.toml and host/types/fw_log_formats.toml")}
#include "fw_log_print.h"

#include <cstdio>

#include "kavo/kavo_api.h"
#include "velt_shared_log.h"

/* The name of an enumeration value carried in a data word; a word beyond the
   enumeration's last value is never converted to it. */
#define FW_LOG_ENUM_NAME(type, last, word) \\
    ((word) <= (UINT32)(last) ? type##_print((type)(word), nullptr, 0) : "illegal " #type)

void fw_log_print(kavo_fw_log* log, INT32 code, UINT32 d0, UINT32 d1, UINT32 d2, UINT32 d3, UINT32 d4,
                  char* out, UINT32 out_size, UINT32* words_used)
{{
    (void)log;
    (void)d2;
    (void)d3;
    (void)d4;
    (void)words_used;
    if (out == nullptr || out_size == 0) return;
    switch (code) {{
{body}
    default:
        std::snprintf(out, out_size, "illegal log code\\n");
        break;
    }}
}}
"""
