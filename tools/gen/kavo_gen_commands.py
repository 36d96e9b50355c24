"""Generates the command API of libkavo from the command tables.

Each family's commands are written once in host/commands/<family>.toml (format:
host/commands/README.md). From the tables come the public declarations, the
frame bodies of the regular commands, the reference and kavoctl's catalogue.
Called by kavo_gen.py, which owns the types the commands refer to.
"""
import os
import re
import tomllib

FIELDS = ("element", "mode", "parent", "flag")
RESULT_FIELDS = ("mode", "value", "value2", "data_size")
VARIATIONS = ("plain", "status", "none")
KEYS = {"name", "doc", "args", "returns", "op", "data", "data_size", "build", "reply", "reply_size", "results",
        "checked", "variation", "null_checks", "trace", "trace_args", "hand"} | set(FIELDS)
SIGNED = {"INT8", "INT16", "INT32", "INT64"}
BOOLS = {"BOOL8", "BOOL32"}

# catalogue kinds of a value, by scalar type
KINDS = {"UINT8": "U8", "UINT16": "U16", "UINT32": "U32", "UINT64": "U64", "INT8": "I8", "INT16": "I16",
         "INT32": "I32", "INT64": "I64", "BOOL8": "U8", "BOOL32": "U32", "VELT_ERROR": "U32", "DOUBLE": "F64",
         "FLOAT": "F32", "char": "CHAR", "void*": "PTR"}


class CommandError(Exception):
    pass


class Arg:
    def __init__(self, text, owner):
        tokens = text.split()
        self.direction = None
        if tokens and tokens[-1] in ("in", "out"):
            self.direction = tokens.pop()
        if len(tokens) < 2:
            raise CommandError(f"{owner}: argument '{text}' needs a type and a name")
        self.name = tokens[-1]
        self.type = " ".join(tokens[:-1]).replace(" *", "*")
        self.const = self.type.startswith("const ")
        self.stars = self.type.count("*")
        self.base = self.type.removeprefix("const ").replace("*", "").strip()
        if self.direction is None:
            self.direction = "in" if self.stars == 0 or self.const else "out"

    @property
    def pointer(self):
        return self.stars > 0


class Command:
    def __init__(self, d, family):
        unknown = set(d) - KEYS
        if unknown:
            raise CommandError(f"{d.get('name', '?')}: unknown keys {sorted(unknown)}")
        self.family = family
        self.name = d["name"]
        self.doc = d["doc"]
        self.args = [Arg(a, self.name) for a in d["args"]]
        self.by_name = {a.name: a for a in self.args}
        self.returns = d.get("returns", "VELT_ERROR")
        self.hand = d.get("hand", False)
        self.op = d.get("op")
        self.fields = {f: str(d[f]) for f in FIELDS if f in d}
        self.data = d.get("data")
        self.data_size = d.get("data_size")
        self.build = d.get("build")
        self.reply = d.get("reply")
        self.reply_size = d.get("reply_size")
        self.results = []
        for r in d.get("results", []):
            out, _, field = (p.strip() for p in r.partition("="))
            if field not in RESULT_FIELDS or out not in self.by_name:
                raise CommandError(f"{self.name}: bad result '{r}'")
            self.results.append((self.by_name[out], field))
        self.checked = d.get("checked", False)
        self.variation = d.get("variation", "plain")
        if self.variation not in VARIATIONS:
            raise CommandError(f"{self.name}: variation {self.variation} is not one of {VARIATIONS}")
        self.null_checks = d.get("null_checks", [])
        self.trace = d.get("trace")
        self.trace_args = d.get("trace_args")
        if not self.hand and self.op is None:
            raise CommandError(f"{self.name}: a generated command needs an op")
        if self.reply and self.reply not in self.by_name:
            raise CommandError(f"{self.name}: reply names no argument '{self.reply}'")
        if self.data and self.data.lstrip("&") not in self.by_name and not self.build:
            raise CommandError(f"{self.name}: data names no argument '{self.data}'")

    @property
    def status(self):
        return self.variation == "status"

    def signature(self, export=True):
        args = ", ".join(f"{a.type} {a.name}" for a in self.args) or "void"
        ret = ("KAVO_API " if export else "") + self.returns
        return f"{ret} {self.name}({args})"

    def op_name(self):
        return f"KAVO_HTL_OPERATION_{self.op}" if self.op else None


