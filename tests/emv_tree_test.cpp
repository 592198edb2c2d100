// The payment card reader's pieces that need no card: the tree parser and its refusals, the lookups, the
// data of GET PROCESSING OPTIONS, the log entry text and the tables.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "emv/emv_internal.h"
#include "emv_test_support.h"
#include "tandro.h"

namespace {

using Bytes = std::vector<uint8_t>;

using emvtest::hex;

// A parsed tree freed with the object.
struct Parsed {
    emv_tree_node_t *root = nullptr;
    ZEL_STATUS st = ZEL_OK;
    explicit Parsed(const Bytes &b, uint8_t is_list = 0)
    {
        st = newEmvTag(&root, b.data(), static_cast<int32_t>(b.size()), is_list);
    }
    ~Parsed() { emvTreeCleanup(root); }
};

struct AflList {
    afl_list_item_t *list = nullptr;
    uint8_t count = 0;
    ~AflList() { emvAflListCleanup(list); }
};

// An FCI of an application: 6F { 84 AID, A5 { 50 label, 9F38 PDOL, BF0C { 9F4D log entry } } }.
const char *kFci = "6F 2F 84 07 A0000000031010 A5 24 50 09 53494D204445424954 9F38 0E 9F6604 9F0206 5F2A02 9A03 9F3704"
                   " BF0C 05 9F4D 02 0B 03";

TEST(EmvTree, ParsesNestedTemplatesWithTableTextsAndTypes)
{
    Parsed t(hex(kFci));
    ASSERT_EQ(t.st, ZEL_OK);
    const emv_tree_node_t *fci = t.root;
    ASSERT_NE(fci, nullptr);
    EXPECT_EQ(fci->tag, 0x6Fu);
    EXPECT_STREQ(fci->description, "File Control Information (FCI) Template");
    EXPECT_TRUE(fci->constructed);
    EXPECT_EQ(fci->value, nullptr);
    EXPECT_EQ(fci->value_len, 0x2Fu);
    EXPECT_EQ(fci->next, nullptr);
    const emv_tree_node_t *df = fci->sub;
    ASSERT_NE(df, nullptr);
    EXPECT_EQ(df->tag, 0x84u);
    EXPECT_EQ(df->type, EMV_TYPE_DF_NAME);
    ASSERT_EQ(df->value_len, 7u);
    EXPECT_EQ(Bytes(df->value, df->value + 7), hex("A0000000031010"));
    const emv_tree_node_t *prop = df->next;
    ASSERT_NE(prop, nullptr);
    EXPECT_EQ(prop->tag, 0xA5u);
    const emv_tree_node_t *label = prop->sub;
    ASSERT_NE(label, nullptr);
    EXPECT_EQ(label->type, EMV_TYPE_TEXT);
    EXPECT_STREQ(reinterpret_cast<const char *>(label->value), "SIM DEBIT"); // NUL added behind the copy
    const emv_tree_node_t *pdol = label->next;
    ASSERT_NE(pdol, nullptr);
    EXPECT_EQ(pdol->tag, 0x9F38u);
    EXPECT_EQ(pdol->tag_bytes, 2u);
    EXPECT_EQ(pdol->type, EMV_TYPE_DOL);
    // The data object list: tags and lengths, no values.
    std::vector<std::pair<uint32_t, uint32_t>> entries;
    for (const emv_tree_node_t *n = pdol->list; n; n = n->next) {
        EXPECT_EQ(n->value, nullptr);
        entries.emplace_back(n->tag, n->value_len);
    }
    const std::vector<std::pair<uint32_t, uint32_t>> want{
        {0x9F66, 4}, {0x9F02, 6}, {0x5F2A, 2}, {0x9A, 3}, {0x9F37, 4}};
    EXPECT_EQ(entries, want);
    const emv_tree_node_t *bf0c = pdol->next;
    ASSERT_NE(bf0c, nullptr);
    EXPECT_EQ(bf0c->tag, 0xBF0Cu);
    ASSERT_NE(bf0c->sub, nullptr);
    EXPECT_EQ(bf0c->sub->tag, 0x9F4Du);
}

TEST(EmvTree, LengthFormsTagSizesAndUnknownTags)
{
    // 0x81 and 0x82 lengths, a three-byte tag, an unknown tag: all parsed, in one chain.
    Bytes b = hex("9F7F 81 80");
    b.resize(b.size() + 0x80, 0xAB);
    const Bytes tail = hex("DF8101 82 0002 1234 C1 01 77");
    b.insert(b.end(), tail.begin(), tail.end());
    Parsed t(b);
    ASSERT_EQ(t.st, ZEL_OK);
    ASSERT_NE(t.root, nullptr);
    EXPECT_EQ(t.root->value_len, 0x80u);
    EXPECT_EQ(t.root->value[0x7F], 0xAB);
    const emv_tree_node_t *three = t.root->next;
    ASSERT_NE(three, nullptr);
    EXPECT_EQ(three->tag, 0xDF8101u);
    EXPECT_EQ(three->tag_bytes, 3u);
    EXPECT_STREQ(three->description, "UNKNOWN TAG");
    EXPECT_EQ(three->type, EMV_TYPE_RAW);
    EXPECT_EQ(three->value_len, 2u);
    const emv_tree_node_t *unknown = three->next;
    ASSERT_NE(unknown, nullptr);
    EXPECT_EQ(unknown->tag, 0xC1u);
    EXPECT_STREQ(unknown->description, "UNKNOWN TAG");
    EXPECT_EQ(unknown->value[0], 0x77);
}

TEST(EmvTree, RefusesWhatDoesNotAddUp)
{
    const struct {
        const char *bytes;
        ZEL_STATUS want;
    } cases[] = {
        // Two templates side by side: a template must run to the end.
        {"61 03 4F 01 A1 61 03 4F 01 A2", EMV_ERR_WRONG_INPUT_DATA},
        {"BF0C 0A 61 03 4F 01 A1 61 03 4F 01 A2", EMV_ERR_WRONG_INPUT_DATA},
        // A template shorter or longer than what follows.
        {"70 04 5A 01 11", EMV_ERR_WRONG_INPUT_DATA},
        {"70 02 5A 01 11", EMV_ERR_WRONG_INPUT_DATA},
        // Length fields of three bytes and more; the check comes before the bytes are there.
        {"5A 83 000001 11", EMV_ERR_MAX_TAG_LEN_BYTES_EXCEEDED},
        {"5A 84", EMV_ERR_MAX_TAG_LEN_BYTES_EXCEEDED},
        // Values, lengths and tags past the end.
        {"5A 08 4111", EMV_ERR_WRONG_INPUT_DATA},
        {"5A 82 01", EMV_ERR_WRONG_INPUT_DATA},
        {"5A", EMV_ERR_WRONG_INPUT_DATA},
        {"9F", EMV_ERR_WRONG_INPUT_DATA},
        {"DF 81", EMV_ERR_WRONG_INPUT_DATA},
        {"5A 01 11 9F", EMV_ERR_WRONG_INPUT_DATA},
        // A data object list that runs past its value.
        {"9F38 03 9F66 81", EMV_ERR_WRONG_INPUT_DATA},
    };
    for (const auto &c : cases) {
        Parsed t(hex(c.bytes));
        EXPECT_EQ(t.st, c.want) << c.bytes;
        EXPECT_EQ(t.root, nullptr) << c.bytes;
    }
    emv_tree_node_t *out = reinterpret_cast<emv_tree_node_t *>(1);
    EXPECT_EQ(newEmvTag(&out, nullptr, 4, 0), EMV_ERR_WRONG_INPUT_DATA);
    EXPECT_EQ(out, nullptr);
    const uint8_t one = 0x5A;
    EXPECT_EQ(newEmvTag(&out, &one, 0, 0), EMV_ERR_WRONG_INPUT_DATA);
}

TEST(EmvTree, DeepNestingIsAChainNotARecursion)
{
    // 16,000 nested templates each running to the end: parsed, searched and freed without deep recursion.
    Bytes b;
    const size_t levels = 16000;
    for (size_t i = 0; i < levels; ++i) {
        const size_t inner = (levels - 1 - i) * 4 + 3;
        b.push_back(0x70);
        b.push_back(0x82);
        b.push_back(static_cast<uint8_t>(inner >> 8));
        b.push_back(static_cast<uint8_t>(inner));
    }
    const Bytes pan = hex("5A 01 99");
    b.insert(b.end(), pan.begin(), pan.end());
    Parsed t(b);
    ASSERT_EQ(t.st, ZEL_OK);
    const uint8_t *v = nullptr;
    uint32_t n = 0;
    ASSERT_EQ(findEMVTagValue(t.root, 0x5A, &v, &n), ZEL_OK);
    ASSERT_EQ(n, 1u);
    EXPECT_EQ(v[0], 0x99);
}

TEST(EmvTree, SingleHeaderTakesOneLengthByteMore)
{
    uint32_t tag = 0, tag_bytes = 0, length_bytes = 0, len = 0;
    uint8_t *value = nullptr;
    const Bytes three = hex("9F4D 83 000002 0B03");
    ASSERT_EQ(parseEmvTag(three.data(), &tag, &value, &tag_bytes, &length_bytes, &len), ZEL_OK);
    EXPECT_EQ(tag, 0x9F4Du);
    EXPECT_EQ(tag_bytes, 2u);
    EXPECT_EQ(length_bytes, 4u);
    ASSERT_EQ(len, 2u);
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value[0], 0x0B);
    EXPECT_EQ(value[1], 0x03);
    OrbFree(value);
    const Bytes four = hex("9F4D 84 00000002 0B03");
    EXPECT_EQ(parseEmvTag(four.data(), &tag, &value, &tag_bytes, &length_bytes, &len),
              EMV_ERR_MAX_TAG_LEN_BYTES_EXCEEDED);
    EXPECT_EQ(value, nullptr);
}

