/* The log line: a fixed header "%d:0x%x:%s:%d:%s()" padded so that the
   message starts in column 61, then the message, as two print callouts. */
#ifndef VELT_SHARED_LOG_H
#define VELT_SHARED_LOG_H

#include <map>
#include <string>

#include "kavo/kavo_api.h"
#include "velt_customer_os.h"
#include "velt_log.h"
#include "velt_sys.h"

/* Device id of log lines that belong to no device. */
constexpr int VELT_LOG_NO_DEVID = -1;

/* Part of a path after its last "/" (or, failing that, its last "\\"). */
const char* velt_log_extract_file_name(const char* path);
/* Prints the header of one log line through the print callout. */
void velt_log_header(int device_id, UINT32 code, const char* file, int line, const char* function);
/* Name of a result code, for " VELT_RUNTIME_ERROR( %s )\n" lines. */
inline const char* velt_err_name(VELT_ERROR code) { return kavo_err_t_print(static_cast<kavo_err_t>(code)); }

/* A line of the given severity; a suppressed line evaluates none of its arguments. */
#define VELT_LOG(dev, code, sev, ...)                                                  \
    do {                                                                               \
        if (global_verbosity >= (sev)) {                                               \
            velt_log_header((int)(dev), (UINT32)(code), __FILE__, __LINE__, __func__); \
            VELT_PRINTF(velt_global_log_file_ptr, __VA_ARGS__);                        \
        }                                                                              \
    } while (0)

/* A line written whatever the verbosity. */
#define VELT_LOG_ALWAYS(dev, code, ...)                                            \
    do {                                                                           \
        velt_log_header((int)(dev), (UINT32)(code), __FILE__, __LINE__, __func__); \
        VELT_PRINTF(velt_global_log_file_ptr, __VA_ARGS__);                        \
    } while (0)

/* " VELT_RUNTIME_ERROR( <name> )": a failure logged where it is found. */
#define VELT_RUNTIME_ERROR(dev, code) \
    VELT_LOG_ALWAYS(dev, code, " VELT_RUNTIME_ERROR( %s )\n", velt_err_name((VELT_ERROR)(code)))

/* Halts with the header, " ASSERT: " and the porting layer's assertion. */
[[noreturn]] void velt_log_assert(int device_id, UINT32 code, const char* file, int line, const char* function);
#define VELT_ASSERT_FAIL(dev, code) velt_log_assert((int)(dev), (UINT32)(code), __FILE__, __LINE__, __func__)

#define VELT_ASSERT_CODE(cond, dev, code)                 \
    do {                                                  \
        if (!(cond)) VELT_ASSERT_FAIL(dev, code);         \
    } while (0)

/* Register formatters of the firmware log decoder. Each returns its own static
   buffer, valid until the formatter's next call; they are not thread-safe. */
const char* display_register(UINT32 reg);                                   // "reg=0x%08x"
const char* display_block_name(UINT32 block);                               // "block=0x%08x"
const char* display_register_read(UINT32 addr, UINT32 mask, UINT32 value);  // "read addr=..., mask=..., value=..."
const char* display_register_write(UINT32 addr, UINT32 mask, UINT32 value); // "write addr=..., mask=..., value=..."

/* One function name per stack frame, innermost first. Stack capture is
   switched off in this build, so a backtrace has no frames; the layout is
   kept for builds that capture up to 30 frames of up to 99 characters. */
constexpr int VELT_LOG_BACKTRACE_MAX_FRAMES = 30;
constexpr int VELT_LOG_BACKTRACE_NAME_SIZE = 100;
struct velt_log_backtrace_t {
    UINT32 num_frames;
    char function_names[VELT_LOG_BACKTRACE_MAX_FRAMES][VELT_LOG_BACKTRACE_NAME_SIZE];
};
static_assert(sizeof(velt_log_backtrace_t) == 3004, "velt_log_backtrace_t is 3004 bytes");
/* Zero-fills bt and captures the stack; a null bt is a programming error. */
void velt_log_backtrace_get(velt_log_backtrace_t* bt);
/* "backtrace: %d %s\n" per frame, straight to standard output. */
void velt_log_backtrace_print();
/* The frame names joined by " <- ". */
std::string velt_log_backtrace_string_get();
/* The function name of a code address, from the symbol cache. An address
   the cache does not know needs the platform's symbol service, which this
   build lacks: the process then ends with perror("backtrace_symbols") and
   exit status 1. */
void velt_log_lookup_symbol(void* addr, char* name, int size);
/* Copies the cached name of addr into name (bounded by size); false when
   the cache does not know addr. */
bool find_addr_in_symbol_name_cache(void* addr, char* name, int size);
/* The symbol of a platform symbol line "path/module(symbol+0x1f) [0x...]"
   into out, bounded by size. A line without "(" (or whose "+" comes before
   it) is copied whole; a symbol of 500 characters or more leaves out as it is. */
void velt_log_extract_symbol(const char* line, char* out, int size);
/* The bare function name of a demangled signature: "void ns::f(int)" gives
   "ns::f"; at most size - 1 characters, NUL-terminated. */
void velt_log_extract_function_name(const char* signature, char* out, int size);

/* Process-wide cache of code address -> symbol name, guarded by its own lock. */
class kavo_symbol_table {
public:
    static kavo_symbol_table& instance();
    virtual ~kavo_symbol_table();
    kavo_symbol_table(const kavo_symbol_table&) = delete;
    kavo_symbol_table& operator=(const kavo_symbol_table&) = delete;

    /* Stores (replacing) the name of addr. */
    void add(void* addr, const char* name);
    /* The stored name of addr, or null; valid while the entry is not replaced. */
    const char* find(void* addr);

private:
    kavo_symbol_table();
    std::map<void*, std::string>* _symbol_table;
    velt_sys_atomic_t _lock;
};

#endif /* VELT_SHARED_LOG_H */
