#include "kavo_htl.h"

#include <cstdlib>
#include <cstring>

#include "kavo/kavo_api_debug.h"
#include "kavo_device.h"
#include "velt_shared_log.h"

kavo_htl::kavo_htl(UINT32 id, kavo_device* device)
    : _connected(0), device_id(id), _sequence_num(0), _request{}, _response{}, _device(device)
{
}

kavo_htl::~kavo_htl()
{
    if (is_connected()) disconnect();
}

VELT_ERROR kavo_htl::attach()
{
    _connected = 1;
    return VELT_SUCCESS;
}

void kavo_htl::disconnect()
{
    if (is_connected()) {
        VELT_LOG(VELT_LOG_NO_DEVID, HTL_LOG_CODE_DEBUG, VELT_LOG_SEV_LOW, " Disconnecting from the device\n");
        _connected = 0;
    } else {
        VELT_LOG(VELT_LOG_NO_DEVID, HTL_LOG_CODE_DEBUG, VELT_LOG_SEV_LOW, " Not connected to the device\n");
    }
}

VELT_ERROR kavo_htl::request_send(kavo_htl_request_t& request, kavo_htl_response_t& response)
{
    request.sequence_num = _sequence_num++;
    VELT_ERROR rc = write_request(&request);
    if (rc == VELT_SUCCESS) rc = notify_device();
    if (rc == VELT_SUCCESS) rc = response_get(response);
    if (rc != VELT_SUCCESS) return rc;

    if (response.operation == request.operation && response.sequence_num == request.sequence_num &&
        response.device_id == request.device_id) {
        if (response.result == VELT_SUCCESS) return VELT_SUCCESS;
        VELT_LOG_ALWAYS(device_id, VELT_SHARED_LOG_TRACE, " operation Failed. Result=0x%x (%s)\n", response.result,
                        velt_err_name(response.result));
        return response.result;
    }
    VELT_LOG_ALWAYS(device_id, HTL_ERR_DEVICE_RESPONSE_INVALID, " response invalid\n");
    VELT_LOG_ALWAYS(device_id, HTL_ERR_DEVICE_RESPONSE_INVALID, " sent: device_id:%d, operation:%s(%d) sequence_num:%d\n",
                    request.device_id, kavo_htl_operation_t_print(request.operation), request.operation,
                    request.sequence_num);
    VELT_LOG_ALWAYS(device_id, HTL_ERR_DEVICE_RESPONSE_INVALID,
                    " received: device_id:%d, operation:%s(%d) sequence_num:%d\n", response.device_id,
                    kavo_htl_operation_t_print(response.operation), response.operation, response.sequence_num);
    VELT_RUNTIME_ERROR(device_id, HTL_ERR_DEVICE_RESPONSE_INVALID);
    return HTL_ERR_DEVICE_RESPONSE_INVALID;
}

VELT_ERROR kavo_htl::write_request(const kavo_htl_request_t* request)
{
    VELT_ASSERT_CODE(request != nullptr, device_id, VELT_SHARED_ERR_MEMCPY_FAILED);
    auto* image = reinterpret_cast<UINT8*>(_request);
    std::memcpy(image, request, KAVO_HTL_HEADER_SIZE);
    UINT32 n = KAVO_HTL_HEADER_SIZE;
    if (request->data_ptr != nullptr && request->data_size != 0) {
        n = KAVO_HTL_HEADER_SIZE + request->data_size;
        if (n > VELT_SHARED_MEMORY_HTL_REQUEST_SIZE || n < request->data_size) VELT_ASSERT_FAIL(device_id, VELT_ERR_FAIL);
        std::memcpy(image + KAVO_HTL_HEADER_SIZE, request->data_ptr, request->data_size);
    }
    velt_sys_burst_write(_device->sys_handle(), VELT_SHARED_MEMORY_HTL_REQUEST_ADDR, n / 4, _request);
    return VELT_SUCCESS;
}

VELT_ERROR kavo_htl::notify_device()
{
    if (!is_connected()) return HTL_ERR_DEVICE_NOT_CONNECTED;
    if (!_device->ipi().post_host_request()) return VELT_SUCCESS;
    VELT_RUNTIME_ERROR(device_id, HTL_ERR_DEVICE_NOT_READY);
    return HTL_ERR_DEVICE_NOT_READY;
}