TEST(EmvTree, LookupsSkipOrRefuseWrongSizes)
{
    // Two AIDs: the first is too long for getAid (skipped) and for getAid__ (refused).
    Parsed t(hex("70 24 4F 11 A0000000031010A0000000031010AABBCC 4F 07 A0000000041010 88 02 0101 9F4D 01 0B"));
    ASSERT_EQ(t.st, ZEL_OK);
    uint8_t aid[EMV_AID_MAX] = {};
    uint8_t aid_len = 0;
    ASSERT_EQ(getAid(t.root, aid, &aid_len), ZEL_OK);
    EXPECT_EQ(Bytes(aid, aid + aid_len), hex("A0000000041010"));
    EXPECT_EQ(getAid__(t.root, aid, &aid_len), EMV_ERR_TAG_WRONG_SIZE);
    uint8_t sfi = 0, records = 0;
    EXPECT_EQ(getSfi(t.root, &sfi), EMV_ERR_TAG_WRONG_SIZE);
    EXPECT_EQ(getLogEntry(t.root, &sfi, &records), EMV_ERR_TAG_NOT_FOUND);
    EXPECT_EQ(getLogEntry__(t.root, &sfi, &records), EMV_ERR_TAG_WRONG_SIZE);

    // Entries of a data object list have lengths but no values: no AID there.
    Parsed dol(hex("4F05 9A03"), 1);
    ASSERT_EQ(dol.st, ZEL_OK);
    EXPECT_EQ(getAid(dol.root, aid, &aid_len), EMV_ERR_AID_NOT_FOUND);
    EXPECT_EQ(getAid__(dol.root, aid, &aid_len), EMV_ERR_AID_NOT_FOUND);

    Parsed fci(hex(kFci));
    ASSERT_EQ(getLogEntry(fci.root, &sfi, &records), ZEL_OK);
    EXPECT_EQ(sfi, 0x0B);
    EXPECT_EQ(records, 3);
    EXPECT_EQ(getAid(fci.root, aid, &aid_len), EMV_ERR_AID_NOT_FOUND);
    EXPECT_EQ(getSfi(fci.root, &sfi), EMV_ERR_TAG_NOT_FOUND);
    const emv_tree_node_t *list = nullptr;
    ASSERT_EQ(getPdol(fci.root, &list), ZEL_OK);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->tag, 0x9F66u);

    // getListLength: type, presence and a non-empty list.
    uint16_t len = 0;
    EXPECT_EQ(getListLength(nullptr, &len), EMV_ERR_TAG_NOT_FOUND);
    EXPECT_EQ(getListLength(fci.root, &len), EMV_ERR_TAG_WRONG_TYPE);
    Parsed empty(hex("9F4F 00"));
    ASSERT_EQ(empty.st, ZEL_OK);
    EXPECT_EQ(getListLength(empty.root, &len), EMV_ERR_LIST_FORMAT_NOT_FOUND);
    Parsed empty_pdol(hex("9F38 00"));
    EXPECT_EQ(getPdol(empty_pdol.root, &list), EMV_ERR_TAG_WRONG_SIZE);
    Parsed format(hex("9F4F 0B 9A03 9F2103 9F0206 9F3602"));
    ASSERT_EQ(getListLength(format.root, &len), ZEL_OK);
    EXPECT_EQ(len, 14u);
}

