/* The reader's outputs and tuning: sounds and light modes, the RGB LEDs, the small display, the speaker, the
 * door controller's outputs, sleep, and the analog registers of the RF front end; the secure element on the
 * reader's I2C bus and the feature blocks (discovery loop, mobile unique id). */
#ifndef ZEL_SIGNALS_H
#define ZEL_SIGNALS_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Sizes of what the secure element and the feature blocks deliver. */
#define ZEL_ATECC608_CONFIG_ZONE_LEN 128
#define ZEL_ATECC608_OTP_ZONE_LEN 64
#define ZEL_ATECC608_INFO_LEN 4
#define ZEL_MOBILE_AID_MAX_LEN 16
#define ZEL_MOBILE_DATA_MIN_LEN 32
/* Feature numbers of GetFeaturesSetup and SetFeatures. */
#define ZEL_FEATURE_DISCOVERY_LOOP 129
#define ZEL_FEATURE_MOBILE_UNIQUE_ID_AID 130

#include "zel_secure_forms.h"
#include "zel_signals_forms.h"

#ifdef __cplusplus
}
#endif
#endif
