// tandro signer and tandro store: the signer applet's keys, objects, PINs and signatures, and the storage
// applet's files, on a Java card.
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/param_build.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/progress.h"
#include "tools/session.h"

namespace {

using Bytes = std::vector<uint8_t>;

const char *SIGNER_USAGE =
    "[--aid HEX] [--pin PIN] [--admin-pin PIN] (keys | objects | pin tries | pin verify (user | admin) | "
    "pin change (user | admin) NEW | pin unblock (user | admin) CODE | generate (rsa | ec) SLOT BITS | "
    "sign FILE [--key (rsa | ec) SLOT] [--generate BITS] [--out FILE])";
const char *STORE_USAGE = "[--aid HEX] (ls | get N [FILE] | put N FILE | rm N)";

const tandro::OptionTable SIGNER_TABLE = {
    {
        {"keys", "the RSA and EC key slots 0 to 2 and the size of the key in each"},
        {"objects", "the objects the applet holds: type, slot, id and length"},
        {"pin tries", "the tries left of the user and admin PINs and of their unblock codes"},
        {"pin verify user|admin", "checks the PIN given with --pin or --admin-pin"},
        {"pin change user|admin NEW", "changes the PIN to NEW (1 to 16 characters)"},
        {"pin unblock user|admin CODE", "unblocks the PIN with its unblock code"},
        {"generate rsa|ec SLOT BITS", "makes a key pair of BITS (below) in SLOT (0 to 2)"},
        {"sign FILE", "signs FILE (SHA-256) and checks the signature with the slot's public key"},
    },
    {
        {"--aid", "HEX", "the applet's AID, 1 to 16 bytes (default the signer applet's)"},
        {"--pin", "PIN", "the user PIN, presented before the command (up to 16 characters)"},
        {"--admin-pin", "PIN", "the admin PIN, presented before the user PIN (up to 16 characters)"},
        {"--key", "TYPE SLOT", "sign: the key, rsa or ec, and its slot 0 to 2 (default rsa 0)"},
        {"--generate", "BITS", "sign: makes a new key of BITS in that slot first"},
        {"--out", "FILE", "sign: writes the signature to FILE instead of printing it in hexadecimal"},
    },
    "RSA keys take up to 4096 bits; EC keys are on P-192, P-224, P-256, P-384 or P-521 (BITS 192 to 521).\n\n"
    "Key generation needs the admin PIN (--admin-pin), signing the user PIN (--pin). A wrong PIN or code says "
    "how many tries are left. PINs and codes are never printed.\n\n"
    "With --sim and no scenario file, a Java card holding the signer and the storage applet takes the field.",
};

const tandro::OptionTable STORE_TABLE = {
    {
        {"ls", "the files the applet holds and their sizes"},
        {"get N [FILE]", "file N (0 to 16) in hexadecimal, or saved to FILE"},
        {"put N FILE", "writes the bytes of FILE (up to 32766) to file N"},
        {"rm N", "deletes file N"},
    },
    {
        {"--aid", "HEX", "the applet's AID, 1 to 16 bytes (default the storage applet's)"},
    },
    "With --sim and no scenario file, a Java card holding the signer and the storage applet takes the field.",
};

const Bytes SIGNER_AID = {0xA0, 0x00, 0x00, 0x07, 0x47, 0x53, 0x49, 0x47, 0x4E};
const Bytes STORAGE_AID = {0xA0, 0x00, 0x00, 0x07, 0x47, 0x53, 0x54, 0x4F, 0x52};

// The built-in simulated reader, for these commands, holds one Java card with both applets.
const char *JC_SCENARIO = R"({"cards": [{"uid": "04A1B2C3D4E5F6", "sak": "20", "atqa": "0344",
  "type": "ORB_GENERIC_ISO14443_4", "model": "javacard"}]})";

int fail(const char *cmd, const tandro::Options &opt, const std::string &what, ZEL_STATUS st)
{
    const char *jc = JCAppGetErrorDescription(st);
    std::string text = *jc ? jc : ZEL_Status2String(st);
    if ((st & 0xFFFF0u) == 0xA63C0u) // the card counts a wrong secret down
        text = "wrong PIN or code, " + std::to_string(st & 0x0F) + " tries left";
    (void)opt;
    return tandro::fail_text(cmd, what + ": " + text, st);
}

