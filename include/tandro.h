/* The whole interface of the library. */
#ifndef TANDRO_H
#define TANDRO_H

#include "zel_apdu.h"
#include "zel_async.h"
#include "zel_block.h"
#include "zel_card.h"
#include "zel_card_types.h"
#include "zel_crypto.h"
#include "zel_desfire.h"
#include "zel_desfire_crypto.h"
#include "zel_emv.h"
#include "zel_devices.h"
#include "zel_esp.h"
#include "zel_frame.h"
#include "zel_ftdi.h"
#include "zel_handle.h"
#include "zel_iso15693.h"
#include "zel_javacard.h"
#include "zel_t2t.h"
#include "zel_mrtd.h"
#include "zel_mrtd_doc.h"
#include "zel_ndef.h"
#include "zel_net.h"
#include "zel_open.h"
#include "zel_port.h"
#include "zel_reader.h"
#include "zel_signals.h"
#include "zel_status.h"
#include "zel_types.h"
#include "zel_x509.h"

#endif
