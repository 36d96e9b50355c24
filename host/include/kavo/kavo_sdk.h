/* Library-wide services besides the commands: the assertion handler and the
   option registry. */
#ifndef KAVO_SDK_H
#define KAVO_SDK_H

#include "kavo/kavo_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Programming errors (null pointers to the porting helpers, allocation
   failure, oversize payloads, misuse of the coalescing buffer) halt the
   calling thread for good. An application may install a handler that is run
   first, for example to abort the process or to log and reboot; when the
   handler returns, the thread halts as before. Null restores the default. */
typedef void (*kavo_assert_handler_t)(UINT32 code, const char* file, int line);
KAVO_API void kavo_assert_handler_set(kavo_assert_handler_t handler);

#ifdef __cplusplus
}
#endif

#endif /* KAVO_SDK_H */