// Opens the reader (the Java card scenario under --sim with no scenario of the caller's), puts the card in
// level 4 and selects the applet.
bool open_card(const char *cmd, const tandro::Options &given, const Bytes &aid, tandro::ReaderSession &session,
               ZEL_STATUS &st)
{
    tandro::Options opt = given;
    std::string tmp;
    if (opt.sim && opt.sim_scenario.empty()) {
        char path[] = "/tmp/tandro_jc_XXXXXX";
        const int fd = mkstemp(path);
        if (fd < 0)
            return false;
        const std::string text = JC_SCENARIO;
        const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        close(fd);
        tmp = path;
        opt.sim_scenario = written ? tmp : "";
    }
    const bool opened = session.open(cmd, opt);
    if (!tmp.empty())
        std::remove(tmp.c_str());
    if (!opened)
        return false;
    st = SetISO14443_4_ModeM(session.hnd());
    uint8_t resp[JC_SELECT_RESPONSE_LEN];
    if (st == ZEL_OK)
        st = JCAppSelectByAidM(session.hnd(), aid.data(), static_cast<uint8_t>(aid.size()), resp);
    return true;
}

bool read_file(const std::string &path, Bytes &out)
{
    std::FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return false;
    uint8_t buf[4096];
    size_t n = 0;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0 && out.size() < (1u << 24))
        out.insert(out.end(), buf, buf + n);
    const bool ok = !std::ferror(f);
    std::fclose(f);
    return ok;
}

bool write_file(const std::string &path, const Bytes &data)
{
    std::FILE *f = std::fopen(path.c_str(), "wb");
    if (!f)
        return false;
    const bool ok = std::fwrite(data.data(), 1, data.size(), f) == data.size();
    return std::fclose(f) == 0 && ok;
}

// ---- signer ----

const char *curve_name(uint16_t bits)
{
    switch (bits) {
    case 192: return "P-192";
    case 224: return "P-224";
    case 256: return "P-256";
    case 384: return "P-384";
    case 521: return "P-521";
    default: return nullptr;
    }
}

// The parameters of a named prime curve as the applet takes them: the flag byte 0, then p, a, b, G, r and
// the cofactor 1.
Bytes curve_params(uint16_t bits)
{
    const char *name = curve_name(bits);
    if (!name)
        return {};
    const size_t n = (bits + 7u) / 8u;
    EC_GROUP *g = EC_GROUP_new_by_curve_name(EC_curve_nist2nid(name));
    if (!g)
        return {};
    Bytes out(1 + 6 * n + 3, 0);
    BIGNUM *p = BN_new(), *a = BN_new(), *b = BN_new();
    EC_GROUP_get_curve(g, p, a, b, nullptr);
    BN_bn2binpad(p, out.data() + 1, static_cast<int>(n));
    BN_bn2binpad(a, out.data() + 1 + n, static_cast<int>(n));
    BN_bn2binpad(b, out.data() + 1 + 2 * n, static_cast<int>(n));
    EC_POINT_point2oct(g, EC_GROUP_get0_generator(g), POINT_CONVERSION_UNCOMPRESSED, out.data() + 1 + 3 * n, 2 * n + 1,
                       nullptr);
    BN_bn2binpad(EC_GROUP_get0_order(g), out.data() + 1 + 5 * n + 1, static_cast<int>(n));
    out[out.size() - 1] = 1;
    BN_free(p);
    BN_free(a);
    BN_free(b);
    EC_GROUP_free(g);
    return out;
}

EVP_PKEY *public_key(OSSL_PARAM_BLD *bld, const char *type)
{
    OSSL_PARAM *params = OSSL_PARAM_BLD_to_param(bld);
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr);
    EVP_PKEY *key = nullptr;
    if (!params || !ctx || EVP_PKEY_fromdata_init(ctx) <= 0 ||
        EVP_PKEY_fromdata(ctx, &key, EVP_PKEY_PUBLIC_KEY, params) <= 0)
        key = nullptr;
    EVP_PKEY_CTX_free(ctx);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(bld);
    return key;
}

