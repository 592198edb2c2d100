// DESFire in the simulator: the card (cards/desfire.cpp), which answers DESFire native commands, and the
// reader's DESFire engine (desfire_reader.cpp), which takes the host's one-frame operations, authenticates
// with the card and runs the card commands. The two meet only through native commands, as a reader and a
// card do over the air: the card checks keys by a mutual challenge and response, and the commands after it
// pass in plain between the two (they never leave the simulator).
#ifndef ZELSIM_DESFIRE_H
#define ZELSIM_DESFIRE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "card.h"
#include "iso7816.h"

namespace zs {

// DESFire status bytes.
constexpr uint8_t DF_OK = 0x00, DF_NO_CHANGES = 0x0C, DF_OUT_OF_EEPROM = 0x0E, DF_ILLEGAL_COMMAND = 0x1C,
                  DF_INTEGRITY = 0x1E, DF_NO_SUCH_KEY = 0x40, DF_LENGTH = 0x7E, DF_PERMISSION_DENIED = 0x9D,
                  DF_PARAMETER = 0x9E, DF_APP_NOT_FOUND = 0xA0, DF_AUTHENTICATION = 0xAE, DF_ADDITIONAL_FRAME = 0xAF,
                  DF_BOUNDARY = 0xBE, DF_COMMAND_ABORTED = 0xCA, DF_COUNT = 0xCE, DF_DUPLICATE = 0xDE,
                  DF_FILE_NOT_FOUND = 0xF0;

// Key families of the card: DES and 2K3DES keys share one (a DES key is a 2K3DES key of equal halves).
enum class DfKeyKind : uint8_t { TDES = 0, TK3DES = 1, AES = 2 };

// CBC over whole blocks with the key of a kind (TDES: 16 bytes, TK3DES: 24, AES: 16). iv is updated to the
// last cipher block. False when OpenSSL refuses.
bool df_cbc(DfKeyKind kind, const uint8_t *key, uint8_t *iv, uint8_t *data, size_t n, bool encipher);
size_t df_block(DfKeyKind kind);
// AES-128 CMAC of n bytes.
std::array<uint8_t, 16> df_aes_cmac(const std::array<uint8_t, 16> &key, const uint8_t *msg, size_t n);
// Fills n bytes from the random source.
void df_random(uint8_t *p, size_t n);

struct DfFile {
    uint8_t type = 0, comm = 0;
    uint16_t access = 0xEEEE;
    uint16_t iso_id = 0;
    std::vector<uint8_t> data; // standard and backup: the committed image
    int32_t value = 0, lower = 0, upper = 0;
    int32_t lc_value = 0;
    bool lc_enabled = false;
    uint32_t rec_size = 0, max_rec = 0;
    std::vector<std::vector<uint8_t>> records; // oldest first
    std::array<uint8_t, 16> tmac_key{};
    uint8_t tmac_version = 0;
    uint32_t tmac_counter = 0;
    std::vector<uint8_t> sdm; // standard file with SDM on: options, SDM access rights, offsets

    // The transaction: changes wait here until a commit.
    bool dirty = false;
    std::vector<uint8_t> p_data;
    int32_t p_value = 0;
    std::vector<std::vector<uint8_t>> p_records;
    bool p_new_record = false;
    size_t cost() const;
};

struct DfKey {
    std::array<uint8_t, 24> bytes{};
    uint8_t version = 0;
};

struct DfApp {
    uint32_t aid = 0;
    uint8_t settings = 0x0F;
    uint8_t key_count = 1;
    DfKeyKind kind = DfKeyKind::TDES;
    uint16_t iso_id = 0;
    std::vector<uint8_t> df_name;
    std::vector<DfKey> keys;
    std::map<uint8_t, DfFile> files;
};

// What a DESFire card is set up with: {"size": 4096, "version": "ev2", "master_key": "hex",
// "master_key_type": "aes", "applications": [{"aid": "A1B2C3", "key_type": "aes", "keys": 3,
// "files": [{"id": 1, "type": "std", "size": 32, "data": "hex"}, {"id": 2, "type": "value", "lower": 0,
// "upper": 1000, "value": 100}, {"id": 3, "type": "cyclic", "record_size": 8, "records": 5}]}]}.
// Keys of such applications are all zero, and their files free for every access.
struct DfSetup {
    uint32_t size = 4096;
    std::string version = "ev1";
    DfKeyKind master_kind = DfKeyKind::TDES;
    std::array<uint8_t, 24> master_key{};
};

class DesfireCard final : public Card {
public:
    DesfireCard(const zsim_card &id, const DfSetup &setup);
    const char *model() const override { return "desfire"; }
    // The reader's DESFire engine (desfire_reader.cpp) runs the native commands; the level-4 commands reach
    // the card's ISO view (cards/desfire_iso.cpp).
    bool wants_ext(const uint8_t *f) const override { return iso_ && iso_->wants_ext(f); }
    bool command(const uint8_t *f, const uint8_t *ext, size_t n, std::vector<uint8_t> &out) override
    {
        return iso_ && iso_->command(f, ext, n, out);
    }
    Iso14443Card *level4_view() override { return iso_.get(); }

    // One native command (command byte first); the answer's first byte is the status.
    std::vector<uint8_t> native(const uint8_t *cmd, size_t n);
    uint32_t free_memory() const;
    const DfSetup &setup() const { return setup_; }
    // The card left the field or was reset: selection, authentication and the transaction end.
    void deselect();
    // The applications, for a setup that brings some along.
    std::vector<DfApp> &apps() { return apps_; }

