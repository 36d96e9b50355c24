#include "velt_shared_log.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

const char* velt_log_extract_file_name(const char* path)
{
    if (path == nullptr) return "";
    if (const char* slash = std::strrchr(path, '/')) return slash + 1;
    if (const char* back = std::strrchr(path, '\\')) return back + 1;
    return path;
}

void velt_log_assert(int device_id, UINT32 code, const char* file, int line, const char* function)
{
    velt_log_header(device_id, code, file, line, function);
    VELT_PRINTF(velt_global_log_file_ptr, " ASSERT: ");
    velt_customer_os_assert(code, velt_log_extract_file_name(file), line);
}

void velt_log_header(int device_id, UINT32 code, const char* file, int line, const char* function)
{
    const char* base = velt_log_extract_file_name(file);
    const int n = std::snprintf(nullptr, 0, "%d:0x%x:%s:%d:%s()", device_id, code, base, line, function);
    const int pad = n < 60 ? 60 - n : 0;
    VELT_PRINTF(velt_global_log_file_ptr, "%d:0x%x:%s:%d:%s()%*s", device_id, code, base, line, function, pad, "");
}

/* ---- register formatters ---- */

namespace {
template <size_t N, typename... Args>
const char* format_into(char (&buffer)[N], const char* format, Args... args)
{
    std::snprintf(buffer, N, format, args...);
    return buffer;
}
}  // namespace

const char* display_register(UINT32 reg)
{
    static char global_buffer_with_thread_safety_issues_but_this_is_only_a_simulation_hack[30];
    return format_into(global_buffer_with_thread_safety_issues_but_this_is_only_a_simulation_hack, "reg=0x%08x", reg);
}

const char* display_block_name(UINT32 block)
{
    static char global_buffer_with_thread_safety_issues_but_this_is_only_a_simulation_hack[30];
    return format_into(global_buffer_with_thread_safety_issues_but_this_is_only_a_simulation_hack, "block=0x%08x",
                       block);
}

const char* display_register_read(UINT32 addr, UINT32 mask, UINT32 value)
{
    static char global_buffer_with_thread_safety_issues_but_this_is_only_a_simulation_hack[100];
    return format_into(global_buffer_with_thread_safety_issues_but_this_is_only_a_simulation_hack,
                       "read addr=0x%08x, mask=0x%08x, value=0x%08x", addr, mask, value);
}

const char* display_register_write(UINT32 addr, UINT32 mask, UINT32 value)
{
    static char global_buffer_with_thread_safety_issues_but_this_is_only_a_simulation_hack[100];
    return format_into(global_buffer_with_thread_safety_issues_but_this_is_only_a_simulation_hack,
                       "write addr=0x%08x, mask=0x%08x, value=0x%08x", addr, mask, value);
}

/* ---- backtrace ---- */

void velt_log_backtrace_get(velt_log_backtrace_t* bt)
{
    VELT_ASSERT_CODE(bt != nullptr, VELT_LOG_NO_DEVID, VELT_SHARED_ERR_MEMSET_FAILED);
    std::memset(bt, 0, sizeof(*bt));
    // Stack capture is switched off in this build: num_frames stays 0.
}

void velt_log_backtrace_print()
{
    velt_log_backtrace_t bt;
    velt_log_backtrace_get(&bt);
    for (UINT32 i = 0; i < bt.num_frames; ++i) std::printf("backtrace: %d %s\n", (int)i, bt.function_names[i]);
}

std::string velt_log_backtrace_string_get()
{
    velt_log_backtrace_t bt;
    velt_log_backtrace_get(&bt);
    std::string text;
    for (UINT32 i = 0; i < bt.num_frames; ++i) {
        if (i != 0) text += " <- ";
        text += bt.function_names[i];
    }
    return text;
}

/* ---- symbols ---- */

namespace {
/* Symbols longer than this are not extracted. */
constexpr int symbol_scratch_size = 500;

/* The platform's symbol text of a code address, to be released with free();
   this build has no symbol service. */
char* platform_symbol_text(void*) { return nullptr; }

/* The demangled form of a symbol, to be released with free(); none in this build. */
char* platform_demangle(const char*) { return nullptr; }
}  // namespace

void velt_log_extract_function_name(const char* signature, char* out, int size)
{
    if (out == nullptr || size <= 0) return;
    const char* end = std::strpbrk(signature, "(<");
    if (end == nullptr) end = signature + std::strlen(signature);
    const char* blank = std::strchr(signature, ' ');
    const char* start = blank != nullptr && blank <= end ? blank + 1 : signature;
    while (std::isalnum((unsigned char)*end) || *end == ':' || *end == '_') ++end;
    const size_t n = std::min((size_t)(end - start), (size_t)size - 1);
    std::memcpy(out, start, n);
    out[n] = '\0';
}

void velt_log_extract_symbol(const char* line, char* out, int size)
{
    const char* slash = std::strrchr(line, '/');
    const char* tail = slash != nullptr ? slash + 1 : line;
    const char* open = std::strrchr(tail, '(');
    if (open == nullptr) {
        std::snprintf(out, size, "%s", line);
        return;
    }
    const char* close = std::strrchr(tail, '+');
    if (close == nullptr) close = std::strrchr(tail, ')');
    if (close == nullptr) close = tail + std::strlen(tail);
    const long length = close - (open + 1);
    if (length < 0) {
        std::snprintf(out, size, "%s", line);
        return;
    }
    if (length >= symbol_scratch_size) return;  // deliberately nothing written
    char symbol[symbol_scratch_size];
    std::memcpy(symbol, open + 1, (size_t)length);
    symbol[length] = '\0';
    if (char* demangled = platform_demangle(symbol)) {
        velt_log_extract_function_name(demangled, out, size);
        std::free(demangled);
        return;
    }
    std::snprintf(out, size, "%s", symbol);
}

kavo_symbol_table::kavo_symbol_table()
    : _symbol_table(new std::map<void*, std::string>()), _lock(velt_sys_atomic_create())
{
}

kavo_symbol_table::~kavo_symbol_table()
{
    velt_sys_atomic_delete(&_lock);
    delete _symbol_table;
}

kavo_symbol_table& kavo_symbol_table::instance()
{
    static kavo_symbol_table table;
    return table;
}

void kavo_symbol_table::add(void* addr, const char* name)
{
    velt_sys_atomic_start(_lock);
    (*_symbol_table)[addr] = name != nullptr ? name : "";
    velt_sys_atomic_end(_lock);
}

const char* kavo_symbol_table::find(void* addr)
{
    velt_sys_atomic_start(_lock);
    const auto it = _symbol_table->find(addr);
    const char* name = it != _symbol_table->end() ? it->second.c_str() : nullptr;
    velt_sys_atomic_end(_lock);
    return name;
}

bool find_addr_in_symbol_name_cache(void* addr, char* name, int size)
{
    const char* cached = kavo_symbol_table::instance().find(addr);
    if (cached == nullptr) return false;
    std::snprintf(name, size, "%s", cached);
    return true;
}

void velt_log_lookup_symbol(void* addr, char* name, int size)
{
    if (find_addr_in_symbol_name_cache(addr, name, size)) return;
    char* text = platform_symbol_text(addr);
    if (text == nullptr) {
        std::perror("backtrace_symbols");
        std::exit(1);
    }
    velt_log_extract_symbol(text, name, size);
    kavo_symbol_table::instance().add(addr, name);
    std::free(text);
}