// The public key of a slot as the card gives it; null when the card gives none.
EVP_PKEY *read_public(ZEL_HANDLE h, bool ec, uint8_t slot, ZEL_STATUS &st, uint16_t &bits)
{
    if (!ec) {
        uint16_t ml = 0, el = 0;
        if ((st = JCAppGetRsaPublicKeyM(h, slot, nullptr, &ml, nullptr, &el)) != ZEL_OK)
            return nullptr;
        Bytes m(ml ? ml : 1), e(el ? el : 1);
        if ((st = JCAppGetRsaPublicKeyM(h, slot, m.data(), &ml, e.data(), &el)) != ZEL_OK)
            return nullptr;
        BIGNUM *bn = BN_bin2bn(m.data(), ml, nullptr), *be = BN_bin2bn(e.data(), el, nullptr);
        OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
        OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_N, bn);
        OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_E, be);
        EVP_PKEY *key = public_key(bld, "RSA");
        BN_free(bn);
        BN_free(be);
        bits = static_cast<uint16_t>(ml * 8);
        return key;
    }
    uint16_t lens[5] = {}, k = 0, des = 0;
    if ((st = JCAppGetEcPublicKeyM(h, slot, nullptr, &lens[0], nullptr, &lens[1], nullptr, &lens[2], nullptr, &lens[3],
                                   nullptr, &lens[4], &k, &bits, &des)) != ZEL_OK)
        return nullptr;
    Bytes parts[5];
    for (int i = 0; i < 5; ++i)
        parts[i].resize(lens[i] ? lens[i] : 1);
    if ((st = JCAppGetEcPublicKeyM(h, slot, parts[0].data(), &lens[0], parts[1].data(), &lens[1], parts[2].data(),
                                   &lens[2], parts[3].data(), &lens[3], parts[4].data(), &lens[4], &k, &bits, &des)) !=
        ZEL_OK)
        return nullptr;
    const char *curve = curve_name(bits);
    if (!curve)
        return nullptr;
    OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_utf8_string(bld, OSSL_PKEY_PARAM_GROUP_NAME, curve, 0);
    OSSL_PARAM_BLD_push_octet_string(bld, OSSL_PKEY_PARAM_PUB_KEY, parts[0].data(), lens[0]);
    return public_key(bld, "EC");
}

bool verify(EVP_PKEY *key, const Bytes &msg, const Bytes &sig)
{
    EVP_MD_CTX *ctx = EVP_MD_CTX_new();
    const bool ok = ctx && EVP_DigestVerifyInit(ctx, nullptr, EVP_sha256(), nullptr, key) == 1 &&
                    EVP_DigestVerify(ctx, sig.data(), sig.size(), msg.data(), msg.size()) == 1;
    EVP_MD_CTX_free(ctx);
    return ok;
}

struct SignerArgs {
    Bytes aid = SIGNER_AID;
    std::string pin, admin_pin, out, file;
    bool pin_given = false, admin_given = false, ec = false;
    uint32_t slot = 0, bits = 0, generate = 0;
    tandro::Args words;
};

ZEL_STATUS login(ZEL_HANDLE h, bool admin, const std::string &pin)
{
    return JCAppLoginM(h, admin, reinterpret_cast<const uint8_t *>(pin.data()), static_cast<uint8_t>(pin.size()));
}

int signer_keys(ZEL_HANDLE h, const tandro::Options &opt)
{
    std::string json = "{\"keys\": [";
    bool first = true;
    for (int ec = 0; ec < 2; ++ec) {
        for (uint8_t slot = 0; slot < 3; ++slot) {
            ZEL_STATUS st = ZEL_OK;
            uint16_t bits = 0;
            EVP_PKEY *key = read_public(h, ec, slot, st, bits);
            const char *kind = ec ? "ec" : "rsa";
            if (opt.json) {
                json += std::string(first ? "" : ", ") + "{\"type\": \"" + kind +
                        "\", \"slot\": " + std::to_string(slot) +
                        ", \"bits\": " + (st == ZEL_OK ? std::to_string(bits) : "null") + "}";
                first = false;
            } else {
                std::printf("%-3s %u  %s\n", kind, slot,
                            st == ZEL_OK ? (std::to_string(bits) + " bits").c_str() : "empty");
            }
            EVP_PKEY_free(key);
        }
    }
    if (opt.json)
        std::printf("%s]}\n", json.c_str());
    return 0;
}