TEST(EmvTree, AflInFormatTwoAndFormatOne)
{
    AflList afl;
    Parsed two(hex("77 0E 82 02 1980 94 08 10010200 18010101"));
    ASSERT_EQ(two.st, ZEL_OK);
    ASSERT_EQ(getAfl(two.root, &afl.list, &afl.count), ZEL_OK);
    ASSERT_EQ(afl.count, 2);
    ASSERT_NE(afl.list, nullptr);
    EXPECT_EQ(afl.list->sfi, 2);
    EXPECT_EQ(afl.list->first_record, 1);
    EXPECT_EQ(afl.list->last_record, 2);
    ASSERT_NE(afl.list->next, nullptr);
    EXPECT_EQ(afl.list->next->sfi, 3);
    EXPECT_EQ(afl.list->next->sda_records, 1);
    EXPECT_EQ(afl.list->next->next, nullptr);

    // Format 1: the AFL follows the two bytes of the AIP in tag 80; getAfl alone does not find it.
    Parsed one(hex("80 0A 1980 10010200 18010101"));
    ASSERT_EQ(one.st, ZEL_OK);
    AflList none;
    EXPECT_EQ(getAfl(one.root, &none.list, &none.count), EMV_ERR_AFL_NOT_FOUND);
    AflList f1;
    ASSERT_EQ(getAflFromResponseMessageTemplateFormat1(one.root, &f1.list, &f1.count), ZEL_OK);
    EXPECT_EQ(f1.count, 2);
    AflList f2;
    ASSERT_EQ(getAflFromResponseMessageTemplateFormat1(two.root, &f2.list, &f2.count), ZEL_OK);
    EXPECT_EQ(f2.count, 2);

    // Sizes that are no multiple of four.
    for (const char *bad : {"94 05 1001020000", "94 00", "80 03 198010", "80 01 19"}) {
        Parsed t(hex(bad));
        ASSERT_EQ(t.st, ZEL_OK) << bad;
        AflList a;
        const ZEL_STATUS st = t.root->tag == 0x94 ? getAfl(t.root, &a.list, &a.count)
                                                  : getAflFromResponseMessageTemplateFormat1(t.root, &a.list, &a.count);
        EXPECT_EQ(st, EMV_ERR_TAG_WRONG_SIZE) << bad;
        EXPECT_EQ(a.list, nullptr);
    }
}

