/* SerDes commands written by hand: the microcode load streams a file. The
   regular SerDes commands are generated from host/commands/serdes.toml. */
#include "kavo_api_serdes.h"

#include "kavo_command_frame.h"
#include "velt_customer_os.h"
#include "velt_sys.h"

namespace {
constexpr UINT32 UCODE_FILE_HEADER_SIZE = 4096; // not sent: the file's own header
constexpr UINT32 UCODE_CHUNK_SIZE = 8192;
constexpr UINT32 UCODE_CLOSING_SIZE = 24;
}  // namespace

void uint32_print_array(const UINT32* values, UINT32 count, FILE* stream)
{
    VELT_PRINTF(stream, "[");
    for (UINT32 i = 0; i < count; ++i)
        VELT_PRINTF(stream, i == 0 ? "%u" : ", %u", (unsigned)values[i]);
    VELT_PRINTF(stream, "]");
}

VELT_ERROR kavo_debug_serdes_load(const UINT32 device_id, char* serdes_binary_filename)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", %s", serdes_binary_filename ? serdes_binary_filename : "(null)");
    frame.trace_end();
    if (serdes_binary_filename == nullptr) {
        VELT_RUNTIME_ERROR(device_id, VELT_ERR_INVALID_ARGS);
        return VELT_ERR_INVALID_ARGS;
    }
    FILE* file = velt_sys_file_open(serdes_binary_filename);
    if (file == nullptr) {
        VELT_RUNTIME_ERROR(device_id, VELT_SHARED_ERR_FILE_OPEN_FAILED);
        return VELT_SHARED_ERR_FILE_OPEN_FAILED;
    }
    UINT8* chunk = static_cast<UINT8*>(velt_customer_os_malloc(UCODE_CHUNK_SIZE));
    if (chunk == nullptr) {
        VELT_RUNTIME_ERROR(device_id, VELT_SHARED_ERR_MALLOC_FAILED);
        velt_sys_file_close(file);
        return VELT_SHARED_ERR_MALLOC_FAILED;
    }

    VELT_ERROR rc = VELT_SUCCESS;
    UINT32 sent = 0; // offset of the next chunk within the data sent
    for (;;) {
        UINT32 at = UCODE_FILE_HEADER_SIZE + sent;
        UINT32 length = UCODE_CHUNK_SIZE;
        // A file that cannot be read (a directory, an I/O error) is not one
        // that has ended: it is refused as one that cannot be opened.
        if (velt_sys_file_read(file, chunk, &at, &length) != 0 || std::ferror(file)) {
            rc = VELT_SHARED_ERR_FILE_OPEN_FAILED;
            VELT_RUNTIME_ERROR(device_id, rc);
            break;
        }
        if (length == 0) break;
        frame.request(KAVO_HTL_OPERATION_DEBUG_SERDES_LOAD).mode(sent).data(chunk, length);
        rc = frame.send();
        if (rc != VELT_SUCCESS) break;
        sent += length;
    }
    if (rc == VELT_SUCCESS) {
        static const UINT8 closing[UCODE_CLOSING_SIZE] = {};
        frame.request(KAVO_HTL_OPERATION_DEBUG_SERDES_LOAD).mode(sent).data(closing, UCODE_CLOSING_SIZE);
        rc = frame.send();
    }
    velt_customer_os_free(&chunk);
    velt_sys_file_close(file);
    return rc;
}
