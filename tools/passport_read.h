// Reading a travel document over BAC, shared by tandro passport and the demo.
#ifndef TANDRO_TOOLS_PASSPORT_READ_H
#define TANDRO_TOOLS_PASSPORT_READ_H

#include <cstdint>
#include <string>

#include "tandro.h"

struct zsim;

namespace tandro {

class Progress;

// The simulated passport's MRZ (the specimen).
extern const char kSimulatedMrz[];

// Removes the cards in front of the simulated passport, so that it is the card the reader activates.
void bring_passport_forward(zsim *sim);

// A folder holding the simulated passport's CSCA, removed at the end.
struct SimCscaFolder {
    std::string dir;
    SimCscaFolder();
    ~SimCscaFolder();
    SimCscaFolder(const SimCscaFolder &) = delete;
    SimCscaFolder &operator=(const SimCscaFolder &) = delete;
};

struct PassportRead {
    std::string holder;        // DG1 as text lines; empty when it could not be parsed
    std::string photo_note;    // where the face image went, when one was asked for
    bool photo_failed = false; // a face image was asked for and not written
    std::string report;        // the validation report
    uint8_t integrity = 0, validity = 0;
    ZEL_STATUS validation = ZEL_OK;
};

// On the global reader: ISO 14443-4 mode, BAC, DG1, DG2 (written to photo when given, with its extension) and
// the validation against the CSCA folder. A failing step returns its status and names itself in *step. A bar,
// when given, counts the kPassportSteps steps (access control, DG1, DG2, validation) as they end.
constexpr unsigned kPassportSteps = 4;
ZEL_STATUS read_passport(const std::string &doc, const std::string &birth, const std::string &expiry,
                         const std::string &csca, const std::string &photo, int verbosity, PassportRead &out,
                         const char **step, Progress *bar = nullptr);

} // namespace tandro

#endif