TEST(EmvTree, ProcessingOptionsDataFromThePdol)
{
    uint8_t *data = nullptr;
    uint16_t len = 0;
    // No PDOL: 83 00.
    Parsed plain(hex("6F 09 84 07 A0000000031010"));
    ASSERT_EQ(formatGetProcessingOptionsDataField(plain.root, &data, &len), ZEL_OK);
    EXPECT_EQ(Bytes(data, data + len), hex("8300"));
    OrbFree(data);
    // Terminal values: TTQ first byte 28, currency 09 41; the date field stays zero.
    Parsed fci(hex(kFci));
    ASSERT_EQ(formatGetProcessingOptionsDataField(fci.root, &data, &len), ZEL_OK);
    EXPECT_EQ(Bytes(data, data + len), hex("83 13 28000000 000000000000 0941 000000 00000000"));
    OrbFree(data);
    // An empty PDOL value; a list whose lengths are all zero; a list too long for one command.
    Parsed empty(hex("9F38 00"));
    EXPECT_EQ(formatGetProcessingOptionsDataField(empty.root, &data, &len), EMV_ERR_TAG_WRONG_SIZE);
    Parsed zero(hex("9F38 05 9F6600 9A00"));
    EXPECT_EQ(formatGetProcessingOptionsDataField(zero.root, &data, &len), EMV_ERR_PDOL_IS_EMPTY);
    Parsed huge(hex("9F38 06 9F66 81 FF 9A 03"));
    ASSERT_EQ(huge.st, ZEL_OK);
    EXPECT_EQ(formatGetProcessingOptionsDataField(huge.root, &data, &len), EMV_ERR_TAG_WRONG_SIZE);
    EXPECT_EQ(data, nullptr);
}