int signer_objects(ZEL_HANDLE h, const tandro::Options &opt)
{
    std::string json = "{\"objects\": [";
    bool first = true;
    for (uint8_t type = 0; type < 3; ++type) {
        for (uint8_t slot = 0; slot <= (type == 2 ? 11 : 2); ++slot) {
            uint16_t len = 0;
            if (JCAppGetObjIdM(h, type, slot, nullptr, &len) != ZEL_OK)
                continue;
            Bytes id(len ? len : 1);
            if (JCAppGetObjIdM(h, type, slot, id.data(), &len) != ZEL_OK)
                continue;
            const std::string idhex = tandro::to_hex(id.data(), id.size() == 1 && id[0] == 0 ? 0 : id.size());
            if (opt.json) {
                json += std::string(first ? "" : ", ") + "{\"type\": " + std::to_string(type) +
                        ", \"slot\": " + std::to_string(slot) + ", \"id\": \"" + idhex +
                        "\", \"length\": " + std::to_string(len) + "}";
                first = false;
            } else {
                std::printf("type %u slot %-2u id %s, %u bytes\n", type, slot, idhex.c_str(), len);
            }
        }
    }
    if (opt.json)
        std::printf("%s]}\n", json.c_str());
    return 0;
}

int run_signer(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Parsed parsed;
    if (!tandro::parse("signer", SIGNER_TABLE, all, parsed))
        return 2;
    SignerArgs a;
    a.words = parsed.words;
    // Each value is checked, the last one given counts.
    for (const std::string &aid : parsed.values("--aid"))
        if (!tandro::parse_hex(aid, a.aid) || a.aid.empty() || a.aid.size() > 16)
            return tandro::usage_error("signer", "--aid takes 1 to 16 bytes in hexadecimal");
    a.pin_given = parsed.has("--pin");
    a.admin_given = parsed.has("--admin-pin");
    a.pin = parsed.value("--pin");
    a.admin_pin = parsed.value("--admin-pin");
    for (const std::string &bits : parsed.values("--generate"))
        if (!tandro::parse_u32(bits, &a.generate) || a.generate == 0 || a.generate > 4096)
            return tandro::usage_error("signer", "--generate takes a key size in bits");
    a.out = parsed.value("--out");
    const tandro::Args slots = parsed.values("--key"); // pairs of a type and a slot
    for (size_t i = 0; i + 1 < slots.size(); i += 2) {
        a.ec = slots[i] == "ec";
        if ((slots[i] != "rsa" && !a.ec) || !tandro::parse_u32(slots[i + 1], &a.slot) || a.slot > 2)
            return tandro::usage_error("signer", "--key takes rsa or ec and a slot from 0 to 2");
    }
    const tandro::Args &wd = a.words;
    const size_t n = wd.size();
    const std::string what = n ? wd[0] : "";
    const bool who_ok = n >= 3 && (wd[2] == "user" || wd[2] == "admin");
    bool ok = (what == "keys" && n == 1) || (what == "objects" && n == 1) ||
              (what == "pin" && n == 2 && wd[1] == "tries") ||
              (what == "pin" && n == 3 && wd[1] == "verify" && who_ok) ||
              (what == "pin" && n == 4 && (wd[1] == "change" || wd[1] == "unblock") && who_ok && !wd[3].empty() &&
               wd[3].size() <= 16) ||
              (what == "sign" && n == 2);
    if (what == "generate" && n == 4 && (wd[1] == "rsa" || wd[1] == "ec") && tandro::parse_u32(wd[2], &a.slot) &&
        a.slot <= 2 && tandro::parse_u32(wd[3], &a.bits) && a.bits <= 4096) {
        a.ec = wd[1] == "ec";
        ok = !a.ec || curve_name(static_cast<uint16_t>(a.bits));
    }
    if (!ok || a.pin.size() > 16 || a.admin_pin.size() > 16)
        return tandro::usage_error("signer", std::string("usage: tandro signer ") + SIGNER_USAGE);

    Bytes msg;
    if (what == "sign" && !read_file(wd[1], msg))
        return tandro::usage_error("signer", "cannot read " + wd[1]);

    tandro::ReaderSession session;
    ZEL_STATUS st = ZEL_OK;
    if (!open_card("signer", opt, a.aid, session, st))
        return 1;
    if (st != ZEL_OK)
        return fail("signer", opt, "select", st);
    ZEL_HANDLE h = session.hnd();
    if (a.admin_given && (st = login(h, true, a.admin_pin)) != ZEL_OK)
        return fail("signer", opt, "admin PIN", st);
    if (a.pin_given && (st = login(h, false, a.pin)) != ZEL_OK)
        return fail("signer", opt, "user PIN", st);

    if (what == "keys")
        return signer_keys(h, opt);
    if (what == "objects")
        return signer_objects(h, opt);
    if (what == "pin") {
        if (wd[1] == "tries") {
            static const char *const NAMES[4] = {"user_pin", "admin_pin", "user_unblock", "admin_unblock"};
            uint16_t t[4] = {};
            for (uint32_t r = 0; r < 4; ++r)
                if ((st = JCAppGetPinTriesRemainingM(h, r, &t[r])) != ZEL_OK)
                    return fail("signer", opt, "tries", st);
            if (opt.json)
                std::printf("{\"%s\": %u, \"%s\": %u, \"%s\": %u, \"%s\": %u}\n", NAMES[0], t[0], NAMES[1], t[1],
                            NAMES[2], t[2], NAMES[3], t[3]);
            else
                for (int r = 0; r < 4; ++r)
                    std::printf("%-14s%u tries left\n", NAMES[r], t[r]);
            return 0;
        }
        const bool admin = wd[2] == "admin";
        const std::string &secret = wd.size() > 3 ? wd[3] : (admin ? a.admin_pin : a.pin);
        const auto *bytes = reinterpret_cast<const uint8_t *>(secret.data());
        const uint8_t len = static_cast<uint8_t>(secret.size());
        if (wd[1] == "verify")
            st = (admin ? a.admin_given : a.pin_given) ? ZEL_OK : ZEL_PARAMETERS_ERROR;
        else if (wd[1] == "change")
            st = JCAppPinChangeM(h, admin ? JC_PIN_ADMIN : JC_PIN_USER, bytes, len);
        else
            st = JCAppPinUnblockM(h, admin, bytes, len);
        if (st != ZEL_OK)
            return fail("signer", opt, "pin " + wd[1], st);
        if (opt.json)
            std::printf("{\"pin\": \"%s\", \"%s\": true}\n", admin ? "admin" : "user", wd[1].c_str());
        else
            std::printf("%s PIN: %s done\n", admin ? "admin" : "user", wd[1].c_str());
        return 0;
    }
    if (what == "generate" || a.generate) {
        if (a.generate)
            a.bits = a.generate;
        if (a.ec && !curve_name(static_cast<uint16_t>(a.bits)))
            return fail("signer", opt, "generate", ZEL_APDU_UNSUPPORTED_KEY_SIZE);
        if (a.ec) {
            const Bytes params = curve_params(static_cast<uint16_t>(a.bits));
            st = JCAppGenerateKeyPairM(h, JC_KEY_EC_FP, static_cast<uint8_t>(a.slot), 0, static_cast<uint16_t>(a.bits),
                                       params.data(), static_cast<uint16_t>(params.size()));
        } else {
            st = JCAppGenerateKeyPairM(h, JC_KEY_RSA, static_cast<uint8_t>(a.slot), 0, static_cast<uint16_t>(a.bits),
                                       nullptr, 0);
        }
        if (st != ZEL_OK)
            return fail("signer", opt, "generate", st);
    }
    if (what == "generate") {
        if (opt.json)
            std::printf("{\"generated\": \"%s\", \"slot\": %u, \"bits\": %u}\n", a.ec ? "ec" : "rsa", a.slot, a.bits);
        else
            std::printf("%s key of %u bits made in slot %u\n", a.ec ? "EC" : "RSA", a.bits, a.slot);
        return 0;
    }

    // sign: by parts of 255 bytes, then the signature checked against the slot's public key.
    const uint8_t cipher = a.ec ? JC_CIPHER_ECDSA : JC_CIPHER_RSA, slot = static_cast<uint8_t>(a.slot);
    const uint32_t total = static_cast<uint32_t>(msg.size());
    const uint16_t first = static_cast<uint16_t>(total < 255 ? total : 255);
    tandro::Progress bar(opt, "signing", total > 4096 ? total : 0);
    st = JCAppSignatureBeginM(h, cipher, 0, 0, slot, msg.empty() ? nullptr : msg.data(), first, nullptr);
    for (uint32_t at = first; st == ZEL_OK && at < total; at += 255) {
        const uint16_t piece = static_cast<uint16_t>(total - at < 255 ? total - at : 255);
        st = JCAppSignatureUpdateM(h, msg.data() + at, piece);
        bar.update(at + piece);
    }
    bar.done(st == ZEL_OK);
    uint16_t sig_len = 0;
    if (st == ZEL_OK)
        st = JCAppSignatureEndM(h, &sig_len);
    Bytes sig(sig_len ? sig_len : 1);
    if (st == ZEL_OK)
        st = JCAppGetSignatureM(h, sig.data(), sig_len);
    if (st != ZEL_OK)
        return fail("signer", opt, "sign", st);
    sig.resize(sig_len);
    uint16_t bits = 0;
    EVP_PKEY *key = read_public(h, a.ec, slot, st, bits);
    const bool good = key && verify(key, msg, sig);
    EVP_PKEY_free(key);
    if (!good)
        return fail("signer", opt, "verify", st != ZEL_OK ? st : ZEL_APDU_TRANSCEIVE_ERROR);
    if (!a.out.empty() && !write_file(a.out, sig))
        return fail("signer", opt, "write " + a.out, ZEL_FILE_SYSTEM_ERROR);
    const std::string hex = tandro::to_hex(sig.data(), sig.size());
    if (opt.json)
        std::printf("{\"key\": \"%s\", \"slot\": %u, \"bits\": %u, \"verified\": true, \"signature\": \"%s\"}\n",
                    a.ec ? "ec" : "rsa", slot, bits, a.out.empty() ? hex.c_str() : "");
    else if (a.out.empty())
        std::printf("%s\nverified with the card's %s key of %u bits in slot %u\n", hex.c_str(), a.ec ? "EC" : "RSA",
                    bits, slot);
    else
        std::printf("signature of %u bytes written to %s, verified\n", sig_len, a.out.c_str());
    return 0;
}

