#include "transfer/package.h"
#include "base/hex.h"

#include <zlib.h>

#include <algorithm>
#include "base/status.h"

#include <new>

namespace localrelay {

uint32_t Crc32(uint32_t crc, const void* data, size_t size) {
    const auto* bytes = static_cast<const Bytef*>(data);
    while (size > 0) {  // zlib takes a uInt at a time
        const uInt chunk = uInt(std::min<size_t>(size, 1u << 30));
        crc = uint32_t(::crc32(crc, bytes, chunk));
        bytes += chunk, size -= chunk;
    }
    return crc;
}

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
    if (context_ == nullptr || EVP_DigestInit_ex(context_, EVP_sha256(), nullptr) != 1) {
        EVP_MD_CTX_free(context_);
        throw std::bad_alloc();
    }
}

Sha256::~Sha256() { EVP_MD_CTX_free(context_); }

void Sha256::Update(const void* data, size_t size) { EVP_DigestUpdate(context_, data, size); }

std::string Sha256::HexDigest() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context_, digest, &length);
    return Hex(digest, length);
}

bool CheckingSink::Write(const char* data, size_t size) {
    // A source that sends more than the catalog promised is wrong already; do not store the rest.
    if (size > expectedSize_ - received_) {
        stopStatus = kIntegrityFailed;
        stopReason = "larger than the catalog's " + std::to_string(expectedSize_) + " bytes";
        return false;
    }
    digest_.Update(data, size);
    received_ += size;
    return true;
}

ZOVRELAY_Status CheckingSink::Check(const std::string& sha256) {
    if (received_ != expectedSize_) {
        stopReason = std::to_string(received_) + " bytes, the catalog says " + std::to_string(expectedSize_);
        return kIntegrityFailed;
    }
    if (digest_.HexDigest() == sha256) return kSuccess;
    stopReason = "SHA-256 differs from the catalog's";
    return kIntegrityFailed;
}

}  // namespace localrelay
