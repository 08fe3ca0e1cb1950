// Signed catalogs: what a mirror trusting some keys accepts, and how a repository writes and
// rotates its signatures and guards its private key.
#include "catalog/signature.h"
#include "localrelay_fixture.h"
#include "repository/signing.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace {

using namespace localrelay;
using namespace relaytest;

// A fresh Ed25519 key as `openssl genpkey -algorithm ed25519` writes it.
std::string NewKeyPem() {
    EVP_PKEY* key = nullptr;
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr);
    EXPECT_TRUE(context != nullptr && EVP_PKEY_keygen_init(context) == 1 && EVP_PKEY_keygen(context, &key) == 1);
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
    char* data = nullptr;
    const std::string pem(data, size_t(BIO_get_mem_data(bio, &data)));
    BIO_free(bio), EVP_PKEY_free(key), EVP_PKEY_CTX_free(context);
    return pem;
}

std::string Signed(const SigningKey& key, const std::string& name, const std::string& text, uint64_t generation) {
    SignedStatement statement{name, generation, CatalogDigest(text), ""};
    EXPECT_TRUE(key.Sign(statement));
    return FormatSignatureFile(SignatureFile{{statement}});
}

TEST(LocalRelaySignature, WhatATrustingMirrorAccepts) {
    const auto a = SigningKey::FromPem(NewKeyPem()), b = SigningKey::FromPem(NewKeyPem());
    ASSERT_TRUE(a && b);
    const std::string text = "[PATTERN]\n[ENGINE]\n[All_Product]\n", other = text + "; another\n";
    const std::string good = Signed(*a, "source.ini", text, 100);
    std::string forged = good;
    forged[forged.size() - 10] = forged[forged.size() - 10] == 'A' ? 'B' : 'A';
    const SignedStatement previous = ParseSignatureFile(good)->statements[0];
    SignedStatement next{"source.ini", 200, CatalogDigest(other), ""};
    a->Sign(next);
    const struct {
        const char* what;
        std::vector<std::string> keys;
        std::optional<std::string> signature;
        uint64_t accepted;
        const char* refusal;  // a prefix; "" accepts
        bool mismatch;
    } cases[] = {
        {"signed", {a->publicKey()}, good, 0, "", false},
        {"rotation: either key", {b->publicKey(), a->publicKey()}, good, 0, "", false},
        {"the same generation again", {a->publicKey()}, good, 100, "", false},
        {"the previous statement kept beside the next", {a->publicKey()}, FormatSignatureFile({{next, previous}}), 0, "", false},
        {"unsigned", {a->publicKey()}, std::nullopt, 0, "catalog signature missing", false},
        {"no signature file", {a->publicKey()}, "<html>\n", 0, "catalog signature invalid (no signature file)", false},
        {"another key", {b->publicKey()}, good, 0, "catalog signature invalid (no trusted key made it)", false},
        {"forged signature", {a->publicKey()}, forged, 0, "catalog signature invalid (no trusted key", false},
        {"another catalog", {a->publicKey()}, Signed(*a, "source.ini", other, 100), 0, "catalog signature invalid (it names another", true},
        {"the index's signature", {a->publicKey()}, Signed(*a, "server.ini", text, 100), 0, "catalog signature invalid (it names", true},
        {"replayed", {a->publicKey()}, good, 101, "older catalog (generation 100, 101 accepted before)", false},
    };
    for (const auto& c : cases) {
        const Verdict verdict = CheckSignature(c.keys, "source.ini", text, c.signature, c.accepted);
        EXPECT_EQ(verdict.refusal.substr(0, std::strlen(c.refusal)), c.refusal) << c.what << ": " << verdict.refusal;
        EXPECT_EQ(verdict.refusal.empty(), *c.refusal == '\0') << c.what;
        EXPECT_EQ(verdict.mismatch, c.mismatch) << c.what;
        if (verdict.refusal.empty()) {
            EXPECT_EQ(verdict.generation, 100u) << c.what;
        }
    }
}

