/* Decoder of one firmware debug-log record into text. */
#ifndef FW_LOG_PRINT_H
#define FW_LOG_PRINT_H

#include "kavo/kavo_types.h"

class kavo_fw_log;

/* Writes the message of `code` into out (at most out_size bytes). Sets
   *words_used to 3 or 5 when the message consumes more than two data words;
   callers start it at 2. Unknown codes give "illegal log code\n". */
void fw_log_print(kavo_fw_log* log, INT32 code, UINT32 d0, UINT32 d1, UINT32 d2, UINT32 d3, UINT32 d4, char* out,
                  UINT32 out_size, UINT32* words_used);

#endif /* FW_LOG_PRINT_H */
