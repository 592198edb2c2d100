// The built-in images, certificates and keys of the simulated passport.
#ifndef ZELSIM_CARDS_PASSPORT_ASSETS_H
#define ZELSIM_CARDS_PASSPORT_ASSETS_H

#include <cstdint>

namespace zs::passport_assets {

extern const uint8_t kFaceJpeg[1654];
extern const uint8_t kSignatureJpeg[1176];
extern const char kCscaPem[];
extern const char kDsEcPem[];
extern const char kDsEcKey[];
extern const char kDsRsaPem[];
extern const char kDsRsaKey[];

} // namespace zs::passport_assets
#endif
