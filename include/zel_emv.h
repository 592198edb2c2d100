/* Payment cards: the primary account number and the last entry of the transaction log of a contactless
 * payment card, read through APDUs on the global reader, and the parts these are built from: the tree of a
 * card's BER-TLV answers, the tag table, the lookups in a tree, the data of GET PROCESSING OPTIONS and the
 * country and currency tables.
 *
 * Sizes the calls take by contract (the interface passes none):
 *   EMV_GetPAN             pan holds at least EMV_PAN_TEXT_SIZE bytes (20 hexadecimal digits and a NUL);
 *   EMV_GetLastTransaction text holds at least EMV_LOG_TEXT_SIZE bytes;
 *   emvReadRecord          response holds at least EMV_RECORD_SIZE bytes;
 *   getAid, getAid__       aid holds at least EMV_AID_MAX bytes;
 *   parseEmvTag            data holds the whole object: header and value.
 * The card session must be up at ISO 14443-4 level before EMV_GetPAN or EMV_GetLastTransaction. Every
 * command goes to the card of the global reader (zel_global); there is no form on a handle of the caller's.
 * Trees, lists and values are allocated by the library: free a tree with emvTreeCleanup, an AFL list with
 * emvAflListCleanup, and the value of parseEmvTag and the data of formatGetProcessingOptionsDataField with
 * OrbFree. */
#ifndef ZEL_EMV_H
#define ZEL_EMV_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define EMV_PAN_TEXT_SIZE 21u
#define EMV_LOG_TEXT_SIZE 256u
#define EMV_RECORD_SIZE 256u
#define EMV_AID_MAX 16u
#define EMV_PAN_MAX_BYTES 10u /* a tag 5A above this gives EMV_ERR_TAG_WRONG_SIZE */
#define EMV_MAX_RECORDS 255u  /* the directory's record loop stops here */

/* Types of the tag table. Language, PAN, country, currency, date and DF name are carried for the reader of
 * a tree; the parser treats them as raw bytes. */
#define EMV_TYPE_TEXT 10u /* a NUL follows the copied value */
#define EMV_TYPE_LANGUAGE 11u
#define EMV_TYPE_PAN 12u
#define EMV_TYPE_COUNTRY 16u
#define EMV_TYPE_CURRENCY 17u
#define EMV_TYPE_DATE 18u
#define EMV_TYPE_DF_NAME 19u
#define EMV_TYPE_RAW 20u
#define EMV_TYPE_DOL 21u /* data object list: tags and lengths, parsed into the node's list */
#define EMV_TYPE_CONSTRUCTED 22u

/* One node of a parsed answer. */
typedef struct emv_tree_node {
    uint32_t tag;               /* 1 to 3 tag bytes as one big-endian number */
    uint32_t tag_bytes;         /* their count */
    const char *description;    /* from the tag table */
    uint32_t type;              /* from the tag table */
    uint8_t constructed;        /* type is EMV_TYPE_CONSTRUCTED */
    uint8_t *value;             /* copy of the value (primitive, non-empty, not in a list), or null */
    uint32_t value_len;         /* the length field as read */
    struct emv_tree_node *list; /* type 21: the data object list of the value */
    struct emv_tree_node *next; /* next node of the same level, or the next parsed answer */
    struct emv_tree_node *sub;  /* first child of a constructed node */
} emv_tree_node_t;

/* One entry of an Application File Locator. */
typedef struct afl_list_item {
    uint8_t sfi;
    uint8_t first_record;
    uint8_t last_record;
    uint8_t sda_records; /* records that take part in offline data authentication */
    struct afl_list_item *next;
} afl_list_item_t;

/* A row of the tag table; the closing row has tag 0, "UNKNOWN TAG", type 20 and tag_bytes 0. */
typedef struct emv_tag_row {
    uint32_t tag;
    const char *description;
    uint32_t type;
    uint32_t tag_bytes;
} emv_tag_row_t;

typedef struct emv_country {
    uint16_t num;
    const char *alpha2;
    const char *alpha3;
    const char *name;
} emv_country_t;

typedef struct emv_currency {
    uint16_t num;
    const char *alpha;
    const char *name;
} emv_currency_t;

/* The tables; each ends with its closing row, whose index equals the count. */
ZEL_API extern const emv_tag_row_t emv_tags[];
ZEL_API extern const uint32_t emv_tag_count;
ZEL_API extern const emv_country_t emv_countries[];
ZEL_API extern const uint32_t emv_country_count;
ZEL_API extern const emv_currency_t emv_currencies[];
ZEL_API extern const uint32_t emv_currency_count;

/* The implementations under EMV_GetPAN and EMV_GetLastTransaction; they use the global reader whatever the
 * handle, as the forms above do. */
ZEL_API ZEL_STATUS EMV_GetPANHnd(ZEL_HANDLE hnd, const char *df_name, char *pan);
ZEL_API ZEL_STATUS EMV_GetLastTransactionHnd(ZEL_HANDLE hnd, const char *df_name, char *text);

