#include "api/keys.h"
#include "api/runmode.h"
#include "base/failure.h"
#include "base/files.h"
#include "base/status.h"
#include "repository/signing.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

namespace localrelay {
namespace {

// A public key file an administrator named in the trusted keys (a PEM file of a few hundred bytes).
std::optional<std::string> ReadKeyFileAt(const std::string& path) {
    const FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0) return std::nullopt;
    std::string text(65536, '\0');
    const ssize_t got = ::read(fd.get(), &text[0], text.size());
    if (got < 0) return std::nullopt;
    text.resize(size_t(got));
    return text;
}

}  // namespace

ZOVRELAY_Status ReadTrustedKeys(int root, const std::string& repositoryPath, TrustedKeys& trusted) {
    std::string error;
    const std::optional<std::string> file = root >= 0 ? ReadWholeFileAt(root, kTrustedKeysName, 1 << 20) : std::nullopt;
    if (file && !AddTrustedKeys(trusted, *file, repositoryPath + "/" + kTrustedKeysName, ReadKeyFileAt, error))
        return Fail(kInvalidArgument, error, "");
    const std::optional<std::string>& given = GivenTrustedKeys();
    if (given && !AddTrustedKeys(trusted, *given, "trusted_keys", ReadKeyFileAt, error))
        return Fail(kInvalidArgument, error, "");
    return kSuccess;
}

ZOVRELAY_Status ReadSigningKey(const std::string& repositoryPath, std::unique_ptr<SigningKey>& key) {
    const char* variable = std::getenv(kSigningKeyVariable);
    const std::string path = GivenSigningKey() ? *GivenSigningKey() : variable != nullptr ? variable : "";
    if (path.empty()) return kSuccess;
    std::string error;
    key = LoadSigningKey(path, repositoryPath, error);
    return key ? kSuccess : Fail(kInvalidArgument, error, "");
}

}  // namespace localrelay
