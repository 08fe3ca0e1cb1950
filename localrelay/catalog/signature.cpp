#include "catalog/signature.h"
#include "base/hex.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cctype>
#include <cstring>

namespace localrelay {
namespace {

constexpr std::string_view kHeader = "zovrelay-signature 1";
constexpr size_t kKeySize = 32, kSignatureSize = 64;

std::string Base64(const std::string& bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                       reinterpret_cast<const unsigned char*>(bytes.data()), int(bytes.size()));
    text.resize(size_t(length));
    return text;
}

// Strict base64 (whole groups of four, '=' only as padding); nullopt otherwise.
std::optional<std::string> FromBase64(std::string_view text) {
    if (text.empty() || text.size() % 4 != 0 || text.size() > 4096) return std::nullopt;
    size_t padding = 0;
    while (padding < 2 && text[text.size() - 1 - padding] == '=') ++padding;
    for (size_t i = 0; i < text.size() - padding; ++i)
        if (!std::isalnum(static_cast<unsigned char>(text[i])) && text[i] != '+' && text[i] != '/') return std::nullopt;
    std::string bytes(text.size() / 4 * 3, '\0');
    const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&bytes[0]),
                                       reinterpret_cast<const unsigned char*>(text.data()), int(text.size()));
    if (length < 0) return std::nullopt;
    bytes.resize(size_t(length) - padding);
    return bytes;
}

struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

// The raw public key of an Ed25519 key; nullopt for any other kind.
std::optional<std::string> RawPublic(EVP_PKEY* key) {
    if (key == nullptr || EVP_PKEY_id(key) != EVP_PKEY_ED25519) return std::nullopt;
    std::string raw(kKeySize, '\0');
    size_t size = raw.size();
    if (EVP_PKEY_get_raw_public_key(key, reinterpret_cast<unsigned char*>(&raw[0]), &size) != 1 || size != kKeySize)
        return std::nullopt;
    return raw;
}

std::optional<std::string> PublicFromPem(std::string_view pem) {
    BIO* bio = BIO_new_mem_buf(pem.data(), int(pem.size()));
    if (bio == nullptr) return std::nullopt;
    const Pkey key(PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr));
    BIO_free(bio);
    return RawPublic(key.get());
}

// Splits a line into fields at runs of blanks.
std::vector<std::string_view> Fields(std::string_view line) {
    std::vector<std::string_view> fields;
    size_t at = 0;
    while ((at = line.find_first_not_of(" \t", at)) != std::string_view::npos) {
        const size_t end = std::min(line.find_first_of(" \t", at), line.size());
        fields.push_back(line.substr(at, end - at));
        at = end;
    }
    return fields;
}

std::optional<SignedStatement> ParseStatement(std::string_view line) {
    const std::vector<std::string_view> fields = Fields(line);
    if (fields.size() != 5 || fields[0] != "statement" || fields[1].empty() || fields[1].size() > 64) return std::nullopt;
    SignedStatement statement;
    statement.catalog = std::string(fields[1]);
    if (fields[2].empty() || fields[2].size() > 19 || fields[2].find_first_not_of("0123456789") != std::string_view::npos)
        return std::nullopt;
    statement.generation = std::stoull(std::string(fields[2]));
    const std::optional<std::string> digest = FromHex(fields[3]);
    std::optional<std::string> signature = FromBase64(fields[4]);
    if (!digest || digest->size() != 32 || !signature || signature->size() != kSignatureSize) return std::nullopt;
    statement.sha256 = std::string(fields[3]);
    for (char& c : statement.sha256) c = char(std::tolower(static_cast<unsigned char>(c)));
    statement.signature = std::move(*signature);
    return statement;
}

}  // namespace

