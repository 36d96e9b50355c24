#include "velt_shared_log.h"

#include <cstring>

const char* velt_log_extract_file_name(const char* path)
{
    if (path == nullptr) return "";
    if (const char* slash = std::strrchr(path, '/')) return slash + 1;
    if (const char* back = std::strrchr(path, '\\')) return back + 1;
    return path;
}

void velt_log_header(int device_id, UINT32 code, const char* file, int line, const char* function)
{
    const char* base = velt_log_extract_file_name(file);
    const int n = std::snprintf(nullptr, 0, "%d:0x%x:%s:%d:%s()", device_id, code, base, line, function);
    const int pad = n < 60 ? 60 - n : 0;
    VELT_PRINTF(velt_global_log_file_ptr, "%d:0x%x:%s:%d:%s()%*s", device_id, code, base, line, function, pad, "");
}
