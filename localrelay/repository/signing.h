// A repository that signs what it publishes: the signing key, loaded from outside the served tree,
// and the catalogs written with their signature files (see catalog/signature.h).
#ifndef LOCALRELAY_SIGNING_H
#define LOCALRELAY_SIGNING_H

#include "catalog/signature.h"
#include "zovrelay.h"

#include <memory>
#include <string>

namespace localrelay {

// The private key at `path` (PEM). Refused with `error`: a file others than its owner may read or
// write (the relay will not sign with a key that may have leaked, as ssh will not use one), one
// inside the repository at `repositoryPath` (whatever serves the repository would serve it), or
// anything that is no Ed25519 private key.
std::unique_ptr<SigningKey> LoadSigningKey(const std::string& path, const std::string& repositoryPath,
                                           std::string& error);

// Writes the catalog `name` of `root` as WriteChangedFileAt does, and with a `key` its signature file
// "<name>.sig" first: a new statement at a generation above the last, with the previous statement
// kept beside it, so that a reader holding either the old catalog or the new one finds its
// statement whatever moment it read the signature file at. A signature that is current (it names
// this text and our key signs it) is left alone: a night with nothing new writes nothing.
ZOVRELAY_Status WriteSignedFileAt(int root, const std::string& name, const std::string& text, const SigningKey* key,
                                  int64_t now);
// The catalog as it is on disk signed with `key`, when it is not already.
ZOVRELAY_Status SignCurrentFileAt(int root, const std::string& name, const SigningKey& key, int64_t now);

}  // namespace localrelay

#endif
