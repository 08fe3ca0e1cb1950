// The keys of an operation: the signing key the repository publishes signed catalogs with, and the
// keys trusted for its sources. Plain Lua scripts reach both without the module's help (the
// environment variable UPDATE_SIGNING_KEY, the file <repository>/.trusted-keys); the command
// passes its configuration through ZOVRELAY_LocalKeys.
#ifndef LOCALRELAY_KEYS_H
#define LOCALRELAY_KEYS_H

#include "catalog/signature.h"
#include "zovrelay.h"

#include <memory>
#include <string>

namespace localrelay {

inline constexpr const char* kTrustedKeysName = ".trusted-keys";
inline constexpr const char* kSigningKeyVariable = "UPDATE_SIGNING_KEY";

// <repository>/.trusted-keys (`root`: the repository's directory, or -1) and what the thread gave.
// kInvalidArgument, its message naming the file and line, when either does not parse.
ZOVRELAY_Status ReadTrustedKeys(int root, const std::string& repositoryPath, TrustedKeys& trusted);

// The signing key the thread gave, or else the one UPDATE_SIGNING_KEY names; none when neither.
// kInvalidArgument, its message naming the key and the reason, when it cannot be used.
ZOVRELAY_Status ReadSigningKey(const std::string& repositoryPath, std::unique_ptr<SigningKey>& key);

}  // namespace localrelay

#endif
