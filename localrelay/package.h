// Receiving one package: into a hidden temporary file, counted, hashed with SHA-256 and reported
// as progress events; checked against the catalog's size and digest before anyone may use it.
#ifndef LOCALRELAY_PACKAGE_H
#define LOCALRELAY_PACKAGE_H

#include "events.h"
#include "transfer.h"

#include <openssl/evp.h>

#include <cstdint>
#include <string>

namespace localrelay {

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

// The package sink: writes to the file `name` of `directory`, created exclusively (whatever was
// under that name, a stale part, a link or a hard link, is removed first and never written
// through; a name that cannot be cleared is passed over for a fresh random one), raises
// "progress" at most every 64 KiB and once at the end, and removes the file unless Finish()
// succeeded and the caller took it with Release().
class PackageSink : public CheckingSink {
public:
    PackageSink(int directory, std::string name, uint64_t expectedSize, const Events& events, std::string information);
    PackageSink(const PackageSink&) = delete;
    PackageSink& operator=(const PackageSink&) = delete;
    ~PackageSink() override;

    ZOVRELAY_Status Open();  // kIoError when the temporary cannot be created
    bool Write(const char* data, size_t size) override;
    // After a complete transfer: the last progress event, the checks, and the data on disk.
    ZOVRELAY_Status Finish(const std::string& sha256);
    const std::string& name() const { return name_; }
    void Release() { keep_ = true; }

private:
    int directory_;
    std::string name_;
    const Events& events_;
    std::string information_;
    int fd_ = -1;
    uint64_t reported_ = 0;
    bool reportedOnce_ = false;
    bool keep_ = false;
    bool created_ = false;  // the file is ours to remove
};

}  // namespace localrelay

#endif
