/* SerDes helpers of the library that the exported commands do not cover. */
#ifndef KAVO_API_SERDES_INTERNAL_H
#define KAVO_API_SERDES_INTERNAL_H

#include <cstdio>

#include "kavo/kavo_api.h"

/* Prints count values as "[a, b, c]" through the print callout (no newline). */
void uint32_print_array(const UINT32* values, UINT32 count, FILE* stream);

#endif
