/* Fixed-width types, the result type and the export macro of libkavo.
   Compiles as C11 and as C++17 or later. */
#ifndef KAVO_TYPES_H
#define KAVO_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

typedef uint8_t UINT8;
typedef uint16_t UINT16;
typedef uint32_t UINT32;
typedef uint64_t UINT64;
typedef int8_t INT8;
typedef int16_t INT16;
typedef int32_t INT32;
typedef int64_t INT64;
typedef uint8_t BOOL8;   /* 8-bit truth value */
typedef uint32_t BOOL32; /* 32-bit truth value */
typedef double DOUBLE;

/* Result of every operation: 0 is success, other values are kavo_err_t codes. */
typedef UINT32 VELT_ERROR;

#if defined(__GNUC__)
#define KAVO_API __attribute__((visibility("default")))
#else
#define KAVO_API
#endif

#ifdef __cplusplus
#define KAVO_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define KAVO_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

#endif /* KAVO_TYPES_H */
