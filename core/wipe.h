// Secrets on the stack: a buffer that held a key or a password is wiped when it goes out of scope, on every
// return path, with a wipe the compiler cannot drop.
#ifndef ZEL_CORE_WIPE_H
#define ZEL_CORE_WIPE_H

#include <openssl/crypto.h>

#include <cstddef>

namespace zel {

class WipeOnExit {
public:
    WipeOnExit(void *buf, size_t len) : buf_(buf), len_(len) {}
    ~WipeOnExit() { OPENSSL_cleanse(buf_, len_); }
    WipeOnExit(const WipeOnExit &) = delete;
    WipeOnExit &operator=(const WipeOnExit &) = delete;

private:
    void *buf_;
    size_t len_;
};

} // namespace zel

#endif