TEST(EmvTree, LogEntryTextFromTheLogFormat)
{
    const Bytes entry = hex("261120 143005 000000012345 0978 0276 0042");
    Parsed format(hex("9F4F 11 9A03 9F2103 9F0206 5F2A02 9F1A02 9F3602"));
    ASSERT_EQ(format.st, ZEL_OK);
    char text[EMV_LOG_TEXT_SIZE];
    zel::emv::log_entry_text(format.root->list, entry.data(), static_cast<uint32_t>(entry.size()), text, sizeof text);
    EXPECT_STREQ(text, "ATCounter: 66\nDate: 20.11.2026\nTime: 14:30:05\nAmount:        123.45\nCurrency: EUR\n"
                       "Terminal country: DE");

    // No time field, an unknown country and an unknown currency.
    const Bytes e2 = hex("251231 000000000100 0001 0999 0001");
    Parsed f2(hex("9F4F 0E 9A03 9F0206 5F2A02 9F1A02 9F3602"));
    ASSERT_EQ(f2.st, ZEL_OK);
    zel::emv::log_entry_text(f2.root->list, e2.data(), static_cast<uint32_t>(e2.size()), text, sizeof text);
    EXPECT_STREQ(text, "ATCounter: 1\nDate: 31.12.2025\nTime: --:--:--\nAmount:          1.00\nCurrency: ---\n"
                       "Terminal country: --");

    // Nothing known: every field absent.
    Parsed f3(hex("9F4F 03 9F2702"));
    ASSERT_EQ(f3.st, ZEL_OK);
    const Bytes e3 = hex("8000");
    zel::emv::log_entry_text(f3.root->list, e3.data(), 2, text, sizeof text);
    EXPECT_STREQ(text, "ATCounter: 0\nDate: --.--.20--\nTime: --:--:--\nAmount:          0.00\nCurrency: ---\n"
                       "Terminal country: ---");

    // A field that the entry does not hold whole is absent.
    uint16_t off = 0;
    EXPECT_TRUE(isExistAmountAuthorised(format.root->list, &off, 18));
    EXPECT_EQ(off, 6);
    EXPECT_FALSE(isExistAmountAuthorised(format.root->list, &off, 11));
    Parsed short_atc(hex("9F4F 03 9F3601"));
    ASSERT_EQ(short_atc.st, ZEL_OK);
    EXPECT_FALSE(isExistATCounter(short_atc.root->list, &off, 1));
}

