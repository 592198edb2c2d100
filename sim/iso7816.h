// Smart-card applications on a simulated ISO 14443-4 card (and on the contact interface of the reader).
//
// A card model that speaks APDUs is an Iso14443Card: it answers the reader's level-4 commands (activation
// with the ATS, the chained APDU command 0x94, host-run I-, R- and S-blocks, the contact interface with its
// ATR, the raw front-end paths) and hands every complete command APDU to its AppHost. The AppHost keeps the
// applications of the card, selects one by name (SELECT with P1 04 and its AID) and passes every other APDU
// to the selected one. An application only sees decoded APDUs and answers data and a status word.
//
// Writing a new application:
//
//   class MyApp final : public zs::Application {
//   public:
//       MyApp() : Application({0xA0, 0x00, 0x00, 0x00, 0x01}) {}
//       zs::RApdu command(const zs::Apdu &c) override {
//           if (c.ins != 0xB0) return zs::RApdu::sw_only(zs::SW_INS_NOT_SUPPORTED);
//           return {{0x01, 0x02}, zs::SW_OK};
//       }
//   };
//
// and a card model hosting it, in its own file under cards/ with a row in cards.cpp:
//
//   auto card = std::make_unique<zs::Iso14443Card>(id, zs::Iso14443Setup{});
//   card->host().add(std::make_unique<MyApp>());
//
// A model with reader commands of its own (a card family the reader knows natively) derives from
// Iso14443Card, answers its own command codes in command() and wants_ext(), and passes the rest on to
// Iso14443Card::command() / Iso14443Card::wants_ext().
//
// Everything here runs under the simulator's lock, one command at a time.
#ifndef ZELSIM_ISO7816_H
#define ZELSIM_ISO7816_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "card.h"

namespace zs {

// Status words (SW1 in the high byte).
constexpr uint16_t SW_OK = 0x9000;
constexpr uint16_t SW_MORE_DATA = 0x6100;   // low byte: bytes left for GET RESPONSE (00: 256 or more)
constexpr uint16_t SW_END_OF_FILE = 0x6282; // fewer bytes than asked for before the end of the file
constexpr uint16_t SW_WRONG_LENGTH = 0x6700;
constexpr uint16_t SW_SECURITY_NOT_SATISFIED = 0x6982;
constexpr uint16_t SW_CONDITIONS_NOT_SATISFIED = 0x6985;
constexpr uint16_t SW_WRONG_DATA = 0x6A80;
constexpr uint16_t SW_FILE_NOT_FOUND = 0x6A82;
constexpr uint16_t SW_WRONG_P1P2 = 0x6B00; // also: offset outside the file
constexpr uint16_t SW_INS_NOT_SUPPORTED = 0x6D00;
constexpr uint16_t SW_CLA_NOT_SUPPORTED = 0x6E00;

// A decoded command APDU. data points into the bytes given to apdu_decode.
struct Apdu {
    uint8_t cla = 0, ins = 0, p1 = 0, p2 = 0;
    const uint8_t *data = nullptr;
    size_t nc = 0; // command data length (Lc)
    size_t ne = 0; // expected length: Le 00 is 256 (short) or 65536 (extended); 0 without Le
    bool has_le = false;
    bool extended = false; // Lc or Le came in the three/two-byte forms
    int kind = 1;          // case 1 (header only), 2 (Le), 3 (Lc, data), 4 (Lc, data, Le)
};

// Decodes a command APDU in any of the short and extended cases. False for bytes that are no valid APDU
// (too short, lengths that do not add up); the card then answers 6700.
bool apdu_decode(const uint8_t *bytes, size_t len, Apdu &out);

// An application's answer: response data and the status word.
struct RApdu {
    std::vector<uint8_t> data;
    uint16_t sw = SW_OK;
    static RApdu sw_only(uint16_t sw) { return RApdu{{}, sw}; }
};

// One application on a card, known by its AID.
class Application {
public:
    explicit Application(std::vector<uint8_t> aid) : aid_(std::move(aid)) {}
    virtual ~Application() = default;
    Application(const Application &) = delete;
    Application &operator=(const Application &) = delete;

    const std::vector<uint8_t> &aid() const { return aid_; }
    // SELECT by name chose this application; the answer is the reply to the SELECT (FCI, status word).
    virtual RApdu select(const Apdu &) { return RApdu::sw_only(SW_OK); }
    // Another application was selected, or the card left the level-4 session.
    virtual void deselect() {}
    // Every other command while this application is selected (SELECT with another P1 included).
    virtual RApdu command(const Apdu &cmd) = 0;

private:
    std::vector<uint8_t> aid_;
};

// The applications of a card and the routing of APDUs to them.
class AppHost {
public:
    void add(std::unique_ptr<Application> app);
    // An application that answers without being selected (a SAM in the contact slot has no SELECT): it takes
    // every command while no other application is selected.
    void add_default(std::unique_ptr<Application> app);
    size_t count() const { return apps_.size(); }
    Application *selected() const { return selected_; }

