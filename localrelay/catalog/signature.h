// Signed catalogs: the detached signature file published beside a catalog, the statement each of
// its lines signs, Ed25519 keys (OpenSSL's EVP: no cryptography of our own) and the trusted-keys
// format. A mirror that trusts a source's keys takes a catalog from it only when a statement signed
// by one of them names that catalog's SHA-256, at a generation no older than one it accepted.
#ifndef LOCALRELAY_SIGNATURE_H
#define LOCALRELAY_SIGNATURE_H

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace localrelay {

// "<catalog>.sig": source.ini.sig beside source.ini.
inline constexpr const char* kSignatureSuffix = ".sig";

// One signed statement: "this text, with this SHA-256, was the catalog <name> at <generation>".
// The generation (nanoseconds since 1970 when written, and always above the one before) only
// grows, so a catalog replayed from an older night is told apart from the current one.
struct SignedStatement {
    std::string catalog;    // the catalog's file name: source.ini or server.ini
    uint64_t generation = 0;
    std::string sha256;     // lower-case hex of the catalog's text
    std::string signature;  // raw Ed25519 signature, 64 bytes
};

// The signature file, "zovrelay-signature 1" then one line per statement, newest first:
//   statement <catalog> <generation> <sha256 hex> <signature base64>
// A writer keeps the previous catalog's statement beside the new one, so a reader that fetched the
// catalog just before it was replaced and the signature file just after still finds its statement.
struct SignatureFile {
    std::vector<SignedStatement> statements;
};
std::optional<SignatureFile> ParseSignatureFile(std::string_view text, std::string* error = nullptr);
std::string FormatSignatureFile(const SignatureFile& file);

// The bytes a statement's signature covers (canonical: made from the fields, never read).
std::string StatementBytes(const SignedStatement& statement);
std::string CatalogDigest(std::string_view text);  // SHA-256, lower-case hex

// An Ed25519 public key as 32 raw bytes, from any of the forms an administrator has at hand: the
// base64 of the raw key, 64 hexadecimal digits, the base64 body of `openssl pkey -pubout` (a
// SubjectPublicKeyInfo), or such a PEM file's whole text. nullopt with `error` otherwise.
std::optional<std::string> ParsePublicKey(std::string_view text, std::string* error = nullptr);
bool VerifyStatement(const std::string& publicKey, const SignedStatement& statement);

// What a mirror that trusts `keys` makes of the catalog `name` with this text and the signature
// file beside it (nullopt: there was none), when it accepted generation `accepted` before. An
// empty refusal accepts it at `generation`; `mismatch` says no statement names this text (a reader
// that raced a writer, or a cache holding one file but not the other: worth fetching both again).
struct Verdict {
    std::string refusal;
    uint64_t generation = 0;
    bool mismatch = false;
};
Verdict CheckSignature(const std::vector<std::string>& keys, const std::string& name, std::string_view text,
                       const std::optional<std::string>& signatureFile, uint64_t accepted);

// A private Ed25519 key (from `openssl genpkey -algorithm ed25519`), kept only in memory.
class SigningKey {
public:
    static std::unique_ptr<SigningKey> FromPem(const std::string& pem, std::string* error = nullptr);
    ~SigningKey();
    SigningKey(const SigningKey&) = delete;
    SigningKey& operator=(const SigningKey&) = delete;
    // Fills the statement's signature; false when libcrypto fails (no memory).
    bool Sign(SignedStatement& statement) const;
    const std::string& publicKey() const { return public_; }

private:
    explicit SigningKey(void* key) : key_(key) {}
    void* key_;  // EVP_PKEY, kept out of this header
    std::string public_;
};

// The trusted keys: lines "<source address> <key>", the key in any form ParsePublicKey takes or
// an absolute path to a PEM public key file (read by the caller through `readFile`); several lines
// for one source trust each of their keys (for a rotation). '#' starts a comment line; blank lines
// are ignored. A line that does not parse refuses the whole file, naming `origin` and its line:
// dropping it would quietly accept unsigned catalogs from a source meant to be checked.
struct TrustedKeys {
    std::map<std::string, std::vector<std::string>> keys;  // address without trailing '/' -> raw keys
    // The keys trusted for a source, or nullptr when none is (its catalogs are taken unsigned).
    const std::vector<std::string>* For(const std::string& address) const;
};
using ReadKeyFile = std::optional<std::string> (*)(const std::string& path);
bool AddTrustedKeys(TrustedKeys& trusted, std::string_view text, const std::string& origin, ReadKeyFile readFile,
                    std::string& error);

}  // namespace localrelay

#endif
