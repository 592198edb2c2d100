// The X and XM forms of every operation, made from the family lists of the public headers: each logs its
// entry and forwards to XHnd, X with the global handle and XM with the caller's.
#include "tandro.h"

#define ZEL_FORMS_GLOBAL_ARGS(...) (&zel_global, __VA_ARGS__)
#define ZEL_FORMS_HND_ARGS(...) (hnd, __VA_ARGS__)

#define ZEL_DEFINE_FORMS(Ret, Name, Params, Args)                    \
    extern "C" ZEL_API Ret Name Params                               \
    {                                                                \
        dp(0, "API begin: %s()", __func__);                          \
        return Name##Hnd ZEL_FORMS_GLOBAL_ARGS Args;                 \
    }                                                                \
    extern "C" ZEL_API Ret Name##M ZEL_FORMS_HND_PARAMS Params       \
    {                                                                \
        dp(0, "API begin: %s()", __func__);                          \
        return Name##Hnd ZEL_FORMS_HND_ARGS Args;                    \
    }

#define ZEL_DEFINE_FORMS0(Ret, Name)                                 \
    extern "C" ZEL_API Ret Name(void)                                \
    {                                                                \
        dp(0, "API begin: %s()", __func__);                          \
        return Name##Hnd(&zel_global);                               \
    }                                                                \
    extern "C" ZEL_API Ret Name##M(ZEL_HANDLE hnd)                   \
    {                                                                \
        dp(0, "API begin: %s()", __func__);                          \
        return Name##Hnd(hnd);                                       \
    }

#define ZEL_DEFINE_FAMILY(LIST) LIST(ZEL_DEFINE_FORMS, ZEL_DEFINE_FORMS0)

#define ZEL_DEFINE_FORMS_NO_M(Ret, Name, Params, Args)               \
    extern "C" ZEL_API Ret Name Params                               \
    {                                                                \
        dp(0, "API begin: %s()", __func__);                          \
        return Name##Hnd ZEL_FORMS_GLOBAL_ARGS Args;                 \
    }
#define ZEL_DEFINE_FORMS0_NO_M(Ret, Name)                            \
    extern "C" ZEL_API Ret Name(void)                                \
    {                                                                \
        dp(0, "API begin: %s()", __func__);                          \
        return Name##Hnd(&zel_global);                               \
    }
#define ZEL_DEFINE_FAMILY_NO_M(LIST) LIST(ZEL_DEFINE_FORMS_NO_M, ZEL_DEFINE_FORMS0_NO_M)

ZEL_DEFINE_FAMILY(ZEL_FAMILY_READER_CLOSE)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_FRAME)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_READER_IDENTITY)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_READER_CONFIG)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_CARD_DETECT)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_ESP)
ZEL_DEFINE_FAMILY_NO_M(ZEL_FAMILY_ESP_SESSION)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_READER_RESET)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_MRTD_BAC)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_MRTD_VALIDATE)
ZEL_DEFINE_FAMILY_NO_M(ZEL_FAMILY_MRTD_SESSION)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_APDU_INTERFACE)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_APDU)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_APDU_BLOCKS)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_APDU_RAW)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_DESFIRE_CARD)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_DESFIRE_APPS)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_DESFIRE_FILES)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_DESFIRE_DATA)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_DESFIRE_KEYS)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_DESFIRE_FIXED)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_BLOCK)

// The ISO 15693 operations whose handle form is named X_M.
#define ZEL_DEFINE_FORMS_UNDERSCORE_M(Ret, Name, Params, Args)       \
    extern "C" ZEL_API Ret Name Params                               \
    {                                                                \
        dp(0, "API begin: %s()", __func__);                          \
        return Name##Hnd ZEL_FORMS_GLOBAL_ARGS Args;                 \
    }                                                                \
    extern "C" ZEL_API Ret Name##_M ZEL_FORMS_HND_PARAMS Params      \
    {                                                                \
        dp(0, "API begin: %s()", __func__);                          \
        return Name##Hnd ZEL_FORMS_HND_ARGS Args;                    \
    }
ZEL_DEFINE_FAMILY(ZEL_FAMILY_ISO15693)
ZEL_FAMILY_ISO15693_UNDERSCORE_M(ZEL_DEFINE_FORMS_UNDERSCORE_M, ZEL_DEFINE_FORMS0)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_NDEF)
ZEL_DEFINE_FAMILY_NO_M(ZEL_FAMILY_NDEF_DESFIRE)
ZEL_DEFINE_FAMILY(ZEL_FAMILY_T2T)
