#include "repository/signing.h"
#include "base/files.h"
#include "base/status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace localrelay {
namespace {

std::string RealPath(const std::string& path) {
    char* real = ::realpath(path.c_str(), nullptr);
    if (real == nullptr) return "";
    std::string resolved(real);
    std::free(real);
    return resolved;
}

std::string Octal(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", unsigned(mode & 07777));
    return text;
}

}  // namespace

std::unique_ptr<SigningKey> LoadSigningKey(const std::string& path, const std::string& repositoryPath,
                                           std::string& error) {
    const FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (fd.get() < 0 || ::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        error = "signing key " + path + " cannot be read";
        return nullptr;
    }
    if ((info.st_mode & 077) != 0) {
        error = "signing key " + path + " is open to others than its owner (mode " + Octal(info.st_mode) +
                "): chmod 600 it";
        return nullptr;
    }
    const std::string real = RealPath(path), repository = RealPath(repositoryPath);
    if (!repository.empty() && (real == repository || real.rfind(repository + "/", 0) == 0)) {
        error = "signing key " + path + " lies inside the repository, which is served: keep it elsewhere";
        return nullptr;
    }
    std::string pem(size_t(std::min<off_t>(info.st_size, 65536)), '\0');
    const ssize_t got = ::read(fd.get(), &pem[0], pem.size());
    pem.resize(got > 0 ? size_t(got) : 0);
    std::unique_ptr<SigningKey> key = SigningKey::FromPem(pem, &error);
    if (!key) error = "signing key " + path + ": " + error;
    return key;
}

ZOVRELAY_Status WriteSignedFileAt(int root, const std::string& name, const std::string& text, const SigningKey* key,
                                  int64_t now) {
    if (key == nullptr) return WriteChangedFileAt(root, name, text);
    const std::string signatureName = name + kSignatureSuffix;
    const std::optional<SignatureFile> before =
        ParseSignatureFile(ReadWholeFileAt(root, signatureName, 65536).value_or(""));
    SignedStatement statement{name, uint64_t(std::max<int64_t>(now, 1)), CatalogDigest(text), ""};
    SignatureFile after;
    if (before) {
        const SignedStatement& last = before->statements.front();
        if (last.catalog == name && last.sha256 == statement.sha256 && VerifyStatement(key->publicKey(), last))
            return WriteChangedFileAt(root, name, text);
        statement.generation = std::max(statement.generation, last.generation + 1);
        if (last.catalog == name) after.statements.push_back(last);
    }
    if (!key->Sign(statement)) return kOutOfMemory;
    after.statements.insert(after.statements.begin(), statement);
    // The signature first: until the catalog's rename it still holds the statement of the old one.
    const ZOVRELAY_Status status = WriteWholeFileAt(root, signatureName, FormatSignatureFile(after));
    return status > 0 ? WriteChangedFileAt(root, name, text) : status;
}

ZOVRELAY_Status SignCurrentFileAt(int root, const std::string& name, const SigningKey& key, int64_t now) {
    const std::optional<std::string> text = ReadWholeFileAt(root, name, size_t(1) << 31);
    return text ? WriteSignedFileAt(root, name, *text, &key, now) : kSuccess;
}

}  // namespace localrelay