    // One command APDU in, the response APDU (data, SW1, SW2) out. SELECT by name (00 A4 04 xx) is answered
    // here: an AID equal to an application's, or the first part of one, selects it (6A82 when none fits).
    // Without a selected application other commands get 6985. Data longer than the Ne of a command with Le
    // is cut to Ne with 61xx, and the rest comes with GET RESPONSE (00 C0 00 00 Le); a command without Le
    // gets all of it.
    std::vector<uint8_t> transceive(const uint8_t *apdu, size_t len);

    // The card was reset or deactivated: nothing is selected and pending GET RESPONSE data is dropped.
    void reset();

private:
    RApdu route(const Apdu &cmd);
    std::vector<std::unique_ptr<Application>> apps_;
    Application *selected_ = nullptr;
    Application *default_ = nullptr;
    std::vector<uint8_t> rest_; // data awaiting GET RESPONSE
};

// How an ISO 14443-4 card presents itself.
struct Iso14443Setup {
    // Answer to RATS, its length byte included (TL T0 TA TB TC historical bytes).
    std::vector<uint8_t> ats{0x06, 0x75, 0x77, 0x81, 0x02, 0x80};
    // Answer to reset of the contact interface; empty: the reader has no contact card.
    std::vector<uint8_t> atr{0x3B, 0x8A, 0x80, 0x01, 0x5A, 0x45, 0x4C, 0x53, 0x49, 0x4D, 0x37, 0x38, 0x31, 0x36, 0x6E};
    // Largest INF field of one I-block the card sends (the rest is chained).
    size_t block_size = 64;
    // Interim frames the reader sends before each reply to a chained APDU command (a slow card).
    uint32_t interim_frames = 0;
};

// Reads a model's setup (ats, atr, block_size, interim_frames; members not named are kept). False with a
// message for a bad value. Other members are left to the caller (known lists them all, to refuse others).
bool iso14443_setup_read(const Json *setup, Iso14443Setup &out, std::string &err,
                         const std::vector<std::string> &known = {});

// A card that speaks ISO 14443-4 through the reader.
class Iso14443Card : public Card {
public:
    Iso14443Card(const zsim_card &id, Iso14443Setup setup);
    ~Iso14443Card() override;
    const char *model() const override { return "iso14443_4"; }
    bool wants_ext(const uint8_t frame[7]) const override;
    bool command(const uint8_t frame[7], const uint8_t *ext, size_t ext_len, std::vector<uint8_t> &out) override;

    // The applications behind the contactless interface, and those of the contact card (ISO 7816).
    AppHost &host() { return host_; }
    AppHost &contact_host() { return contact_; }
    const Iso14443Setup &setup() const { return setup_; }

    // The reader's receiver asks these (see iso14443_frame_shape and iso14443_raw_input below).
    // The EXT length that follows a chained APDU frame (16 bits), and whether the reader acknowledges the
    // frame: only the first frame of a chained command is acknowledged.
    void chain_frame_shape(const uint8_t frame[7], size_t &ext_len, bool &ack) const;
    bool raw_mode() const { return raw_mode_; }
    // Bytes the host sends while the reader is in raw transceive mode; the reply goes to out.
    void raw_input(const uint8_t *in, size_t n, std::vector<uint8_t> &out);

    // Exposed for tests: what a block sent to the card over RF answers (PCB first). Empty for no answer.
    std::vector<uint8_t> rf_block(const uint8_t *block, size_t n);

private:
    struct State;
    Iso14443Setup setup_;
    AppHost host_;
    AppHost contact_;
    bool raw_mode_ = false;
    std::unique_ptr<State> st_;
};

// Hooks of the reader's receiver, true when the first card in the field is an ISO 14443-4 card:
// the EXT shape of a frame (ext_len from PAR0 and EXT_LEN for the chained APDU command), and raw-mode
// input, which bypasses the frame receiver.
struct Reader;
struct Answer;
bool iso14443_frame_shape(Reader &r, const uint8_t frame[7], size_t &ext_len, bool &ack);
bool iso14443_raw_input(Reader &r, const uint8_t *in, size_t n, std::vector<uint8_t> &out);
// The level-4 commands with an empty field: the reader answers that there is no card.
bool iso14443_reader_command(Reader &r, const uint8_t frame[7], Answer &a);

// The generic test application: AID A0 00 00 07 47 54 45 53 54 by default ("GTEST").
//   00 A4 04 00 AID        selects it; answers FCI 6F 08 84 len AID-part
//   80 10 00 00 Lc data Le echo: the data back (any length, short or extended)
//   00 B0 P1 P2 Le         READ BINARY of the test file at offset P1 P2 (15 bits)
//   00 B1 00 00 Lc 54 03 off Le  READ BINARY with the offset in a data object (3 bytes, for large files)
//   00 D6 P1 P2 Lc data    UPDATE BINARY
//   80 12 00 00 Le         answers Le bytes of a counting pattern (extended Le up to 65536)
//   80 14 SW1 SW2          answers that status word (for tests of card refusals)
// The file holds bytes i & 0xFF ^ (i >> 8) for offset i unless set up otherwise.
std::unique_ptr<Application> make_test_application(std::vector<uint8_t> aid, size_t file_size,
                                                   const std::vector<uint8_t> &file_head = {});
extern const std::vector<uint8_t> TEST_APP_AID;

} // namespace zs
#endif
