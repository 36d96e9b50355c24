#include "velt_customer_os.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "velt_log.h"
#include "velt_shared_log.h"

extern "C" {
tavo_callout_api_st* callout_ctx = nullptr;
qspi_callout_api_st* vendor_qspi_callout_ctx = nullptr;
}

namespace {
kavo_assert_handler_t assert_handler = nullptr;
}

extern "C" void kavo_assert_handler_set(kavo_assert_handler_t handler) { assert_handler = handler; }

void velt_customer_os_assert(UINT32 code, const char* file, int line)
{
    if (velt_log_verbosity_level_get(0) > VELT_LOG_SEV_MEDIUM)
        VELT_PRINTF(velt_global_log_file_ptr, " VELT_ASSERT (%s:%d) (0x%x)\n", file, line, code);
    if (assert_handler != nullptr) assert_handler(code, file, line);
    // The handler returned or there is none: halt this thread for good.
    for (;;) pause();
}

namespace {
UINT32 allocations_until_failure = 0;

bool allocation_fails()
{
    return allocations_until_failure != 0 && --allocations_until_failure == 0;
}
}  // namespace

void velt_customer_os_allocation_failure_set(UINT32 count) { allocations_until_failure = count; }

void* velt_customer_os_malloc(size_t size)
{
    void* p = allocation_fails() ? nullptr : std::malloc(size);
    VELT_ASSERT_CODE(p != nullptr, VELT_LOG_NO_DEVID, VELT_SHARED_ERR_MALLOC_FAILED);
    return p;
}

void* velt_customer_os_calloc(size_t size)
{
    void* p = allocation_fails() ? nullptr : std::calloc(1, size);
    VELT_ASSERT_CODE(p != nullptr, VELT_LOG_NO_DEVID, VELT_SHARED_ERR_MALLOC_FAILED);
    return p;
}

void velt_customer_os_free_function(void** ptr)
{
    if (ptr == nullptr || *ptr == nullptr) {
        VELT_LOG_ALWAYS(VELT_LOG_NO_DEVID, VELT_SHARED_ERR_FREE_NULL_PTR, " NULL passed to free()\n");
        return;
    }
    std::free(*ptr);
    *ptr = nullptr;
}

int velt_customer_os_memcmp(const void* a, const void* b, size_t size)
{
    VELT_ASSERT_CODE(a != nullptr && b != nullptr, VELT_LOG_NO_DEVID, VELT_SHARED_ERR_MEMCMP_FAILED);
    return std::memcmp(a, b, size);
}

size_t velt_customer_os_strlen(const char* s)
{
    VELT_ASSERT_CODE(s != nullptr, VELT_LOG_NO_DEVID, VELT_SHARED_ERR_STRLEN_FAILED);
    return std::strlen(s);
}

char* velt_customer_os_strcpy(char* dst, const char* src)
{
    VELT_ASSERT_CODE(dst != nullptr && src != nullptr, VELT_LOG_NO_DEVID, VELT_SHARED_ERR_STRCPY_FAILED);
    return std::strcpy(dst, src);
}

char* velt_customer_os_strcat(char* dst, const char* src)
{
    VELT_ASSERT_CODE(dst != nullptr && src != nullptr, VELT_LOG_NO_DEVID, VELT_SHARED_ERR_STRCAT_FAILED);
    return std::strcat(dst, src);
}
