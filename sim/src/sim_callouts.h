// The print callouts both callout tables share.
#ifndef KAVO_SIM_SIM_CALLOUTS_H
#define KAVO_SIM_SIM_CALLOUTS_H

#include "kavo/kavo_api.h"

namespace kavo_sim {

int log_to_file(void* log_ctx, FILE* file, const char* format, ...) __attribute__((format(printf, 3, 4)));
void* log_context_init(UINT32, UINT32, const char*);

} // namespace kavo_sim

#endif
