/* Basic types of the library's interface. Plain C: compiles as C11 and as C++. */
#ifndef ZEL_TYPES_H
#define ZEL_TYPES_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define ZEL_API __attribute__((visibility("default")))
#else
#define ZEL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Unsigned 32-bit status code: ZEL_OK (0) or a failure (zel_status.h). */
typedef uint32_t ZEL_STATUS;

/* One reader handle record (zel_handle.h). */
typedef struct zel_handle_record zel_handle_record;
typedef zel_handle_record *ZEL_HANDLE;

#ifdef __cplusplus
}
#endif
#endif
