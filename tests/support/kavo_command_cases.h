/* The wire cases of the command tables (generated into
   tests/generated/cases/kavo_command_cases.cpp): each calls its command with
   distinct arguments, says what request the firmware must receive, and
   observes whether the outputs hold exactly what the reply carried. The wire
   test and the command benchmark run them against the virtual device. */
#ifndef KAVO_COMMAND_CASES_H
#define KAVO_COMMAND_CASES_H

#include <cstring>
#include <vector>

#include "kavo/kavo_api.h"

namespace kavo_test {

/* A distinct small value per argument position: ids, sizes and codes that
   fit every buffer and are told apart on the wire. */
inline UINT32 wire_value(int position) { return 0x20u + 4u * UINT32(position); }

constexpr size_t WIRE_GUARD = 16;     // bytes watched past every output
constexpr UINT8 WIRE_UNTOUCHED = 0xEE; // what outputs hold before a call
constexpr size_t WIRE_BUFFER = 4096;   // room behind every pointer argument

/* Storage behind an input pointer: pattern bytes, as many as any size the
   command can derive from its arguments. */
template <class T> class wire_input {
  public:
    explicit wire_input(int position)
    {
        for (size_t i = 0; i < sizeof(bytes_); ++i) bytes_[i] = UINT8(i * 7 + UINT32(position) * 13 + 1);
    }
    T* get() { return reinterpret_cast<T*>(bytes_); }

  private:
    alignas(8) UINT8 bytes_[sizeof(T) > WIRE_BUFFER ? sizeof(T) : WIRE_BUFFER];
};

/* Storage behind an output pointer, followed by a guard. */
template <class T> class wire_output {
  public:
    wire_output() { std::memset(bytes_, WIRE_UNTOUCHED, sizeof(bytes_)); }
    T* get() { return reinterpret_cast<T*>(bytes_); }
    T value() const
    {
        T v;
        std::memcpy(static_cast<void*>(&v), bytes_, sizeof(T));
        return v;
    }
    /* The first size bytes are the reply's and nothing past them changed. */
    bool holds(const UINT8* reply, size_t size) const
    {
        if (std::memcmp(bytes_, reply, size) != 0) return false;
        for (size_t i = size; i < sizeof(bytes_); ++i)
            if (bytes_[i] != WIRE_UNTOUCHED) return false;
        return true;
    }
    bool untouched() const
    {
        for (UINT8 b : bytes_)
            if (b != WIRE_UNTOUCHED) return false;
        return true;
    }

  private:
    alignas(8) UINT8 bytes_[sizeof(T) + WIRE_GUARD];
};

/* One run of a case: the scripted reply it meets, and what it expects and saw. */
struct wire_run {
    UINT32 device_id = 0;
    const UINT8* reply = nullptr; // the reply payload the chip answers with
    UINT32 mode = 0, value = 0, value2 = 0, data_size = 0;
    bool null_outputs = false; // pass null for the outputs that take response fields
    bool null_inputs = false;  // pass null for the pointers checked before sending
    bool expectations = true;  // false: record nothing (benchmarks count the library's allocations)

    // Filled by the case.
    UINT32 info[4] = {};           // element_id, mode, parent_id, flag the request must carry
    std::vector<UINT8> payload;    // the request payload it must carry
    bool has_payload = false;
    bool outputs_hold_reply = true;
    bool outputs_untouched = true;

    void expect_payload(const void* data, size_t size)
    {
        if (!expectations) return;
        has_payload = data != nullptr;
        const UINT8* p = static_cast<const UINT8*>(data);
        payload.assign(p, p + (data ? size : 0));
    }
    void observe(bool holds_reply, bool untouched)
    {
        outputs_hold_reply = outputs_hold_reply && holds_reply;
        outputs_untouched = outputs_untouched && untouched;
    }
    UINT32 field(const char* name) const
    {
        return std::strcmp(name, "mode") == 0    ? mode
               : std::strcmp(name, "value") == 0 ? value
               : std::strcmp(name, "value2") == 0 ? value2
                                                  : data_size;
    }
};

struct wire_case {
    const char* name;
    const char* family;
    UINT32 operation;
    const char* variation; // plain, status or none
    bool checked;          // a null result output halts after a successful send
    bool null_checked;     // some pointers are refused before anything is sent
    VELT_ERROR null_result;
    UINT32 reply_size; // bytes of reply payload the command takes; 0 when none
    VELT_ERROR (*run)(wire_run& r);
};

extern const wire_case WIRE_CASES[];
extern const size_t NUM_WIRE_CASES;

}  // namespace kavo_test

#endif