std::optional<SignatureFile> ParseSignatureFile(std::string_view text, std::string* error) {
    const auto refuse = [&](const std::string& why) -> std::optional<SignatureFile> {
        if (error != nullptr) *error = why;
        return std::nullopt;
    };
    if (text.size() > 65536) return refuse("larger than 64 KiB");
    if (text.empty() || text.back() != '\n') return refuse("cut short");
    SignatureFile file;
    size_t at = 0, number = 0;
    while (at < text.size()) {
        const size_t end = text.find('\n', at);
        const std::string_view line = text.substr(at, end - at);
        at = end + 1;
        if (++number == 1) {
            if (line != kHeader) return refuse("no signature file");
            continue;
        }
        std::optional<SignedStatement> statement = ParseStatement(line);
        if (!statement) return refuse("line " + std::to_string(number) + " malformed");
        file.statements.push_back(std::move(*statement));
    }
    if (file.statements.empty()) return refuse("no statement");
    return file;
}

std::string FormatSignatureFile(const SignatureFile& file) {
    std::string text = std::string(kHeader) + "\n";
    for (const SignedStatement& s : file.statements)
        text += "statement " + s.catalog + " " + std::to_string(s.generation) + " " + s.sha256 + " " + Base64(s.signature) + "\n";
    return text;
}

std::string StatementBytes(const SignedStatement& s) {
    return "zovrelay-catalog-statement 1\ncatalog " + s.catalog + "\ngeneration " + std::to_string(s.generation) +
           "\nsha256 " + s.sha256 + "\n";
}

std::string CatalogDigest(std::string_view text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_Digest(text.data(), text.size(), digest, &size, EVP_sha256(), nullptr) != 1) return "";
    return Hex(digest, size);
}

std::optional<std::string> ParsePublicKey(std::string_view text, std::string* error) {
    std::optional<std::string> raw;
    if (text.find("-----BEGIN") != std::string_view::npos) {
        raw = PublicFromPem(text);
    } else if (text.size() == 2 * kKeySize) {
        raw = FromHex(text);
    } else if (const std::optional<std::string> bytes = FromBase64(text)) {
        if (bytes->size() == kKeySize) {
            raw = bytes;
        } else {  // a SubjectPublicKeyInfo, as `openssl pkey -pubout` writes between its PEM lines
            const unsigned char* der = reinterpret_cast<const unsigned char*>(bytes->data());
            const Pkey key(d2i_PUBKEY(nullptr, &der, long(bytes->size())));
            raw = RawPublic(key.get());
        }
    }
    if (!raw && error != nullptr) *error = "not an Ed25519 public key";
    return raw;
}

bool VerifyStatement(const std::string& publicKey, const SignedStatement& statement) {
    const Pkey key(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr,
                                               reinterpret_cast<const unsigned char*>(publicKey.data()), publicKey.size()));
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    const std::string bytes = StatementBytes(statement);
    const bool good = key != nullptr && context != nullptr &&
                      EVP_DigestVerifyInit(context, nullptr, nullptr, nullptr, key.get()) == 1 &&
                      EVP_DigestVerify(context, reinterpret_cast<const unsigned char*>(statement.signature.data()),
                                       statement.signature.size(), reinterpret_cast<const unsigned char*>(bytes.data()),
                                       bytes.size()) == 1;
    EVP_MD_CTX_free(context);
    return good;
}