TEST(EmvTables, TagCountryAndCurrencyRows)
{
    // The tag table: known rows, the closing row, tag sizes that match the tags.
    EXPECT_EQ(emv_tags[emv_tag_count].tag, 0u);
    EXPECT_STREQ(emv_tags[emv_tag_count].description, "UNKNOWN TAG");
    EXPECT_EQ(emv_tags[emv_tag_count].type, EMV_TYPE_RAW);
    EXPECT_EQ(emv_tags[emv_tag_count].tag_bytes, 0u);
    for (uint32_t i = 0; i < emv_tag_count; ++i) {
        const uint32_t t = emv_tags[i].tag;
        const uint32_t bytes = t > 0xFFFF ? 3 : t > 0xFF ? 2 : 1;
        EXPECT_EQ(emv_tags[i].tag_bytes, bytes) << std::hex << t;
        EXPECT_EQ(findEmvTagIndex(t), i) << "tag " << std::hex << t << " is listed twice";
    }
    EXPECT_EQ(emv_tags[findEmvTagIndex(0x5A)].type, EMV_TYPE_PAN);
    EXPECT_EQ(emv_tags[findEmvTagIndex(0x9F4F)].type, EMV_TYPE_DOL);
    EXPECT_EQ(findEmvTagIndex(0xDF8101), emv_tag_count);

    EXPECT_EQ(emv_country_count, 249u);
    const emv_country_t &de = emv_countries[findCountryIndexByNumCode(276)];
    EXPECT_STREQ(de.alpha2, "DE");
    EXPECT_STREQ(de.alpha3, "DEU");
    EXPECT_STREQ(emv_countries[findCountryIndexByNumCode(999)].alpha2, "--");
    EXPECT_STREQ(emv_countries[emv_country_count].name, "Unknown country");
    EXPECT_STREQ(emv_currencies[findCurrencyIndexByNumCode(978)].alpha, "EUR");
    EXPECT_STREQ(emv_currencies[findCurrencyIndexByNumCode(840)].alpha, "USD");
    EXPECT_STREQ(emv_currencies[findCurrencyIndexByNumCode(1)].alpha, "---");
    EXPECT_STREQ(emv_currencies[emv_currency_count].name, "Unknown currency");
    // Numeric codes are unique, so a search in order finds each row.
    for (uint32_t i = 0; i < emv_country_count; ++i)
        EXPECT_EQ(findCountryIndexByNumCode(emv_countries[i].num), i);
    for (uint32_t i = 0; i < emv_currency_count; ++i)
        EXPECT_EQ(findCurrencyIndexByNumCode(emv_currencies[i].num), i);
}

TEST(EmvHelpers, BcdAndPrintable)
{
    const Bytes amount = hex("000000012345");
    EXPECT_EQ(bin_bcd_to_ll(amount.data(), 6), 12345);
    EXPECT_EQ(bin_bcd_to_i(hex("0978").data(), 2), 978);
    EXPECT_EQ(bin_bcd_to_ll(hex("999999999999").data(), 6), 999999999999LL);
    EXPECT_EQ(bin_bcd_to_i(amount.data(), 0), 0);
    EXPECT_EQ(bin_bcd_to_i(amount.data(), -3), 0);
    EXPECT_TRUE(isByteArrayPrintable(reinterpret_cast<const uint8_t *>("VISA ~"), 6));
    EXPECT_FALSE(isByteArrayPrintable(hex("41 7F").data(), 2));
    EXPECT_FALSE(isByteArrayPrintable(hex("41 0A").data(), 2));
    EXPECT_TRUE(isByteArrayPrintable(nullptr, 0));
}

} // namespace
