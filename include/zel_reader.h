/* What the reader tells of itself. */
#ifndef ZEL_READER_H
#define ZEL_READER_H

#include "zel_forms.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_FAMILY_READER_IDENTITY(OP, OP0) \
    OP(ZEL_STATUS, GetReaderType, (uint32_t *reader_type), (reader_type))

ZEL_DECLARE_FAMILY(ZEL_FAMILY_READER_IDENTITY)

#ifdef __cplusplus
}
#endif
#endif