// ---- store ----

int run_store(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Parsed parsed;
    if (!tandro::parse("store", STORE_TABLE, all, parsed))
        return 2;
    Bytes aid = STORAGE_AID;
    const tandro::Args &wd = parsed.words;
    for (const std::string &given : parsed.values("--aid")) // the last one given counts; each must be one
        if (!tandro::parse_hex(given, aid) || aid.empty() || aid.size() > 16)
            return tandro::usage_error("store", "--aid takes 1 to 16 bytes in hexadecimal");
    const size_t n = wd.size();
    const std::string what = n ? wd[0] : "";
    uint32_t file = 0;
    const bool file_ok = n >= 2 && tandro::parse_u32(wd[1], &file) && file < JC_STORAGE_FILES;
    const bool ok = (what == "ls" && n == 1) || (what == "get" && file_ok && n <= 3) ||
                    (what == "put" && file_ok && n == 3) || (what == "rm" && file_ok && n == 2);
    if (!ok)
        return tandro::usage_error("store", std::string("usage: tandro store ") + STORE_USAGE);
    Bytes data;
    if (what == "put") {
        if (!read_file(wd[2], data))
            return tandro::usage_error("store", "cannot read " + wd[2]);
        if (data.size() > JC_STORAGE_MAX_FILE)
            return tandro::usage_error("store", "a file holds at most 32766 bytes");
    }
    tandro::ReaderSession session;
    ZEL_STATUS st = ZEL_OK;
    if (!open_card("store", opt, aid, session, st))
        return 1;
    if (st != ZEL_OK)
        return fail("store", opt, "select", st);
    ZEL_HANDLE h = session.hnd();
    const uint8_t f = static_cast<uint8_t>(file);
    if (what == "ls") {
        uint8_t list[JC_STORAGE_FILES] = {};
        if ((st = JCStorageListFilesM(h, list, JC_STORAGE_FILES)) != ZEL_OK)
            return fail("store", opt, "list", st);
        std::string json = "{\"files\": [";
        bool first = true;
        for (uint8_t i = 0; i < JC_STORAGE_FILES; ++i) {
            if (!list[i])
                continue;
            uint32_t size = 0;
            if ((st = JCStorageGetFileSizeM(h, i, &size)) != ZEL_OK)
                return fail("store", opt, "size", st);
            if (opt.json)
                json += std::string(first ? "" : ", ") + "{\"file\": " + std::to_string(i) +
                        ", \"size\": " + std::to_string(size) + "}";
            else
                std::printf("%2u  %u bytes\n", i, size);
            first = false;
        }
        if (opt.json)
            std::printf("%s]}\n", json.c_str());
        else if (first)
            std::printf("no files\n");
        return 0;
    }
    if (what == "rm") {
        if ((st = JCStorageDeleteFileM(h, f)) != ZEL_OK)
            return fail("store", opt, "delete", st);
        if (opt.json)
            std::printf("{\"deleted\": %u}\n", file);
        else
            std::printf("file %u deleted\n", file);
        return 0;
    }
    if (what == "put") {
        const uint32_t size = static_cast<uint32_t>(data.size());
        tandro::LinkProgress bar(opt, h, "writing", size);
        st = JCStorageWriteFileM(h, f, data.empty() ? nullptr : data.data(), size);
        bar.done(st == ZEL_OK);
        if (st != ZEL_OK)
            return fail("store", opt, "write", st);
        if (opt.json)
            std::printf("{\"file\": %u, \"written\": %u}\n", file, size);
        else
            std::printf("%u bytes written to file %u\n", size, file);
        return 0;
    }
    // get: the real size, then one read of it.
    uint32_t size = 0;
    if ((st = JCStorageGetFileSizeM(h, f, &size)) != ZEL_OK)
        return fail("store", opt, "size", st);
    data.assign(size ? size : 1, 0);
    tandro::LinkProgress bar(opt, h, "reading", size);
    st = JCStorageReadFileM(h, f, data.data(), size);
    bar.done(st == ZEL_OK);
    if (st != ZEL_OK)
        return fail("store", opt, "read", st);
    data.resize(size);
    if (n == 3) {
        if (!write_file(wd[2], data))
            return fail("store", opt, "write " + wd[2], ZEL_FILE_SYSTEM_ERROR);
        if (opt.json)
            std::printf("{\"file\": %u, \"size\": %u, \"saved\": %s}\n", file, size,
                        tandro::json_string(wd[2]).c_str());
        else
            std::printf("%u bytes of file %u saved to %s\n", size, file, wd[2].c_str());
    } else if (opt.json) {
        std::printf("{\"file\": %u, \"size\": %u, \"data\": \"%s\"}\n", file, size,
                    tandro::to_hex(data.data(), data.size()).c_str());
    } else {
        std::printf("%s\n", tandro::to_hex(data.data(), data.size()).c_str());
    }
    return 0;
}

const tandro::Registration signer_cmd({"signer", SIGNER_USAGE,
                                       "Java card signer applet: keys, objects, PINs, signatures checked", run_signer,
                                       false, &SIGNER_TABLE});
const tandro::Registration store_cmd({"store", STORE_USAGE, "Java card storage applet: list, get, put, remove files",
                                      run_store, false, &STORE_TABLE});

} // namespace