TEST(LocalRelaySignature, KeysInEveryFormAndTrustedKeysFiles) {
    const auto key = SigningKey::FromPem(NewKeyPem());
    std::string hex;
    for (unsigned char c : key->publicKey()) hex += "0123456789abcdef"[c >> 4], hex += "0123456789abcdef"[c & 15];
    EXPECT_EQ(ParsePublicKey(hex), key->publicKey());
    const std::string line = "http://central.example/repo/ " + hex + "\n";
    const struct { std::string text; const char* error; } files[] = {
        {"# central, rotated\n\n" + line + "  http://central.example/repo " + hex + "\r\n", ""},
        {line + "http://central.example/repo\n", "keys line 2: not \"<source address> <public key>\""},
        {line + "http://central.example/repo c2lnbg==\n", "keys line 2 (http://central.example/repo): not an Ed25519 public key"},
        {"http://central.example/repo /nonexistent/central.pub\n", "keys line 1 (http://central.example/repo): /nonexistent/central.pub cannot be read"},
    };
    for (const auto& f : files) {
        TrustedKeys trusted;
        std::string error;
        const bool parsed = AddTrustedKeys(trusted, f.text, "keys", [](const std::string&) -> std::optional<std::string> { return std::nullopt; }, error);
        EXPECT_EQ(error, f.error);
        if (parsed) {
            EXPECT_EQ(trusted.For("http://central.example/repo/")->size(), 2u);
        }
        EXPECT_EQ(trusted.For("http://regional.example/repo"), nullptr);
    }
}

class SigningTest : public RelayTest {};

// A repository writes the signature before its catalog, keeps the previous statement, only ever
// raises the generation, rewrites nothing on a night with nothing new, and re-signs after a rotation.
TEST_F(SigningTest, WritesRotatesAndGuardsItsKey) {
    const int directory = ::open(root.c_str(), O_DIRECTORY | O_RDONLY);
    const auto a = SigningKey::FromPem(NewKeyPem()), b = SigningKey::FromPem(NewKeyPem());
    ASSERT_GT(WriteSignedFileAt(directory, "source.ini", "one\n", a.get(), 5000), 0);
    ASSERT_GT(WriteSignedFileAt(directory, "source.ini", "two\n", a.get(), 10), 0);  // a clock set back
    const std::string twice = ReadFile(root / "source.ini.sig");
    const std::optional<SignatureFile> file = ParseSignatureFile(twice);
    ASSERT_TRUE(file && file->statements.size() == 2);
    EXPECT_EQ(file->statements[0].generation, 5001u);
    for (const char* text : {"one\n", "two\n"})
        EXPECT_EQ(CheckSignature({a->publicKey()}, "source.ini", text, twice, 5000).refusal, "") << text;
    EXPECT_GT(WriteSignedFileAt(directory, "source.ini", "two\n", a.get(), 9000), 0);
    EXPECT_EQ(ReadFile(root / "source.ini.sig"), twice);
    EXPECT_GT(SignCurrentFileAt(directory, "source.ini", *b, 9000), 0);
    EXPECT_EQ(CheckSignature({b->publicKey()}, "source.ini", "two\n", ReadFile(root / "source.ini.sig"), 0).generation, 9000u);
    ::close(directory);

    const std::string pem = NewKeyPem();
    WriteFile(Path("key.pem"), pem);
    fs::create_directories(Path("repository"));
    WriteFile(Path("repository/key.pem"), pem);
    const struct { std::string path; mode_t mode; const char* error; } keys[] = {
        {Path("key.pem"), 0600, ""},
        {Path("key.pem"), 0640, "is open to others than its owner (mode 0640): chmod 600 it"},
        {Path("repository/key.pem"), 0600, "lies inside the repository, which is served: keep it elsewhere"},
        {Path("missing.pem"), 0600, "cannot be read"},
    };
    for (const auto& k : keys) {
        ::chmod(k.path.c_str(), k.mode);
        std::string error;
        const bool loaded = LoadSigningKey(k.path, Path("repository/"), error) != nullptr;
        EXPECT_EQ(loaded, *k.error == '\0') << k.path;
        if (!loaded) {
            EXPECT_EQ(error, "signing key " + k.path + " " + k.error);
        }
    }
}

}  // namespace