Verdict CheckSignature(const std::vector<std::string>& keys, const std::string& name, std::string_view text,
                       const std::optional<std::string>& signatureFile, uint64_t accepted) {
    Verdict verdict;
    std::string error;
    const std::optional<SignatureFile> file = signatureFile ? ParseSignatureFile(*signatureFile, &error) : std::nullopt;
    if (!signatureFile) return verdict.refusal = "catalog signature missing", verdict;
    if (!file) return verdict.refusal = "catalog signature invalid (" + error + ")", verdict;
    const std::string digest = CatalogDigest(text);
    const SignedStatement* signedBy = nullptr;
    bool named = false;
    for (const SignedStatement& statement : file->statements) {
        if (statement.catalog != name || statement.sha256 != digest) continue;
        named = true;
        for (const std::string& key : keys)
            if (signedBy == nullptr && VerifyStatement(key, statement)) signedBy = &statement;
    }
    if (!named) {
        verdict.mismatch = true;
        return verdict.refusal = "catalog signature invalid (it names another catalog)", verdict;
    }
    if (signedBy == nullptr) return verdict.refusal = "catalog signature invalid (no trusted key made it)", verdict;
    if (signedBy->generation < accepted)
        return verdict.refusal = "older catalog (generation " + std::to_string(signedBy->generation) + ", " +
                                 std::to_string(accepted) + " accepted before)",
               verdict;
    verdict.generation = signedBy->generation;
    return verdict;
}

std::unique_ptr<SigningKey> SigningKey::FromPem(const std::string& pem, std::string* error) {
    BIO* bio = BIO_new_mem_buf(pem.data(), int(pem.size()));
    Pkey key(bio != nullptr ? PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr) : nullptr);
    BIO_free(bio);
    const std::optional<std::string> raw = RawPublic(key.get());
    if (!raw) {
        if (error != nullptr) *error = "not an Ed25519 private key in PEM form (openssl genpkey -algorithm ed25519)";
        return nullptr;
    }
    std::unique_ptr<SigningKey> signing(new SigningKey(key.release()));
    signing->public_ = *raw;
    return signing;
}

SigningKey::~SigningKey() { EVP_PKEY_free(static_cast<EVP_PKEY*>(key_)); }

bool SigningKey::Sign(SignedStatement& statement) const {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    const std::string bytes = StatementBytes(statement);
    std::string signature(kSignatureSize, '\0');
    size_t size = signature.size();
    const bool good = context != nullptr &&
                      EVP_DigestSignInit(context, nullptr, nullptr, nullptr, static_cast<EVP_PKEY*>(key_)) == 1 &&
                      EVP_DigestSign(context, reinterpret_cast<unsigned char*>(&signature[0]), &size,
                                     reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()) == 1;
    EVP_MD_CTX_free(context);
    if (good) statement.signature = signature.substr(0, size);
    return good;
}

namespace {

std::string WithoutTrailingSlash(std::string address) {
    while (address.size() > 1 && address.back() == '/') address.pop_back();
    return address;
}

}  // namespace

const std::vector<std::string>* TrustedKeys::For(const std::string& address) const {
    const auto found = keys.find(WithoutTrailingSlash(address));
    return found == keys.end() ? nullptr : &found->second;
}

bool AddTrustedKeys(TrustedKeys& trusted, std::string_view text, const std::string& origin, ReadKeyFile readFile,
                    std::string& error) {
    size_t at = 0, number = 0;
    while (at < text.size()) {
        const size_t end = std::min(text.find('\n', at), text.size());
        std::string_view line = text.substr(at, end - at);
        at = end + 1, ++number;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        const std::vector<std::string_view> fields = Fields(line);
        if (fields.empty() || fields[0][0] == '#') continue;
        const std::string where =
            origin + " line " + std::to_string(number) + (fields.size() > 1 ? " (" + std::string(fields[0]) + ")" : "") + ": ";
        if (fields.size() != 2) {
            error = where + "not \"<source address> <public key>\"";
            return false;
        }
        std::optional<std::string> key;
        if (fields[1][0] == '/') {
            const std::optional<std::string> pem = readFile(std::string(fields[1]));
            if (!pem) return error = where + std::string(fields[1]) + " cannot be read", false;
            key = ParsePublicKey(*pem);
        } else {
            key = ParsePublicKey(fields[1]);
        }
        if (!key) return error = where + "not an Ed25519 public key", false;
        trusted.keys[WithoutTrailingSlash(std::string(fields[0]))].push_back(std::move(*key));
    }
    return true;
}

}  // namespace localrelay
