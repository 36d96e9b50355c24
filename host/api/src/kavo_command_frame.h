/* The call frame shared by every exported command: statistics, timing guard,
   trace line, request construction, send, out-value copy. A command is a few
   declarative lines:

     VELT_ERROR kavo_connect(const UINT32 device_id, const UINT32 src, const UINT32 dst)
     {
         KAVO_COMMAND(frame, device_id);
         frame.trace(", 0x%x, 0x%x", src, dst);
         frame.request(KAVO_HTL_OPERATION_CONNECT).element(dst).parent(src);
         return frame.send();
     }

   The frame allocates nothing: request, response and timing guard live on the
   caller's stack, payloads are referenced in place. */
#ifndef KAVO_COMMAND_FRAME_H
#define KAVO_COMMAND_FRAME_H

#include "kavo/kavo_api.h"
#include "kavo_device.h"
#include "velt_function_stats.h"
#include "velt_log.h"
#include "velt_shared_log.h"

class kavo_command_frame {
  public:
    /* stats is the command's own statistics object, or null when the command
       is not counted (a status poll while status tracing is off). */
    kavo_command_frame(const char* name, UINT32 device_id, velt_function_stats* stats, bool status_family)
        : _measure(stats), _device_id(device_id), _tracing(stats != nullptr || !status_family),
          _status_family(status_family)
    {
        _tracing = _tracing && velt_global_function_logging_enabled;
        if (_tracing) trace_begin(name);
    }

    /* A fragment without arguments, printed as text. */
    void trace(const char* text)
    {
        if (_tracing) VELT_PRINTF(velt_global_log_file_ptr, "%s", text);
    }
    /* One trace fragment per argument, e.g. ", 0x%x". */
    template <typename... A>
    void trace(const char* format, A... args)
    {
        if (_tracing) VELT_PRINTF(velt_global_log_file_ptr, format, args...);
    }
    /* An input record, printed by its generated printer under `name`. */
    template <typename T>
    void trace_record(const char* name, const T* record)
    {
        if (!_tracing) return;
        VELT_PRINTF(velt_global_log_file_ptr, ",");
        if (record != nullptr) record->print(name, velt_global_log_file_ptr, 0, -1);
    }
    bool tracing() const { return _tracing; }

    /* Ends the trace line; status polls also close their timing here. Commands
       that act locally, without a request, call it before their work. */
    void trace_end()
    {
        if (_tracing) {
            VELT_PRINTF(velt_global_log_file_ptr, ")\n");
            _tracing = false;
        }
        if (_status_family) _measure.close();
    }

    /* Ends the trace line and starts the request. */
    kavo_command_frame& request(kavo_htl_operation_t operation)
    {
        trace_end();
        _request.device_id = _device_id;
        _request.operation = operation;
        return *this;
    }
    kavo_command_frame& element(UINT32 value) { return _request.info.element_id = value, *this; }
    kavo_command_frame& mode(UINT32 value) { return _request.info.mode = value, *this; }
    kavo_command_frame& parent(UINT32 value) { return _request.info.parent_id = value, *this; }
    kavo_command_frame& flag(UINT32 value) { return _request.info.flag = value, *this; }
    /* The command's input record, referenced in place. */
    kavo_command_frame& data(const void* record, UINT32 size)
    {
        _request.data_ptr = const_cast<void*>(record);
        _request.data_size = size;
        return *this;
    }
    /* The caller's output record: the reply payload lands there directly. */
    kavo_command_frame& reply(void* record, UINT32 size)
    {
        _response.data_ptr = record;
        _response.data_size = size;
        _with_response = true;
        return *this;
    }

    /* Sends; commands without results use the one-argument send, which
       refuses a reply payload. */
    VELT_ERROR send()
    {
        trace_end();
        return _with_response ? kavo_device::send(_request, _response) : kavo_device::send(_request);
    }
    /* Sends expecting scalar results in response(). */
    VELT_ERROR send_for_results()
    {
        _with_response = true;
        return send();
    }
    const kavo_htl_response_t& response() const { return _response; }
    kavo_htl_request_t& raw_request() { return _request; }

    /* Stores a scalar result in a caller's pointer that must not be null: a
       null pointer after a successful send is a programming error and halts. */
    template <typename T>
    void store_checked(T* out, UINT32 value, const char* file, int line, const char* function)
    {
        if (out == nullptr) velt_log_assert(VELT_LOG_NO_DEVID, VELT_ERR_FAIL, file, line, function);
        *out = static_cast<T>(value);
    }

    /* Pointer check of the MACsec and debug commands, before anything is sent:
       logs the header with the family's log code and the text (one of the
       KAVO_NULL_* texts below, which end without a line break). */
    bool pointer_missing(const void* pointer, UINT32 log_code, const char* message, const char* file, int line,
                         const char* function)
    {
        if (pointer != nullptr) return false;
        trace_end();
        velt_log_header((int)_device_id, log_code, file, line, function);
        VELT_PRINTF(velt_global_log_file_ptr, "%s", message);
        return true;
    }

  private:
    void trace_begin(const char* name);

    velt_function_stat_measure _measure;
    kavo_htl_request_t _request;
    kavo_htl_response_t _response;
    UINT32 _device_id;
    bool _tracing;
    bool _status_family;
    bool _with_response = false;
};

/* The texts of a refused null pointer; like the family's other refusals they
   carry no line break of their own. */
#define KAVO_NULL_INPUT " NULL Pointer supplied for Input parameter"
#define KAVO_NULL_OUTPUT " NULL Pointer supplied for Output parameter"
/* The log code of the debug commands' refusals: the transport's debug code,
   the family of the requests they make. */
constexpr UINT32 KAVO_DEBUG_LOG_CODE = HTL_LOG_CODE_DEBUG;

/* The command's statistics object, created on its first call. */
#define KAVO_COMMAND_STATS(name)                    \
    ([](const char* n) -> velt_function_stats* {    \
        static velt_function_stats stats(n);        \
        return &stats;                              \
    }(name))

/* A plain command: always counted and traced (when tracing is on). */
#define KAVO_COMMAND(frame, device_id) \
    kavo_command_frame frame(__func__, (device_id), KAVO_COMMAND_STATS(__func__), false)

/* A status poll: counted and traced only while status tracing is on. */
#define KAVO_STATUS_COMMAND(frame, device_id)                                                                       \
    kavo_command_frame frame(__func__, (device_id),                                                                 \
                             velt_global_trace_status_logging_enabled ? KAVO_COMMAND_STATS(__func__) : nullptr, true)

/* Stores a checked scalar result (see kavo_command_frame::store_checked). */
#define KAVO_STORE_CHECKED(frame, out, value) (frame).store_checked((out), (value), __FILE__, __LINE__, __func__)
#define KAVO_POINTER_MISSING(frame, pointer, code, message) \
    (frame).pointer_missing((pointer), (code), (message), __FILE__, __LINE__, __func__)
/* The debug commands' check of an input pointer. */
#define KAVO_DEBUG_INPUT_MISSING(frame, pointer) \
    KAVO_POINTER_MISSING(frame, pointer, KAVO_DEBUG_LOG_CODE, KAVO_NULL_INPUT)

#endif /* KAVO_COMMAND_FRAME_H */
