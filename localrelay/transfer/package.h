// Checking one package's bytes: counted and hashed with SHA-256 as they pass, then held against the
// catalog's size and digest before anyone may use them.
#ifndef LOCALRELAY_PACKAGE_H
#define LOCALRELAY_PACKAGE_H

#include "transfer/transfer.h"

#include <openssl/evp.h>

#include <cstdint>
#include <string>

namespace localrelay {

// CRC-32 as zip files keep it: start from 0, feed the bytes in order.
uint32_t Crc32(uint32_t crc, const void* data, size_t size);

class Sha256 {
public:
    Sha256();  // throws std::bad_alloc when libcrypto cannot make its context
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;
    ~Sha256();

    void Update(const void* data, size_t size);
    std::string HexDigest();  // lower case; call once

private:
    EVP_MD_CTX* context_;
};

// Hashes and counts what passes, and stops at the first byte past `expectedSize`; no file.
class CheckingSink : public ChunkSink {
public:
    explicit CheckingSink(uint64_t expectedSize) : expectedSize_(expectedSize) { stopStatus = kIntegrityFailed; }
    bool Write(const char* data, size_t size) override;
    // kIntegrityFailed unless exactly the expected bytes with this digest arrived.
    ZOVRELAY_Status Check(const std::string& sha256);
    uint64_t received() const { return received_; }

protected:
    uint64_t expectedSize_;
    uint64_t received_ = 0;
    Sha256 digest_;
};

}  // namespace localrelay

#endif
