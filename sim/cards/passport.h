// The simulated passport chip: an ICAO 9303 document application (LDS, AID A0 00 00 02 47 10 01) with Basic
// Access Control and secure messaging on the card's side, and the document files it serves.
//
// Its cryptography is its own, on OpenSSL's EVP: two-key triple DES in CBC mode, the retail MAC (ISO/IEC
// 9797-1 algorithm 3) and SHA-1 for the keys, CMS for the security object.
#ifndef ZELSIM_CARDS_PASSPORT_H
#define ZELSIM_CARDS_PASSPORT_H

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "../iso7816.h"

namespace zs {

using Bytes = std::vector<uint8_t>;

// A document: its MRZ (TD1 90 or TD3 88 characters), the files by identifier (01 1E EF.COM, 01 1D EF.SOD,
// 01 nn data group nn) and the files that need Extended Access Control (answered with 69 82 under BAC).
struct PassportDocument {
    std::string mrz;
    std::map<uint16_t, Bytes> files;
    std::set<uint16_t> eac_protected;
    // Replay mode, for measurements: the chip answers every command (its own SELECT included) with the next
    // of these answers (data and status word), from the first again after the last, without looking at it.
    std::vector<Bytes> replay;
    // A hostile chip, or a man in the middle, for tests of the reader's side (empty: none). Under secure
    // messaging: "auth_mac" spoils the chip's MAC in its EXTERNAL AUTHENTICATE answer; "mac" spoils DO'8E'
    // of every protected answer; "cipher" flips a bit of the cipher text in DO'87' (the MAC left as it was);
    // "no_do99" leaves DO'99' out (and out of the MAC); "sw_mismatch" answers a plain status word other than
    // the one inside DO'99' (90 00 for any refusal, 62 82 for 90 00).
    std::string fault;
};

// How to build a document.
struct PassportSetup {
    std::string mrz;           // TD3 or TD1; empty: the default TD3 specimen
    std::string signer = "ec"; // "ec" (brainpool P256r1) or "rsa" (2048, PKCS#1 v1.5)
    size_t face_size = 0;      // 0: the face image as it is; else the image padded to this many bytes
    bool with_dg14 = true;
    std::string tamper; // a data group name ("DG1") whose bytes change after signing
    // A data group name ("DG1") whose bytes change together with its hash in the security object and the
    // digest in the signed attributes, the signature left as it was: a forgery only the signature betrays.
    std::string forge;
    // The document signer's certificate signed by another CSCA than the one it names (issuer and key
    // identifier unchanged), the security object still signed by the signer's key.
    bool foreign_ds = false;
    std::string fault; // PassportDocument::fault
};

// Builds the document of a setup: EF.COM, DG1 from the MRZ, DG2 (a JPEG face), DG3 (protected), DG7 (a JPEG
// signature), DG11, DG12, DG14 and EF.SOD signed by the built-in document signer. False with a message on
// failure.
bool passport_build(const PassportSetup &setup, PassportDocument &doc, std::string &err);

// The built-in CSCA certificate (PEM) that issued the document signers, for a validation folder.
const char *passport_csca_pem();
// The built-in face image (JPEG).
const Bytes &passport_face_jpeg();

// The document application. Without BAC only SELECT (of the application), GET CHALLENGE and EXTERNAL
// AUTHENTICATE are answered; after it every command must come under secure messaging.
class PassportApp final : public Application {
public:
    explicit PassportApp(PassportDocument doc);
    ~PassportApp() override;

    RApdu select(const Apdu &cmd) override;
    void deselect() override;
    RApdu command(const Apdu &cmd) override;

    // Test views: whether a session is up, and its SSC.
    bool authenticated() const;
    uint64_t ssc() const;
    // Test seam: RND.ICC and K.ICC from this function instead of OpenSSL's generator (null restores it).
    using RandomSource = void (*)(uint8_t *out, size_t n, void *context);
    void set_random_source(RandomSource source, void *context);

private:
    struct State;
    std::unique_ptr<State> st_;
};

} // namespace zs
#endif