class Family:
    def __init__(self, path):
        with open(path, "rb") as f:
            d = tomllib.load(f)
        self.path = path
        self.name = d["family"]
        self.doc = d["doc"]
        self.handlers = d.get("handlers", self.name)
        self.commands = [Command(c, self) for c in d.get("command", [])]

    @property
    def header(self):
        return f"kavo_api_{self.name}.h"


def load_families(root):
    folder = os.path.join(root, "host/commands")
    families = [Family(os.path.join(folder, f)) for f in sorted(os.listdir(folder)) if f.endswith(".toml")]
    seen = set()
    for fam in families:
        for c in fam.commands:
            if c.name in seen:
                raise CommandError(f"{c.name} is declared twice")
            seen.add(c.name)
    return families


def comment(text, indent=""):
    lines = text.strip().splitlines()
    return indent + "/* " + ("\n" + indent + "   ").join(lines) + " */"


class Generator:
    def __init__(self, root, families, types, banner):
        self.root = root
        self.families = families
        self.types = types
        self.banner = banner
        ops = types["kavo_htl_operation_t"]
        self.op_values = dict(ops.values)

    def kind_of(self, name):
        t = self.types.get(name)
        return type(t).__name__ if t is not None else None  # Enum, Struct, Union or None

    def check(self):
        for fam in self.families:
            for c in fam.commands:
                if c.op and c.op_name() not in self.op_values:
                    raise CommandError(f"{c.name}: unknown operation {c.op_name()}")
                for a in c.args:
                    if a.base not in KINDS and a.base not in ("void",) and self.kind_of(a.base) is None:
                        raise CommandError(f"{c.name}: unknown type {a.type} of {a.name}")

    # ---- declarations ------------------------------------------------------------------

    def header_text(self, fam):
        guard = f"KAVO_API_{fam.name.upper()}_H"
        out = [self.banner.format(src=os.path.relpath(fam.path, self.root)).rstrip(), comment(fam.doc),
               f"#ifndef {guard}", f"#define {guard}", "", "#include \"kavo/gen/kavo_all_types.h\"", "",
               "#ifdef __cplusplus", "extern \"C\" {", "#endif", ""]
        for c in fam.commands:
            out.append(comment(c.doc))
            out.append(c.signature() + ";")
        out += ["", "#ifdef __cplusplus", "}", "#endif", "", f"#endif /* {guard} */", ""]
        return "\n".join(out)

    def umbrella(self):
        out = [self.banner.format(src="host/commands").rstrip(),
               "/* libkavo: host SDK of the kavo multi-protocol Ethernet transport chip.",
               "   The one header an application includes. */",
               "#ifndef KAVO_API_H", "#define KAVO_API_H", "",
               "#include \"kavo/kavo_types.h\"", "#include \"kavo/kavo_callout.h\"",
               "#include \"kavo/gen/kavo_all_types.h\"", "#include \"kavo/kavo_sdk.h\""]
        out += [f"#include \"kavo/{f.header}\"" for f in self.families]
        out += ["", "#endif /* KAVO_API_H */", ""]
        return "\n".join(out)

    # ---- frame bodies ------------------------------------------------------------------

    def trace_lines(self, c):
        """The trace calls: fragments of consecutive scalars merged into one call."""
        if c.trace is not None:
            names = c.trace_args if c.trace_args is not None else [a.name for a in c.args[1:] if not a.pointer]
            return [f"frame.trace({cstr(c.trace)}{''.join(', ' + n for n in names)});"] if c.trace else []
        lines, fmt, vals = [], "", []

        def flush():
            nonlocal fmt, vals
            if fmt:
                lines.append(f"frame.trace({cstr(fmt)}{''.join(', ' + v for v in vals)});")
            fmt, vals = "", []

        for a in c.args[1:]:
            kind = self.kind_of(a.base)
            if a.pointer:
                if a.base == "char" and a.stars == 1 and a.direction == "in":
                    fmt += ", %s"
                    vals.append(f"{a.name} ? {a.name} : \"(null)\"")
                elif kind in ("Struct", "Union") and a.direction == "in" and a.stars == 1:
                    flush()
                    lines.append(f"frame.trace_record(\"{a.base}\", {a.name});")
                else:
                    fmt += f", [{a.name}=0x%p]"
                    vals.append(f"(const void*){a.name}")
            elif kind == "Enum" or a.base in BOOLS or a.base in SIGNED:
                fmt += ", %d"
                vals.append(f"(int){a.name}")
            elif a.base in ("DOUBLE", "FLOAT"):
                fmt += ", %f"
                vals.append(f"(double){a.name}")
            elif a.base == "UINT64":
                fmt += ", 0x%llx"
                vals.append(f"(unsigned long long){a.name}")
            else:
                fmt += ", 0x%x"
                vals.append(f"(unsigned){a.name}")
        flush()
        return lines

    def size_expr(self, c, what, size):
        arg = c.by_name.get(what.lstrip("&")) if what else None
        rec = None
        if c.build and what == "&payload":
            rec = c.build["type"]
        elif arg is not None and arg.pointer and self.kind_of(arg.base) in ("Struct", "Union"):
            rec = arg.base
        elif arg is not None and arg.stars == 1 and size is None and (arg.base in KINDS or
                                                                      self.kind_of(arg.base) == "Enum"):
            return f"sizeof({arg.base})", None
        if size is None:
            if rec is None:
                raise CommandError(f"{c.name}: the size of {what} must be given")
            return f"sizeof({rec})", None
        if isinstance(size, int):
            check = f"KAVO_STATIC_ASSERT(sizeof({rec}) == {size}, \"{c.name}: {what.lstrip('&')} is {size} bytes\");" if rec else None
            return str(size), check
        return f"(UINT32)({size})", None

    def member_path(self, rec, path):
        """The member a dotted path (a.b.c) names through nested records, or None."""
        m = None
        for part in path.split("."):
            if rec is None or not hasattr(rec, "members"):
                return None
            m = next((x for x in rec.members if x.name == part), None)
            if m is None:
                return None
            rec = self.types.get(m.type)
        return m

    def body(self, c):
        lines, checks = [], []
        if c.variation == "status":
            lines.append("KAVO_STATUS_COMMAND(frame, device_id);")
        elif c.variation == "none":
            lines.append("kavo_command_frame frame(__func__, device_id, nullptr, true);")
        else:
            lines.append("KAVO_COMMAND(frame, device_id);")
        if c.variation != "none":
            lines += self.trace_lines(c)
        for nc in c.null_checks:
            for name in nc["args"]:
                lines.append(f"if (KAVO_POINTER_MISSING(frame, {name}, {nc['code']}, {cstr(nc['message'])})) "
                             f"return {nc['result']};")
        if c.build:
            t = c.build["type"]
            rec = self.types.get(t)
            if rec is None:
                raise CommandError(f"{c.name}: build type {t} is unknown")
            lines.append(f"{t} payload;")
            for member, expr in c.build.get("set", {}).items():
                m = self.member_path(rec, member)
                if m is None:
                    raise CommandError(f"{c.name}: {t} has no member {member}")
                if m.dims:
                    lines.append(f"if ({expr} != nullptr) std::memcpy(payload.{member}, {expr}, "
                                 f"sizeof(payload.{member}));")
                else:
                    lines.append(f"payload.{member} = static_cast<decltype(payload.{member})>({expr});")
        req = f"frame.request({c.op_name()})"
        for f in FIELDS:
            if f in c.fields:
                req += f".{f}((UINT32)({c.fields[f]}))"
        data = c.data or ("&payload" if c.build else None)
        if data:
            size, check = self.size_expr(c, data, c.data_size)
            if check:
                checks.append(check)
            req += f".data({data}, {size})"
        if c.reply:
            size, check = self.size_expr(c, c.reply, c.reply_size)
            if check:
                checks.append(check)
            req += f".reply({c.reply}, {size})"
        lines.append(req + ";")
        if c.results:
            lines.append("const VELT_ERROR rc = frame.send_for_results();")
            lines.append("if (rc != VELT_SUCCESS) return rc;")
            for out, field in c.results:
                value = f"frame.response().{field}"
                if c.checked:
                    lines.append(f"KAVO_STORE_CHECKED(frame, {out.name}, {value});")
                else:
                    lines.append(f"*{out.name} = static_cast<{out.base}>({value});")
            lines.append("return rc;")
        else:
            lines.append("return frame.send();")
        text = c.signature(export=False) + "\n{\n" + "".join(f"    {line}\n" for line in lines) + "}\n"
        return text, checks

    def source_text(self, fam):
        bodies, checks = [], []
        for c in fam.commands:
            if c.hand:
                continue
            text, chk = self.body(c)
            bodies.append(text)
            checks += chk
        if not bodies:
            return None
        out = [self.banner.format(src=os.path.relpath(fam.path, self.root)).rstrip(),
               comment(fam.doc + "\nThe regular commands of the family, one call frame each."),
               "#include <cstring>", "", "#include \"kavo/kavo_api.h\"", "#include \"kavo_command_frame.h\"", ""]
        out += checks + ([""] if checks else [])
        out.append("\n".join(bodies))
        return "\n".join(out)

    # ---- reference -----------------------------------------------------------------------

    def handler_codes(self, fam):
        codes = set()
        folder = os.path.join(self.root, "sim/src/fw")
        for f in sorted(os.listdir(folder)) if os.path.isdir(folder) else []:
            if f in (f"handlers_{fam.handlers}.cpp", f"model_{fam.handlers}.h") or \
                    f.startswith(f"{fam.handlers}_"):
                text = open(os.path.join(folder, f)).read()
                codes |= set(re.findall(r"\b([A-Z][A-Z0-9_]*_ERR_[A-Z0-9_]+)\b", text))
        return sorted(codes)

    def reference(self):
        out = ["# Command reference", "",
               "Generated by tools/gen/kavo_gen.py from host/commands/*.toml: do not edit.", ""]
        total = sum(len(f.commands) for f in self.families)
        out.append(f"{total} commands in {len(self.families)} families. Every command returns the "
                   "firmware's or the transport's `VELT_ERROR` unchanged (0 is success).")
        out.append("")
        for fam in self.families:
            out += [f"## {fam.name}", "", fam.doc.strip(), "", f"Header: `kavo/{fam.header}`.", ""]
            codes = self.handler_codes(fam)
            if codes:
                out += ["Codes the family's firmware handlers answer besides success: " +
                        ", ".join(f"`{c}`" for c in codes) + ".", ""]
            for c in fam.commands:
                out += [f"### {c.name}", "", c.doc.strip(), "", "```c", c.signature(export=False) + ";", "```", ""]
                facts = []
                if c.op:
                    facts.append(f"operation `{c.op_name()}` ({self.op_values[c.op_name()]})")
                packing = [f"info.{'element_id' if f == 'element' else 'parent_id' if f == 'parent' else f} = "
                           f"`{c.fields[f]}`" for f in FIELDS if f in c.fields]
                if c.build:
                    packing.append(f"data = a `{c.build['type']}` built from the arguments")
                elif c.data:
                    packing.append(f"data = `{c.data}`")
                if c.data_size is not None:
                    packing.append(f"data_size = `{c.data_size}`")
                if packing:
                    facts.append("request: " + "; ".join(packing))
                if c.reply:
                    facts.append(f"reply payload into `{c.reply}`")
                if c.results:
                    facts.append("results: " + ", ".join(f"`{o.name}` from response.{f}" for o, f in c.results) +
                                 ("; a null result pointer halts" if c.checked else ""))
                if c.variation == "status":
                    facts.append("status family: counted and traced only while status tracing is on")
                if c.variation == "none":
                    facts.append("no statistics, no trace")
                if c.null_checks:
                    facts.append("null pointers refused before sending: " + ", ".join(
                        f"`{a}` with `{nc['result']}`" for nc in c.null_checks for a in nc["args"]))
                if c.hand:
                    facts.append("body written by hand")
                out += [f"- {fact}" for fact in facts] + [""]
        return "\n".join(out)

    # ---- kavoctl's catalogue ---------------------------------------------------------------

    def value_kind(self, base):
        kind = self.kind_of(base)
        if kind == "Enum":
            return "ENUM"
        if kind in ("Struct", "Union"):
            return "RECORD"
        return KINDS.get(base, "PTR")

    def ref(self, base):
        kind = self.kind_of(base)
        return (f"&enum_{base}" if kind == "Enum" else "nullptr",
                f"&record_{base}" if kind in ("Struct", "Union") else "nullptr")

    def catalogue(self):
        enums = [t for t in self.types.values() if type(t).__name__ == "Enum"]
        records = [t for t in self.types.values() if type(t).__name__ in ("Struct", "Union")]
        out = [self.banner.format(src="host/types and host/commands").rstrip(),
               "/* The catalogue kavoctl reaches every command through: commands with their",
               "   arguments, and the enumerations and records they take, member by member. */",
               "#include <cstddef>", "", "#include \"kavo/kavo_api.h\"", "#include \"catalogue.h\"", "",
               "namespace kavoctl {", "namespace {", ""]
        for e in enums:
            vals = ", ".join(f"{{\"{n}\", {v}u}}" for n, v in e.values)
            out.append(f"const enum_value values_{e.name}[] = {{{vals}}};")
            out.append(f"const enum_info enum_{e.name} = {{\"{e.name}\", \"{e.prefix}\", values_{e.name}, "
                       f"{len(e.values)}}};")
        out.append("")
        for r in records:
            out.append(f"extern const record_info record_{r.name};")
        out.append("")
        for r in records:
            rows = []
            if any(m.bits is not None for m in r.members):
                # Bit fields have no address: the record is shown as its whole value.
                rows.append(f"    {{\"value\", 0, sizeof({r.name}), 1, 1, value_kind::U{8 * r.size}, nullptr, nullptr, true}},")
            for m in (m for m in r.members if m.bits is None):
                for h in m.halves():
                    enum_ref, rec_ref = self.ref(h.type)
                    dims = h.dims + [1] * (2 - len(h.dims)) if len(h.dims) <= 2 else None
                    if dims is None:
                        raise CommandError(f"{r.name}.{h.name}: catalogue members have at most two dimensions")
                    rows.append(f"    {{\"{h.name}\", offsetof({r.name}, {h.name}), "
                                f"sizeof((({r.name}*)nullptr)->{h.name}) / {dims[0] * dims[1]}, {dims[0]}, "
                                f"{dims[1]}, value_kind::{self.value_kind(h.type)}, {enum_ref}, {rec_ref}, "
                                f"{'true' if 'hex' in h.flags else 'false'}}},")
            out.append(f"const member_info members_{r.name}[] = {{")
            out += rows
            out.append("};")
            if r.no_print:
                printer = "nullptr"
            elif r.defects:
                printer = f"[](const void* p, FILE*) {{ {r.name}_print((const {r.name}*)p, KAVO_DEFECT_PRINT_FILTER_ALL); }}"
            elif r.counts:
                printer = f"[](const void* p, FILE*) {{ {r.name}_print((const {r.name}*)p, KAVO_PMON_PRINT_ALL); }}"
            else:
                printer = f"[](const void* p, FILE* f) {{ {r.name}_print((const {r.name}*)p, f); }}"
            out.append(f"const record_info record_{r.name} = {{\"{r.name}\", sizeof({r.name}), "
                       f"{'true' if r.kind == 'union' else 'false'}, members_{r.name}, "
                       f"sizeof(members_{r.name}) / sizeof(members_{r.name}[0]), "
                       f"[](void* p) {{ {r.name}_init(({r.name}*)p); }}, {printer}}};")
        out.append("")
        commands = [c for f in self.families for c in f.commands]
        for c in commands:
            args = []
            for a in c.args:
                enum_ref, rec_ref = self.ref(a.base)
                size = "0" if a.base == "void" else f"sizeof({a.base})"
                args.append(f"    {{\"{a.name}\", \"{a.type}\", {'true' if a.direction == 'out' else 'false'}, "
                            f"{a.stars}, value_kind::{self.value_kind(a.base)}, {size}, {enum_ref}, {rec_ref}}},")
            out.append(f"const arg_info args_{c.name}[] = {{")
            out += args or ["    {nullptr, nullptr, false, 0, value_kind::U32, 0, nullptr, nullptr},"]
            out.append("};")
            callable_ = c.returns in ("VELT_ERROR", "void") and all(
                a.base != "void" and (a.stars <= 1 or (a.base == "char" and a.direction == "out")) for a in c.args)
            if callable_:
                params = []
                for i, a in enumerate(c.args):
                    if a.pointer:
                        params.append(f"({a.type})a[{i}]")
                    else:
                        params.append(f"*(const {a.base}*)a[{i}]")
                call = f"{c.name}({', '.join(params)})"
                body = f"return {call};" if c.returns == "VELT_ERROR" else f"{call}; return VELT_SUCCESS;"
                out.append(f"VELT_ERROR call_{c.name}(void* const* a) {{ {'(void)a; ' if not c.args else ''}{body} }}")
        out += ["", "}  // namespace", "", "const command_info COMMANDS[] = {"]
        for c in commands:
            callable_ = f"call_{c.name}" if f"VELT_ERROR call_{c.name}(" in "\n".join(out) else "nullptr"
            out.append(f"    {{\"{c.name}\", \"{c.family.name}\", {cstr(c.doc.strip())}, "
                       f"{cstr(c.signature(export=False))}, args_{c.name}, {len(c.args)}, {callable_}}},")
        out += ["};", "const size_t NUM_COMMANDS = sizeof(COMMANDS) / sizeof(COMMANDS[0]);", "",
                "const enum_info* const ENUMS[] = {"]
        out += [f"    &enum_{e.name}," for e in enums]
        out += ["};", "const size_t NUM_ENUMS = sizeof(ENUMS) / sizeof(ENUMS[0]);", "",
                "const record_info* const RECORDS[] = {"]
        out += [f"    &record_{r.name}," for r in records]
        out += ["};", "const size_t NUM_RECORDS = sizeof(RECORDS) / sizeof(RECORDS[0]);", "",
                "}  // namespace kavoctl", ""]
        return "\n".join(out)

    # ---- the wire test's cases ---------------------------------------------------------------

    def case(self, c):
        """One generated caller: distinct arguments, the request it must produce, and
        what the outputs must hold after a scripted reply."""
        lines = ["const UINT32 device_id = r.device_id;"] if c.args and c.args[0].name == "device_id" else []
        null_in = {a for nc in c.null_checks for a in nc["args"]}
        result_outs = {o.name for o, _ in c.results}
        checks = []
        for i, a in enumerate(c.args):
            if a.name == "device_id":
                continue
            kind = self.kind_of(a.base)
            if not a.pointer:
                if a.base in BOOLS:
                    lines.append(f"const {a.base} {a.name} = 1;")
                elif a.base in ("DOUBLE", "FLOAT"):
                    lines.append(f"const {a.base} {a.name} = {a.base}(1.5 + {i});")
                else:
                    lines.append(f"const {a.base} {a.name} = static_cast<{a.base}>(wire_value({i}));")
                continue
            if a.stars != 1:
                raise CommandError(f"{c.name}: the wire test takes single pointers only ({a.name})")
            store = a.base if kind in ("Struct", "Union") or a.base in KINDS or kind == "Enum" else None
            if store is None:
                raise CommandError(f"{c.name}: no wire storage for {a.type}")
            if a.direction == "in":
                lines.append(f"wire_input<{a.base}> in_{a.name}({i});")
                null = f"r.null_inputs ? nullptr : " if a.name in null_in else ""
                lines.append(f"{a.type} {a.name} = {null}in_{a.name}.get();")
            elif c.reply == a.name and kind not in ("Struct", "Union"):
                # A reply into a buffer of words: as much room as the size the case derives.
                lines.append(f"wire_output<std::array<UINT8, WIRE_BUFFER>> out_{a.name};")
                lines.append(f"{a.type} {a.name} = reinterpret_cast<{a.type}>(out_{a.name}.get());")
                checks.append((a, None))
            else:
                lines.append(f"wire_output<{a.base}> out_{a.name};")
                # Output records checked before sending are null with the inputs.
                null = ("r.null_inputs ? nullptr : " if a.name in null_in else
                        "r.null_outputs ? nullptr : " if a.name in result_outs else "")
                lines.append(f"{a.type} {a.name} = {null}out_{a.name}.get();")
                if c.reply == a.name:
                    checks.append((a, None))
                elif a.name in result_outs:
                    checks.append((a, dict((o.name, f) for o, f in c.results)[a.name]))
        if c.null_checks:
            # Refused before anything is sent: no request to expect, and the
            # expectations below may read the very pointers left null.
            lines.append(f"if (r.null_inputs) return {c.name}({', '.join(a.name for a in c.args)});")
        names = ("element", "mode", "parent", "flag")
        for k, f in enumerate(names):
            value = f"(UINT32)({c.fields[f]})" if f in c.fields else "0xFFFFFFFFu"
            if f == "flag" and f not in c.fields:
                value = "0u"
            lines.append(f"r.info[{k}] = {value};")
        data = c.data or ("&payload" if c.build else None)
        if c.build:
            t = c.build["type"]
            lines.append(f"{t} payload;")
            for member, expr in c.build.get("set", {}).items():
                if self.member_path(self.types[t], member).dims:
                    lines.append(f"std::memcpy(payload.{member}, {expr}, sizeof(payload.{member}));")
                else:
                    lines.append(f"payload.{member} = static_cast<decltype(payload.{member})>({expr});")
        if data:
            size, _ = self.size_expr(c, data, c.data_size)
            lines.append(f"r.expect_payload({data}, {size});")
        else:
            lines.append("r.expect_payload(nullptr, 0);")
        call = f"{c.name}({', '.join(a.name for a in c.args)})"
        lines.append(f"const VELT_ERROR rc = {call};")
        for a, field in checks:
            if field is None:
                size, _ = self.size_expr(c, a.name, c.reply_size)
                lines.append(f"r.observe(out_{a.name}.holds(r.reply, {size}), out_{a.name}.untouched());")
            else:
                lines.append(f"r.observe(out_{a.name}.value() == static_cast<{a.base}>(r.field(\"{field}\")), "
                             f"out_{a.name}.untouched());")
        lines.append("return rc;")
        reply = "0"
        if c.reply:
            reply, _ = self.size_expr(c, c.reply, c.reply_size)
            # A size computed from the arguments takes the values the case passes.
            for i, a in enumerate(c.args):
                if not a.pointer and a.name != "device_id":
                    reply = re.sub(rf"\b{a.name}\b", f"wire_value({i})", reply)
        null_result = c.null_checks[0]["result"] if c.null_checks else "VELT_SUCCESS"
        fn = f"VELT_ERROR run_{c.name}(wire_run& r)\n{{\n" + "".join(f"    {line}\n" for line in lines) + "}\n"
        entry = (f"    {{\"{c.name}\", \"{c.family.name}\", {c.op_name()}, \"{c.variation}\", "
                 f"{'true' if c.checked else 'false'}, {'true' if c.null_checks else 'false'}, {null_result}, "
                 f"(UINT32)({reply}), run_{c.name}}},")
        return fn, entry

    def cases(self):
        out = [self.banner.format(src="host/commands").rstrip(),
               "/* One case per regular command of the tables: a caller with distinct arguments,",
               "   the request it must produce and what its outputs must hold after a reply. */",
               "#include <array>", "#include <cstring>", "", "#include \"kavo_command_cases.h\"", "",
               "namespace kavo_test {", "namespace {", ""]
        entries = []
        for fam in self.families:
            for c in fam.commands:
                if c.hand:
                    continue
                fn, entry = self.case(c)
                out.append(fn)
                entries.append(entry)
        out += ["}  // namespace", "", "const wire_case WIRE_CASES[] = {"] + entries + ["};",
                "const size_t NUM_WIRE_CASES = sizeof(WIRE_CASES) / sizeof(WIRE_CASES[0]);", "",
                "}  // namespace kavo_test", ""]
        return "\n".join(out)

    # ---- the Python binding ------------------------------------------------------------------

    CTYPES = {"UINT8": "c_uint8", "UINT16": "c_uint16", "UINT32": "c_uint32", "UINT64": "c_uint64",
              "INT8": "c_int8", "INT16": "c_int16", "INT32": "c_int32", "INT64": "c_int64", "BOOL8": "c_uint8",
              "BOOL32": "c_uint32", "VELT_ERROR": "c_uint32", "DOUBLE": "c_double", "FLOAT": "c_float",
              "char": "c_char", "void*": "c_void_p"}

    def py_type(self, name):
        kind = self.kind_of(name)
        if kind == "Enum":
            return "ctypes.c_uint32"
        if kind in ("Struct", "Union"):
            return name
        return "ctypes." + self.CTYPES[name]

    def python(self, sim_enums):
        enums = [t for t in self.types.values() if type(t).__name__ == "Enum"] + sim_enums
        records = [t for t in self.types.values() if type(t).__name__ in ("Struct", "Union")]
        out = ["# generated by tools/gen/kavo_gen.py from host/types and host/commands: do not edit",
               '"""Records, enumerations and commands of libkavo, as ctypes declarations."""',
               "import ctypes", "from enum import IntEnum", "", "from ._library import Record, Union, command", ""]
        for e in enums:
            out.append(f"class {e.name}(IntEnum):")
            out += [f"    {n} = {v}" for n, v in e.values]
            out.append("")
        # records in declaration order: a record after those it contains
        done, order = set(), []

        def visit(r):
            if r.name in done:
                return
            done.add(r.name)
            for m in r.members:
                t = self.types.get(m.type)
                if t is not None and type(t).__name__ in ("Struct", "Union"):
                    visit(t)
            order.append(r)

        for r in records:
            visit(r)
        sizes, offsets = [], []
        for r in order:
            base = "Union" if r.kind == "union" else "Record"
            out.append(f"class {r.name}({base}):")
            out.append(f"    _init_ = \"{r.name}_init\"")
            fields = []
            for m in r.members:
                for h in m.halves():
                    t = self.py_type(h.type)
                    for d in reversed(h.dims):
                        t = f"({t} * {d})"
                    bits = getattr(h, "bits", None)
                    fields.append(f"(\"{h.name}\", {t}, {bits})" if bits else f"(\"{h.name}\", {t})")
                    if m.offset is not None and h is m.halves()[0]:
                        offsets.append(f"    (\"{r.name}\", \"{h.name}\", {m.offset}),")
            out.append("    _fields_ = [" + ", ".join(fields) + "]")
            out.append("")
            if r.size is not None:
                sizes.append(f"    \"{r.name}\": {r.size},")
        out += ["# Sizes and offsets the records must have (the C library checks them at compile time).",
                "SIZES = {"] + sizes + ["}", "OFFSETS = ["] + offsets + ["]", ""]
        for fam in self.families:
            for c in fam.commands:
                args = []
                for a in c.args:
                    kind = self.kind_of(a.base)
                    if a.base == "void":
                        ctype, shape = "ctypes.c_void_p", "opaque"
                    elif a.stars == 2:
                        ctype, shape = "ctypes.POINTER(ctypes.c_char_p)", "out_text_ptr"
                    elif a.stars == 1 and a.base == "char":
                        ctype, shape = "ctypes.c_char_p", "out_text" if a.direction == "out" else "text"
                    elif a.stars == 1:
                        ctype = f"ctypes.POINTER({self.py_type(a.base)})"
                        record = kind in ("Struct", "Union")
                        shape = ("out_record" if record else "out_scalar") if a.direction == "out" else \
                                ("in_record" if record else "in_array")
                    else:
                        ctype, shape = self.py_type(a.base), "scalar"
                    args.append(f"(\"{a.name}\", {ctype}, \"{shape}\", {self.py_type(a.base) if a.base != 'void' else 'None'})")
                ret = {"VELT_ERROR": "\"code\"", "void": "None"}.get(c.returns, "None")
                out.append(f"{c.name} = command(\"{c.name}\", {ret}, [{', '.join(args)}],")
                out.append(f"    {cstr(c.doc.strip())})")
        out.append("")
        return "\n".join(out)

    def outputs(self):
        self.check()
        files = {}
        for fam in self.families:
            files[f"host/include/kavo/{fam.header}"] = self.header_text(fam)
            src = self.source_text(fam)
            if src:
                files[f"host/api/generated/src/kavo_api_{fam.name}_gen.cpp"] = src
        files["host/include/kavo/kavo_api.h"] = self.umbrella()
        files["docs/reference/commands.md"] = self.reference()
        files["tools/kavoctl/generated/kavo_catalogue.cpp"] = self.catalogue()
        files["tests/generated/cases/kavo_command_cases.cpp"] = self.cases()
        files["python/kavo/_generated.py"] = self.python(self.sim_enums)
        return files


def cstr(text):
    return "\"" + text.replace("\\", "\\\\").replace("\"", "\\\"").replace("\n", "\\n") + "\""


def generate(root, types, banner, sim_enums=()):
    try:
        g = Generator(root, load_families(root), types, banner)
        g.sim_enums = list(sim_enums)
        return g.outputs()
    except (KeyError, tomllib.TOMLDecodeError) as e:
        raise CommandError(f"command tables: {e}")
