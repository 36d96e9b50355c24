// Every command of the tables through the catalogue: `call NAME arg=value ...`,
// `help NAME` and `list [FAMILY]`.
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

#include "catalogue.h"
#include "kavo_sim/image.h"
#include "kavoctl.h"

namespace kavoctl {

const command_info* find_command(const std::string& name)
{
    for (size_t i = 0; i < NUM_COMMANDS; ++i)
        if (name == COMMANDS[i].name) return &COMMANDS[i];
    return nullptr;
}

const record_info* find_record(const std::string& name)
{
    for (size_t i = 0; i < NUM_RECORDS; ++i)
        if (name == RECORDS[i]->name) return RECORDS[i];
    return nullptr;
}

bool parse_enum(const enum_info& e, const std::string& text, UINT32& value)
{
    for (size_t i = 0; i < e.count; ++i) {
        const char* name = e.values[i].name;
        const size_t plen = std::strlen(e.prefix);
        if (text == name || (plen && std::strncmp(name, e.prefix, plen) == 0 && text == name + plen)) {
            value = e.values[i].value;
            return true;
        }
    }
    return kavo_sim::parse_u32(text.c_str(), value);
}

const char* enum_name(const enum_info& e, UINT32 value)
{
    for (size_t i = 0; i < e.count; ++i)
        if (e.values[i].value == value) return e.values[i].name;
    return nullptr;
}

namespace {

bool is_signed(value_kind k) { return k == value_kind::I8 || k == value_kind::I16 || k == value_kind::I32 || k == value_kind::I64; }
bool is_float(value_kind k) { return k == value_kind::F32 || k == value_kind::F64; }

/* Stores one scalar of the given kind and size from text; false when it does not fit. */
bool store_scalar(value_kind kind, size_t size, const enum_info* e, const std::string& text, void* at)
{
    if (is_float(kind)) {
        char* end = nullptr;
        errno = 0;
        const double d = std::strtod(text.c_str(), &end);
        if (text.empty() || *end != '\0' || errno != 0) return false;
        if (kind == value_kind::F32) {
            const float f = float(d);
            std::memcpy(at, &f, sizeof(f));
        } else {
            std::memcpy(at, &d, sizeof(d));
        }
        return true;
    }
    if (kind == value_kind::ENUM) {
        UINT32 v = 0;
        if (!e || !parse_enum(*e, text, v)) return false;
        std::memcpy(at, &v, 4);
        return true;
    }
    if (kind == value_kind::CHAR) {
        if (text.size() != 1) return false;
        std::memcpy(at, text.data(), 1);
        return true;
    }
    char* end = nullptr;
    errno = 0;
    const bool negative = !text.empty() && text[0] == '-';
    UINT64 bits = 0;
    if (negative) {
        if (!is_signed(kind)) return false;
        const long long v = std::strtoll(text.c_str(), &end, 0);
        const long long lo = size >= 8 ? INT64_MIN : -(1LL << (8 * size - 1));
        if (*end != '\0' || errno != 0 || v < lo) return false;
        bits = UINT64(v);
    } else {
        const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
        const unsigned long long hi = size >= 8 ? UINT64_MAX : (1ULL << (8 * size - (is_signed(kind) ? 1 : 0))) - 1;
        if (text.empty() || *end != '\0' || errno != 0 || v > hi) return false;
        bits = v;
    }
    std::memcpy(at, &bits, size); // little-endian host: the low bytes
    return true;
}

nlohmann::json scalar_json(value_kind kind, size_t size, const enum_info* e, const void* at)
{
    if (kind == value_kind::F64) return *static_cast<const double*>(at);
    if (kind == value_kind::F32) return double(*static_cast<const float*>(at));
    UINT64 bits = 0;
    std::memcpy(&bits, at, size);
    if (kind == value_kind::ENUM) {
        const char* name = e ? enum_name(*e, UINT32(bits)) : nullptr;
        if (name) return name;
        return bits;
    }
    if (is_signed(kind)) {
        const int shift = int(64 - 8 * size);
        return INT64(bits << shift) >> shift;
    }
    return bits;
}

nlohmann::json record_to_json(const record_info& r, const UINT8* base);

nlohmann::json member_json(const member_info& m, const UINT8* base)
{
    auto one = [&](size_t i) -> nlohmann::json {
        const UINT8* at = base + m.offset + i * m.element_size;
        if (m.kind == value_kind::RECORD && m.record) return record_to_json(*m.record, at);
        return scalar_json(m.kind, m.element_size, m.enumeration, at);
    };
    if (m.kind == value_kind::CHAR && m.count() > 1) {
        if (m.rows > 1 && m.cols > 1) {
            nlohmann::json rows = nlohmann::json::array();
            for (size_t r = 0; r < m.rows; ++r) {
                const char* text = reinterpret_cast<const char*>(base + m.offset + r * m.cols);
                rows.push_back(std::string(text, strnlen(text, m.cols)));
            }
            return rows;
        }
        const char* text = reinterpret_cast<const char*>(base + m.offset);
        return std::string(text, strnlen(text, m.count()));
    }
    if (m.count() == 1) return one(0);
    nlohmann::json out = nlohmann::json::array();
    if (m.cols > 1) {
        for (size_t r = 0; r < m.rows; ++r) {
            nlohmann::json row = nlohmann::json::array();
            for (size_t c = 0; c < m.cols; ++c) row.push_back(one(r * m.cols + c));
            out.push_back(row);
        }
        return out;
    }
    for (size_t i = 0; i < m.count(); ++i) out.push_back(one(i));
    return out;
}

nlohmann::json record_to_json(const record_info& r, const UINT8* base)
{
    nlohmann::json out = nlohmann::json::object();
    for (size_t i = 0; i < r.count; ++i) out[r.members[i].name] = member_json(r.members[i], base);
    return out;
}

/* Sets `path` (member, member[i], member[r][c], member.sub...) of a record from text. */
bool set_member(const record_info& r, UINT8* base, const std::string& path, const std::string& text, std::string& why)
{
    const size_t end = path.find_first_of(".[");
    const std::string name = path.substr(0, end);
    const member_info* m = nullptr;
    for (size_t i = 0; i < r.count; ++i)
        if (name == r.members[i].name) m = &r.members[i];
    if (m == nullptr) {
        why = std::string(r.name) + " has no member " + name;
        return false;
    }
    std::string rest = end == std::string::npos ? "" : path.substr(end);
    std::vector<size_t> index;
    while (!rest.empty() && rest[0] == '[') {
        const size_t close = rest.find(']');
        UINT32 i = 0;
        if (close == std::string::npos || !kavo_sim::parse_u32(rest.substr(1, close - 1).c_str(), i)) {
            why = "bad index in " + path;
            return false;
        }
        index.push_back(i);
        rest = rest.substr(close + 1);
    }
    size_t element = 0;
    const bool text_member = m->kind == value_kind::CHAR && m->count() > 1;
    if (index.size() == 2 && m->cols > 1) {
        if (index[0] >= m->rows || index[1] >= m->cols) {
            why = path + " is out of range";
            return false;
        }
        element = index[0] * m->cols + index[1];
    } else if (index.size() == 1) {
        if (index[0] >= (m->cols > 1 ? m->rows : m->count())) {
            why = path + " is out of range";
            return false;
        }
        element = m->cols > 1 && !text_member ? index[0] * m->cols : index[0];
        if (m->cols > 1 && !text_member) {
            why = path + " needs two indexes";
            return false;
        }
    } else if (!index.empty() || (m->count() > 1 && !text_member && m->kind != value_kind::RECORD)) {
        why = path + (index.empty() ? " is an array: give an index" : " has too many indexes");
        return false;
    }
    UINT8* at = base + m->offset + element * m->element_size;
    if (m->kind == value_kind::RECORD) {
        if (rest.empty() || rest[0] != '.' || !m->record) {
            why = path + " is a record: name one of its members";
            return false;
        }
        return set_member(*m->record, at, rest.substr(1), text, why);
    }
    if (!rest.empty()) {
        why = "bad member path " + path;
        return false;
    }
    if (text_member) {
        const size_t room = index.empty() ? m->count() : m->cols;
        if (text.size() > room) {
            why = path + " holds at most " + std::to_string(room) + " characters";
            return false;
        }
        UINT8* dst = index.empty() ? base + m->offset : base + m->offset + index[0] * m->cols;
        std::memset(dst, 0, room);
        std::memcpy(dst, text.data(), std::min(text.size(), room));
        return true;
    }
    if (!store_scalar(m->kind, m->element_size, m->enumeration, text, at)) {
        why = "bad value " + text + " for " + path;
        return false;
    }
    return true;
}

/* What a value of an argument looks like, for help. */
std::string arg_shape(const arg_info& a)
{
    if (a.stars == 0) {
        if (a.kind == value_kind::ENUM && a.enumeration) return std::string("a ") + a.enumeration->name + " constant";
        return is_float(a.kind) ? "a number" : "an integer";
    }
    if (a.kind == value_kind::RECORD && a.record)
        return a.out ? std::string("output record ") + a.record->name
                     : std::string("record ") + a.record->name + ": " + a.name + ".MEMBER=VALUE over its defaults";
    if (a.kind == value_kind::CHAR && !a.out) return "text";
    if (a.stars == 2) return "output text";
    return a.out ? "output value" : "values separated by commas";
}

int cmd_list(const settings&, const args_t& args)
{
    if (args.size() > 1) return usage_error("list [FAMILY]");
    size_t shown = 0;
    for (size_t i = 0; i < NUM_COMMANDS; ++i) {
        const command_info& c = COMMANDS[i];
        if (!args.empty() && args[0] != c.family) continue;
        std::string doc = c.doc;
        doc = doc.substr(0, doc.find('\n'));
        std::printf("%-44s %-9s %s\n", c.name, c.family, doc.c_str());
        ++shown;
    }
    if (shown == 0) return usage_error("no command family " + args[0]);
    return 0;
}

int cmd_help(const settings&, const args_t& args)
{
    if (args.size() != 1) return usage_error("help NAME");
    const command_info* c = find_command(args[0]);
    if (c == nullptr) {
        const verb* v = find_verb(args[0]);
        if (v == nullptr) return usage_error("no command " + args[0]);
        std::printf("kavoctl %s %s\n    %s\n", v->name, v->usage, v->summary);
        return 0;
    }
    std::printf("%s;\n\n%s\n\nfamily %s; kavoctl call %s", c->signature, c->doc, c->family, c->name);
    for (size_t i = 1; i < c->num_args; ++i)
        if (!c->args[i].out) std::printf(" %s=...", c->args[i].name);
    std::printf("\n");
    for (size_t i = 0; i < c->num_args; ++i)
        std::printf("    %-24s %s\n", c->args[i].name, arg_shape(c->args[i]).c_str());
    if (c->call == nullptr) std::printf("(not callable from kavoctl)\n");
    return 0;
}

/* The storage of one argument and what the caller said about it. */
struct slot {
    std::vector<UINT8> bytes;
    void* pointer = nullptr; // for char** outputs
    void* address = nullptr; // what the call receives
    bool given = false;
};

constexpr size_t OUTPUT_BUFFER = 65536;

int cmd_call(const settings& s, const args_t& args)
{
    if (args.empty()) return usage_error("call NAME [arg=value ...]");
    const command_info* c = find_command(args[0]);
    if (c == nullptr) return usage_error("no command " + args[0] + " (kavoctl list shows them)");
    if (c->call == nullptr) return usage_error(args[0] + " cannot be called from kavoctl");
    std::vector<slot> slots(c->num_args);
    std::vector<int> records; // input records, for member=value without the argument's name
    for (size_t i = 0; i < c->num_args; ++i) {
        const arg_info& a = c->args[i];
        slot& sl = slots[i];
        if (a.stars == 2) {
            sl.address = &sl.pointer;
            continue;
        }
        if (a.stars == 0) {
            sl.bytes.assign(std::max<size_t>(a.size, 8), 0);
        } else if (a.kind == value_kind::RECORD && a.record) {
            sl.bytes.assign(a.record->size, 0);
            a.record->init(sl.bytes.data());
            if (!a.out) records.push_back(int(i));
        } else {
            sl.bytes.assign(OUTPUT_BUFFER, 0);
        }
        sl.address = sl.bytes.data();
    }
    if (c->num_args > 0 && std::strcmp(c->args[0].name, "device_id") == 0) {
        std::memcpy(slots[0].bytes.data(), &s.device, 4);
        slots[0].given = true;
    }
    for (size_t k = 1; k < args.size(); ++k) {
        const std::string& word = args[k];
        const size_t eq = word.find('=');
        if (eq == std::string::npos) return usage_error(c->name + std::string(": ") + word + " is not arg=value");
        const std::string key = word.substr(0, eq), text = word.substr(eq + 1);
        const std::string head = key.substr(0, key.find_first_of(".["));
        int target = -1;
        for (size_t i = 0; i < c->num_args; ++i)
            if (head == c->args[i].name) target = int(i);
        std::string why;
        if (target >= 0 && c->args[target].out) return usage_error(std::string(c->name) + ": " + head + " is an output");
        if (target >= 0 && c->args[target].stars == 1 && c->args[target].kind == value_kind::RECORD) {
            const size_t dot = key.find('.');
            if (dot == std::string::npos) return usage_error(key + " is a record: give " + key + ".MEMBER=VALUE");
            if (!set_member(*c->args[target].record, slots[target].bytes.data(), key.substr(dot + 1), text, why))
                return usage_error(std::string(c->name) + ": " + why);
            continue;
        }
        if (target < 0) {
            // A member of the command's only input record.
            if (records.size() != 1) return usage_error(std::string(c->name) + " has no argument " + head);
            target = records[0];
            if (!set_member(*c->args[target].record, slots[target].bytes.data(), key, text, why))
                return usage_error(std::string(c->name) + ": " + why);
            continue;
        }
        const arg_info& a = c->args[target];
        slot& sl = slots[target];
        sl.given = true;
        if (a.stars == 0) {
            if (!store_scalar(a.kind, a.size, a.enumeration, text, sl.bytes.data()))
                return usage_error(std::string(c->name) + ": bad value " + text + " for " + a.name);
        } else if (a.kind == value_kind::CHAR) {
            if (text.size() >= sl.bytes.size()) return usage_error(std::string(a.name) + " is too long");
            std::memcpy(sl.bytes.data(), text.c_str(), text.size() + 1);
        } else {
            // A list of values: v1,v2,...
            size_t n = 0, at = 0;
            while (at <= text.size()) {
                const size_t comma = std::min(text.find(',', at), text.size());
                if ((n + 1) * a.size > sl.bytes.size() ||
                    !store_scalar(a.kind, a.size, a.enumeration, text.substr(at, comma - at), sl.bytes.data() + n * a.size))
                    return usage_error(std::string(c->name) + ": bad list " + text + " for " + a.name);
                ++n;
                at = comma + 1;
            }
        }
    }
    for (size_t i = 0; i < c->num_args; ++i)
        if (c->args[i].stars == 0 && !slots[i].given)
            return usage_error(std::string(c->name) + " needs " + c->args[i].name + "=VALUE");

    if (int failed = device_ready(s)) return failed;
    std::vector<void*> pointers(c->num_args);
    for (size_t i = 0; i < c->num_args; ++i) pointers[i] = slots[i].address;
    const VELT_ERROR rc = c->call(pointers.data());

    nlohmann::json outputs = nlohmann::json::object();
    for (size_t i = 0; rc == VELT_SUCCESS && i < c->num_args; ++i) {
        const arg_info& a = c->args[i];
        if (!a.out) continue;
        const slot& sl = slots[i];
        if (a.stars == 2) {
            const char* text = static_cast<const char*>(sl.pointer);
            outputs[a.name] = text ? text : "";
            if (!s.json) std::printf("%s: %s\n", a.name, text ? text : "(null)");
        } else if (a.kind == value_kind::RECORD && a.record) {
            outputs[a.name] = record_to_json(*a.record, sl.bytes.data());
            if (!s.json && a.record->print) a.record->print(sl.bytes.data(), stdout);
        } else if (a.kind == value_kind::CHAR) {
            const char* text = reinterpret_cast<const char*>(sl.bytes.data());
            outputs[a.name] = std::string(text, strnlen(text, sl.bytes.size()));
            if (!s.json) std::printf("%s: %s\n", a.name, outputs[a.name].get<std::string>().c_str());
        } else {
            outputs[a.name] = scalar_json(a.kind, a.size, a.enumeration, sl.bytes.data());
            if (!s.json) std::printf("%s: %s\n", a.name, json_text(outputs[a.name]).c_str());
        }
    }
    if (s.json) {
        nlohmann::json doc = result_json(rc);
        doc["command"] = c->name;
        doc["outputs"] = outputs;
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    return finish(rc, c->name);
}

const verb VERBS[] = {
    {"call", "NAME [arg=value | record.member=value ...]", "call any command of the library by name", cmd_call},
    {"help", "NAME", "a command's signature, description and arguments", cmd_help},
    {"list", "[FAMILY]", "the commands, or those of one family", cmd_list},
};

} // namespace

nlohmann::json record_json(const char* type_name, const void* record)
{
    const record_info* r = find_record(type_name);
    if (r == nullptr) return nullptr;
    return record_to_json(*r, static_cast<const UINT8*>(record));
}

std::span<const verb> catalogue_verbs() { return VERBS; }

} // namespace kavoctl
