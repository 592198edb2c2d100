/* The three call forms of an operation X:
 *   X(args)                 works on the global handle (a by-value copy of a record, see zel_handle.h);
 *   XM(ZEL_HANDLE, args)    works on the given handle;
 *   XHnd(ZEL_HANDLE, args)  the implementation.
 * X and XM only log the entry and forward. Each family keeps one list of its operations, a macro taking
 * two row macros:
 *   OP(return type, Name, (parameters), (arguments))   for operations with arguments,
 *   OP0(return type, Name)                             for operations without.
 * The list is expanded here into the declarations of all three forms, and once in the library into the
 * definitions of X and XM. */
#ifndef ZEL_FORMS_H
#define ZEL_FORMS_H

#include "zel_types.h"

#define ZEL_FORMS_HND_PARAMS(...) (ZEL_HANDLE hnd, __VA_ARGS__)

#define ZEL_DECLARE_FORMS(Ret, Name, Params, Args)        \
    ZEL_API Ret Name Params;                              \
    ZEL_API Ret Name##M ZEL_FORMS_HND_PARAMS Params;      \
    ZEL_API Ret Name##Hnd ZEL_FORMS_HND_PARAMS Params;

#define ZEL_DECLARE_FORMS0(Ret, Name)                     \
    ZEL_API Ret Name(void);                               \
    ZEL_API Ret Name##M(ZEL_HANDLE hnd);                  \
    ZEL_API Ret Name##Hnd(ZEL_HANDLE hnd);

/* Declares every form of every operation of a family list. */
#define ZEL_DECLARE_FAMILY(LIST) LIST(ZEL_DECLARE_FORMS, ZEL_DECLARE_FORMS0)

/* Families whose operations have no M form: X on the global handle and the implementation XHnd only. */
#define ZEL_DECLARE_FORMS_NO_M(Ret, Name, Params, Args)   \
    ZEL_API Ret Name Params;                              \
    ZEL_API Ret Name##Hnd ZEL_FORMS_HND_PARAMS Params;
#define ZEL_DECLARE_FORMS0_NO_M(Ret, Name)                \
    ZEL_API Ret Name(void);                               \
    ZEL_API Ret Name##Hnd(ZEL_HANDLE hnd);
#define ZEL_DECLARE_FAMILY_NO_M(LIST) LIST(ZEL_DECLARE_FORMS_NO_M, ZEL_DECLARE_FORMS0_NO_M)

#endif