/* The tree parser: len bytes of answer into *out (cleared first). is_list 1 parses a data object list (tags
 * and lengths, no values). A failure frees what was built and leaves *out null. */
ZEL_API ZEL_STATUS newEmvTag(emv_tree_node_t **out, const uint8_t *data, int32_t len, uint8_t is_list);
ZEL_API void emvTreeCleanup(emv_tree_node_t *tree);
ZEL_API void emvAflListCleanup(afl_list_item_t *list);
/* One header and a copy of its value (OrbFree; null for an empty value). */
ZEL_API ZEL_STATUS parseEmvTag(const uint8_t *data, uint32_t *tag, uint8_t **value, uint32_t *tag_bytes,
                               uint32_t *length_bytes, uint32_t *value_len);
/* The row of the tag table, the closing row's index when the tag is not in it. */
ZEL_API uint32_t findEmvTagIndex(uint32_t tag);

/* READ RECORD of record in file sfi; the answer's data to response (EMV_RECORD_SIZE bytes), SW1 and SW2 to
 * sw. 6C xx is asked again once with Le xx; 62 82 counts as 90 00 and is written back so. */
ZEL_API ZEL_STATUS emvReadRecord(uint8_t *response, uint32_t *response_len, uint32_t sfi, uint32_t record,
                                 uint8_t sw[2]);

/* Lookups. The searches go through next and sub links in depth-first order (a node, its children, the nodes
 * after it). */
ZEL_API ZEL_STATUS getSfi(const emv_tree_node_t *tree, uint8_t *sfi);
ZEL_API ZEL_STATUS getAid(const emv_tree_node_t *tree, uint8_t *aid, uint8_t *aid_len);
ZEL_API ZEL_STATUS getAid__(const emv_tree_node_t *tree, uint8_t *aid, uint8_t *aid_len);
ZEL_API ZEL_STATUS getLogEntry(const emv_tree_node_t *tree, uint8_t *sfi, uint8_t *records);
ZEL_API ZEL_STATUS getLogEntry__(const emv_tree_node_t *tree, uint8_t *sfi, uint8_t *records);
ZEL_API ZEL_STATUS getPdol(const emv_tree_node_t *tree, const emv_tree_node_t **list);
ZEL_API ZEL_STATUS getAfl(const emv_tree_node_t *tree, afl_list_item_t **list, uint8_t *count);
ZEL_API ZEL_STATUS getAflFromResponseMessageTemplateFormat1(const emv_tree_node_t *tree, afl_list_item_t **list,
                                                            uint8_t *count);
ZEL_API ZEL_STATUS getListLength(const emv_tree_node_t *node, uint16_t *len);
/* The first node of the tag: its value and value length (*value null for a node without a value). */
ZEL_API ZEL_STATUS findEMVTagValue(const emv_tree_node_t *tree, uint32_t tag, const uint8_t **value,
                                   uint32_t *value_len);

/* The data field of GET PROCESSING OPTIONS for the PDOL in the tree (83 00 without one); allocated. */
ZEL_API ZEL_STATUS formatGetProcessingOptionsDataField(const emv_tree_node_t *tree, uint8_t **data, uint16_t *data_len);

/* Log entry fields: true when the list (a Log Format) names the field, with its offset in one entry. len is
 * the size of one entry: the field's bytes that the text reads (2, 3, 3, 6, 2, 2) must lie inside it. */
ZEL_API int isExistATCounter(const emv_tree_node_t *list, uint16_t *offset, uint32_t len);
ZEL_API int isExistTransactionDate(const emv_tree_node_t *list, uint16_t *offset, uint32_t len);
ZEL_API int isExistTransactionTime(const emv_tree_node_t *list, uint16_t *offset, uint32_t len);
ZEL_API int isExistAmountAuthorised(const emv_tree_node_t *list, uint16_t *offset, uint32_t len);
ZEL_API int isExistTransactionCurrency(const emv_tree_node_t *list, uint16_t *offset, uint32_t len);
ZEL_API int isExistTerminalCountry(const emv_tree_node_t *list, uint16_t *offset, uint32_t len);

/* Values of n BCD bytes, most significant first; 0 for n below 1. */
ZEL_API int32_t bin_bcd_to_i(const uint8_t *bytes, int32_t n);
ZEL_API long long bin_bcd_to_ll(const uint8_t *bytes, int32_t n);
/* True when every one of n bytes is a printable ASCII character (true for n 0). */
ZEL_API int isByteArrayPrintable(const uint8_t *bytes, uint32_t n);

/* Index of the numeric code in the table, the closing row's index when it is not there. */
ZEL_API uint32_t findCountryIndexByNumCode(uint16_t code);
ZEL_API uint32_t findCurrencyIndexByNumCode(uint16_t code);

#include "zel_emv_forms.h"

#ifdef __cplusplus
}
#endif

#endif