    // The reader engine keeps a write in progress here, between the host's pieces.
    struct PendingWrite {
        bool active = false;
        uint8_t frame[7] = {};
        std::vector<uint8_t> ext;  // the first EXT without its checksum
        std::vector<uint8_t> data; // everything received so far
        uint32_t total = 0;
        std::vector<uint8_t> partial; // a piece still arriving: its count byte and bytes
    } pending;

private:
    // One native command on its way to its handler: the bytes, the selected application (the card level's
    // when at_picc) and, for the file commands, the file.
    struct Call {
        const uint8_t *c;
        size_t n;
        DfApp *app;
        bool at_picc;
        DfFile *f;
    };
    using Handler = std::vector<uint8_t> (DesfireCard::*)(const Call &);
    enum class Needs : uint8_t { Card, App, File };
    struct Command {
        uint8_t code;
        Needs needs;
        Handler handler;
    };
    static const Command *find_command(uint8_t code);
    std::vector<uint8_t> run(const uint8_t *c, size_t n);
    // Card and applications.
    std::vector<uint8_t> select_application(const Call &k);
    std::vector<uint8_t> application_ids(const Call &k);
    std::vector<uint8_t> free_memory_command(const Call &k);
    std::vector<uint8_t> format(const Call &k);
    std::vector<uint8_t> set_configuration(const Call &k);
    std::vector<uint8_t> card_uid(const Call &k);
    std::vector<uint8_t> create_application(const Call &k);
    std::vector<uint8_t> delete_application(const Call &k);
    // Keys and authentication.
    std::vector<uint8_t> authenticate(const Call &k);
    std::vector<uint8_t> key_settings(const Call &k);
    std::vector<uint8_t> change_key_settings(const Call &k);
    std::vector<uint8_t> change_key(const Call &k);
    bool may_change_key(const DfApp &app, bool at_picc, uint8_t keyno) const;
    // Files and the transaction.
    bool may_manage(const DfApp &app) const;
    std::vector<uint8_t> add_file(DfApp &app, uint8_t fid, DfFile f);
    std::vector<uint8_t> create_data_file(const Call &k);
    std::vector<uint8_t> create_value_file(const Call &k);
    std::vector<uint8_t> create_record_file(const Call &k);
    std::vector<uint8_t> create_tmac_file(const Call &k);
    std::vector<uint8_t> delete_file(const Call &k);
    std::vector<uint8_t> commit_command(const Call &k);
    std::vector<uint8_t> abort_command(const Call &k);
    std::vector<uint8_t> commit_reader_id(const Call &k);
    // File settings, data, values and records.
    std::vector<uint8_t> file_settings(const Call &k);
    std::vector<uint8_t> change_file_settings(const Call &k);
    std::vector<uint8_t> read_data(const Call &k);
    std::vector<uint8_t> write_data(const Call &k);
    std::vector<uint8_t> get_value(const Call &k);
    std::vector<uint8_t> credit_debit(const Call &k);
    std::vector<uint8_t> write_record(const Call &k);
    std::vector<uint8_t> read_records(const Call &k);
    std::vector<uint8_t> clear_records(const Call &k);

    DfApp *selected_app();
    DfFile *file(uint8_t fid);
    bool may(uint8_t nibble) const;
    void abort_transaction();
    std::vector<uint8_t> commit(uint8_t option);

    DfSetup setup_;
    DfApp picc_; // AID 0: the master key, its settings, and no files
    std::vector<DfApp> apps_;
    bool format_disabled_ = false, random_uid_ = false;
    uint32_t selected_ = 0;
    int auth_key_ = -1; // the key authenticated in the selected application
    // Authentication in progress.
    uint8_t auth_step_ = 0, auth_kind_cmd_ = 0, auth_keyno_ = 0;
    std::vector<uint8_t> rndb_, auth_iv_;
    std::array<uint8_t, 16> reader_id_{};
    // DESFire Light ("light"): the message its transaction MAC covers, from the last MACed operation of the
    // transaction, and the reader id committed in it with the previous one as the card enciphered it.
    std::vector<uint8_t> tmac_msg_;
    bool rid_in_transaction_ = false;
    std::array<uint8_t, 16> prev_enc_reader_id_{};
    std::unique_ptr<Iso14443Card> iso_;
};

// The ISO view of a DESFire card: its NDEF application by ISO commands.
std::unique_ptr<Iso14443Card> make_desfire_iso_view(DesfireCard &card);

// The reader's side, called from reader.cpp and session.cpp.
struct Reader;
struct Answer;
struct LinkCore;
bool desfire_reader_wants_ext(const Reader &r, const uint8_t frame[7]);
bool desfire_reader_command(Reader &r, const uint8_t frame[7], const uint8_t *ext, size_t ext_len, Answer &a);
// The later pieces of a chunked write come as raw bytes after the reader's 0xAD: true when they were taken.
bool desfire_link_input(zsim *sim, LinkCore &link, const uint8_t *in, size_t n);

// Where the reader keeps the keys of its DESFire engine in its EEPROM: 16 bytes a key number (a 3K3DES key
// runs 8 bytes into the next).
constexpr size_t EE_DESFIRE_KEYS = 346;

} // namespace zs
#endif
