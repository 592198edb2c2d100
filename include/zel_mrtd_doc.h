/* Travel documents on the reader: the BAC session and the file reads under secure messaging, the document
 * session that reads a whole document into one JSON text, the face and signature images, the textual data
 * groups, passive authentication of the document (MRTDValidate) and the reader of CSCA master list files.
 *
 * The card must lie on the reader with its ISO 14443-4 link up. Keys are 16 bytes, the send sequence counter
 * (SSC) a host integer moved by every read. Every buffer or text that a function allocates is freed with
 * OrbFree. */
#ifndef ZEL_MRTD_DOC_H
#define ZEL_MRTD_DOC_H

#include <stdio.h>

#include "zel_types.h"
#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* File identifiers (two bytes, high first): EF.COM 01 1E, EF.SOD 01 1D, data group n 01 n. */
#define MRTD_FILE_COM 0x011Eu
#define MRTD_FILE_SOD 0x011Du

/* The operations below are declared in zel_mrtd_doc_forms.h, generated from api/mrtd_doc.forms. MRTDValidate
 * and the document session give their XHnd other arguments than X: those XHnd are declared here by hand,
 * and the list declares X and XM of MRTDValidate and X alone of the session. */
#include "zel_mrtd_doc_forms.h"

/* ---- BAC and file reads on a reader ----
 * MRTDAppSelectAndAuthenticateBac: SELECT of the document application, GET CHALLENGE, EXTERNAL AUTHENTICATE
 * with the keys of the 24-character MRZ proto key; gives the session keys and the starting SSC.
 * MRTDFileReadBacToHeap: reads a whole file (file_id: two bytes) under secure messaging into an allocated
 * buffer; a failure in the middle still hands over the partial buffer. */

/* ---- Passive authentication ----
 * Reads EF.COM, EF.SOD and the data groups, compares the stored hashes, checks the signed attributes and
 * their signature, finds the CSCA of the document signer in cert_folder (single certificates first, then
 * "*.ml" master lists) and verifies both certificates. verbosity 0 writes no text (and skips the
 * comparisons), 1 headings and verdicts, 2 also hex values and key identifiers, 3 also every failure status.
 * *text is allocated (OrbFree); eol ends each line (null: "\n"). The Hnd form hands out the two truth
 * values: document integrity (DG1, DG2, DG14 and the security object all matched) and CSCA validity. */
#ifdef ZEL_BUILDING_LIBRARY
/* Where the X and XM forms keep the two truth values. */
extern uint8_t zel_mrtd_validation_flags[2];
#endif

ZEL_API ZEL_STATUS MRTDValidateHnd(ZEL_HANDLE hnd, const char *cert_folder, char **text, const char *eol,
                                   uint32_t verbosity, const uint8_t *ks_enc, const uint8_t *ks_mac, uint64_t *ssc,
                                   uint8_t *document_integrity, uint8_t *csca_root_validity);

/* ---- Document session ----
 * MRTD_SessionInit: BAC with the document number and the two dates (YYMMDD) on the global reader; the keys
 * and the SSC are kept for the process (one session for the whole library).
 * MRTD_ReadDocumentDataEx: reads the files that EF.COM lists (filter: null or "" for all, else data group
 * names such as "DG1,DG2") into one JSON object in out; on entry *out_len is the capacity, on return the
 * length of the text. flat 1 puts the members of every data group directly in the outer object; validate 1
 * adds the verdict of MRTDValidate with the folder "./csca" and answers its status.
 * MRTD_ReadDocumentData is the Ex form with flat and validate 1 and no filter.
 * MRTD_SessionClose forgets the keys and deselects the card. */
ZEL_API ZEL_STATUS MRTD_SessionInitHnd(ZEL_HANDLE hnd, const char *doc_number, const char *date_of_birth,
                                       const char *date_of_expiry);
ZEL_API ZEL_STATUS MRTD_ReadDocumentDataHnd(ZEL_HANDLE hnd, char *out, uint32_t *out_len, uint32_t flat,
                                            uint32_t validate, const char *filter);
ZEL_API ZEL_STATUS MRTD_SessionCloseHnd(ZEL_HANDLE hnd);
#ifdef ZEL_BUILDING_LIBRARY
/* The targets of the generated forms of MRTD_ReadDocumentData and _Ex. */
ZEL_STATUS MRTD_ReadDocumentDataExHnd(ZEL_HANDLE hnd, char *out, uint32_t *out_len, uint32_t flat, uint32_t validate,
                                      const char *filter);
