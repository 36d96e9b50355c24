/* libkavo: host SDK of the kavo multi-protocol Ethernet transport chip.
   The one header an application includes. */
#ifndef KAVO_API_H
#define KAVO_API_H

#include "kavo/kavo_types.h"
#include "kavo/kavo_callout.h"
#include "kavo/gen/kavo_all_types.h"
#include "kavo/kavo_sdk.h"
#include "kavo/kavo_api_config.h"
#include "kavo/kavo_api_debug.h"
#include "kavo/kavo_api_ipi.h"

#endif /* KAVO_API_H */