VELT_ERROR kavo_htl::response_get(kavo_htl_response_t& response)
{
    VELT_ERROR rc = VELT_SUCCESS;
    if (!_device->ipi().device_reply_is_ready()) {
        VELT_LOG_ALWAYS(device_id, 0x3401, " HOST_MSG IPI: %u\n",
                        (unsigned)_device->ipi().is_ipi_bit_set(VELT_IPI_HTL_DTL_MESSAGE));
        VELT_RUNTIME_ERROR(device_id, HTL_ERR_DEVICE_OFFLINE);
        _device->dump_firmware_info(velt_global_log_file_ptr, KAVO_FW_LOG_DUMP_ALL);
        response.device_id = device_id;
        response.operation = LAST_KAVO_HTL_OPERATION;
        response.result = HTL_ERR_DEVICE_OFFLINE;
        VELT_RUNTIME_ERROR(device_id, HTL_ERR_DEVICE_OFFLINE);
        _connected = 0;
        rc = HTL_ERR_DEVICE_OFFLINE;
    } else {
        kavo_htl_response_t header;
        velt_sys_burst_read(_device->sys_handle(), VELT_SHARED_MEMORY_HTL_RESPONSE_ADDR, KAVO_HTL_HEADER_SIZE / 4,
                            _response);
        std::memcpy(static_cast<void*>(&header), _response, KAVO_HTL_HEADER_SIZE);
        response.device_id = header.device_id;
        response.sequence_num = header.sequence_num;
        response.operation = header.operation;
        response.result = header.result;
        response.mode = header.mode;
        response.value = header.value;
        response.value2 = header.value2;
        VELT_LOG(device_id, HTL_LOG_CODE_DEBUG, VELT_LOG_SEV_LOW,
                 " kavo_htl::response_get: device_id=%d, seq=%d mode=%d, operation=%d, result=%d, value=%d value2=%d ",
                 header.device_id, header.sequence_num, header.mode, header.operation, header.result, header.value,
                 header.value2);
        const UINT32 size = header.data_size;
        if (size != 0) {
            if (response.data_size >= size) {
                if (size + 40 > VELT_SHARED_MEMORY_HTL_RESPONSE_SIZE || size + 40 < size) {
                    VELT_LOG_ALWAYS(device_id, VELT_ERR_FAIL,
                                    " ASSERT: Reconstructing the HTL response failed due to message size too big\n");
                    velt_customer_os_assert(VELT_ERR_FAIL, velt_log_extract_file_name(__FILE__), __LINE__);
                }
                // The bytes past the last whole word are not read from the chip:
                // they come from a zeroed word, never from an earlier reply.
                if (size % 4 != 0) _response[KAVO_HTL_HEADER_SIZE / 4 + size / 4] = 0;
                velt_sys_burst_read(_device->sys_handle(), VELT_SHARED_MEMORY_HTL_RESPONSE_DATA_ADDR, size / 4,
                                    _response + KAVO_HTL_HEADER_SIZE / 4);
                VELT_ASSERT_CODE(response.data_ptr != nullptr, device_id, VELT_SHARED_ERR_MEMCPY_FAILED);
                std::memcpy(response.data_ptr, reinterpret_cast<UINT8*>(_response) + KAVO_HTL_HEADER_SIZE, size);
            } else {
                VELT_RUNTIME_ERROR(device_id, KAVO_ERR_FW_RESPONSE_SIZE_TOO_LARGE);
                rc = KAVO_ERR_FW_RESPONSE_SIZE_TOO_LARGE;
            }
        }
        response.data_size = size;
    }
    if (global_verbosity > VELT_LOG_SEV_EVENT)
        _device->dump_firmware_info(velt_global_log_file_ptr, KAVO_FW_LOG_DUMP_DBG);
    return rc;
}

VELT_ERROR kavo_htl::connect()
{
    if (is_connected()) return VELT_SUCCESS;
    kavo_htl_request_t request;
    request.operation = KAVO_HTL_OPERATION_STATUS;
    request.device_id = device_id;
    request.sequence_num = _sequence_num++;
    _connected = 1;
    VELT_ERROR rc = write_request(&request);
    if (rc == VELT_SUCCESS) rc = notify_device();
    if (rc == VELT_SUCCESS) {
        kavo_status_info_t status;
        kavo_htl_response_t response;
        response.data_ptr = &status;
        response.data_size = sizeof(status);
        rc = response_get(response);
        if (rc == VELT_SUCCESS &&
            (response.operation != KAVO_HTL_OPERATION_STATUS || response.device_id != device_id)) {
            VELT_LOG(VELT_LOG_NO_DEVID, HTL_LOG_CODE_DEBUG, VELT_LOG_SEV_LOW,
                     " Connection response invalid for device id = %d\n", device_id);
            rc = HTL_ERR_DEVICE_RESPONSE_INVALID;
        }
    }
    if (rc != VELT_SUCCESS) {
        _connected = 0;
        VELT_LOG(VELT_LOG_NO_DEVID, HTL_LOG_CODE_DEBUG, VELT_LOG_SEV_LOW,
                 " Failed to establish a connection for device id = %d\n", device_id);
        return rc;
    }
    VELT_LOG(VELT_LOG_NO_DEVID, HTL_LOG_CODE_DEBUG, VELT_LOG_SEV_LOW, " Connection established for device id = %d\n",
             device_id);

    // Firmware options from the environment travel as a debug command right after the handshake.
    if (const char* options = std::getenv("VELT_FW_OPTIONS")) {
        const size_t size = std::strlen(options) + 20;
        char* text = static_cast<char*>(velt_customer_os_calloc(size));
        std::snprintf(text, size, "noop %s", options);
        std::printf("VELT_FW_OPTIONS=\"%s\"\n", text);
        rc = kavo_debug_cmd(device_id, text, 0, nullptr);
        velt_customer_os_free(&text);
        if (rc != VELT_SUCCESS) {
            _connected = 0;
            VELT_LOG_ALWAYS(device_id, HTL_LOG_CODE_DEBUG, " bad VELT_FW_OPTIONS\n");
        }
    }
    return rc;
}