#endif

/* ---- Data groups ---- */

/* The face image of a DG2 (an ISO/IEC 19794-5 record): *image points into dg2 (no copy), *format is
 * MRTD_IMAGE_JPEG or MRTD_IMAGE_JPEG2000. MRTD_EF_DG_WRONG_DATA for a file of another shape. */
ZEL_API ZEL_STATUS MRTDGetImageFromDG2(const uint8_t *dg2, int32_t len, const uint8_t **image, uint32_t *image_len,
                                       uint32_t *format);
/* The signature image of a DG7 (object 5F 43); the format comes from the image's first bytes, 0xFFFFFFFF
 * when it is neither JPEG nor JPEG 2000. */
ZEL_API ZEL_STATUS MRTDGetImageFromDG7(const uint8_t *dg7, int32_t len, const uint8_t **image, uint32_t *image_len,
                                       uint32_t *format);
/* The same images written to path with ".jpeg" or ".jp2" added (a DG7 of unknown format: no extension). */
ZEL_API ZEL_STATUS MRTDGetImageFromDG2ToFile(const uint8_t *dg2, uint32_t len, const char *path);
ZEL_API ZEL_STATUS MRTDGetImageFromDG7ToFile(const uint8_t *dg7, uint32_t len, const char *path);
/* The JSON members of a DG11, DG12 or DG13 (under "DG11":{...} unless flat); *json is allocated. */
ZEL_API ZEL_STATUS MRTD_DG_To_JSON_Heap(const uint8_t *dg, uint32_t len, char **json, uint8_t flat);
/* The JSON members of a DG1 (under "DG1":{...} unless flat); *json is allocated. */
ZEL_API ZEL_STATUS parse_dg1_to_JSON(const uint8_t *dg1, int32_t len, char **json, uint8_t flat);
/* The image of a DG2 (tag 0x75) or DG7 as a data URL member; *json is allocated. */
ZEL_API ZEL_STATUS parse_dg_image_to_JSON(uint8_t tag, const uint8_t *dg, uint32_t len, char **json, uint8_t flat);
/* Data group names ("DG1,DG2", "dg1 dg14") into 16 truth values. */
ZEL_API ZEL_STATUS parse_dg_filter_string(const char *filter, uint8_t *allowed16);
/* True when the data group of tag passes the filter (always when no filter is in force). */
ZEL_API int is_dg_allowed(uint8_t tag, const uint8_t *allowed16, uint8_t filter_active);
/* Base-64 (RFC 4648, "=" padding, NUL-terminated); 0, or 0xFFFFFFFF on a null pointer or too little room. */
ZEL_API uint32_t image_base64_encode(const uint8_t *in, uint64_t in_len, char *out, uint64_t out_cap,
                                     uint64_t *out_len);

/* ---- CSCA master lists ----
 * A master list file is an ICAO CSCA master list in DER (a SignedData with content type 2.23.136.1.1.2); its
 * signature is not verified. A search criterion takes part when its length is not 0. */
typedef struct icao_ml_search_criteria {
    const uint8_t *serial;
    const uint8_t *subject;
    const uint8_t *issuer;
    const uint8_t *ski;
    const uint8_t *aki;
    uint32_t serial_len;
    uint32_t subject_len;
    uint32_t issuer_len;
    uint32_t ski_len;
    uint32_t aki_len;
} icao_ml_search_criteria;

ZEL_API ZEL_STATUS icaoMlOpen(const char *path, FILE **ml);
/* Reads the header and seeks to the certificates: the offset and length of their SET. */
ZEL_API ZEL_STATUS icaoMlMoveToFirstCert(FILE *ml, uint32_t *start, uint32_t *length);
/* The certificate at the file's position (allocated), then the position moves behind it;
 * ICAO_ML_CERTIFICATE_NOT_FOUND at the end of the SET. */
ZEL_API ZEL_STATUS icaoMlGetCurrentCertAndMoveToNext(FILE *ml, uint8_t **cert, uint32_t *cert_len, uint32_t start,
                                                     uint32_t length);
ZEL_API void icaoMlClearSearchCriteria(icao_ml_search_criteria *criteria);
/* The first certificate of the list that meets every criterion (allocated). */
ZEL_API ZEL_STATUS icaoMlFindCert(FILE *ml, const icao_ml_search_criteria *criteria, uint8_t **cert,
                                  uint32_t *cert_len);
ZEL_API ZEL_STATUS icaoMlClose(FILE *ml);

#ifdef __cplusplus
}
#endif
#endif
