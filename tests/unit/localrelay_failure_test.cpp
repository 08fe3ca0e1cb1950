// Failure classification, descriptions within the message's 63 characters, and which text
// ZOVRELAY_GetStatusMessage answers on which thread and after which call.
#include "base/failure.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cwchar>
#include <thread>

using namespace localrelay;

namespace {

std::wstring Message(ZOVRELAY_Status status) {
    wchar_t buffer[80];
    std::wmemset(buffer, L'#', 80);
    ZOVRELAY_GetStatusMessage(buffer, status);
    EXPECT_EQ(std::wstring(buffer + 64, 16), std::wstring(16, L'#')) << "wrote past 64 characters";
    return buffer;
}

}  // namespace

TEST(LocalRelayFailure, ClassifiesByRemedy) {
    const struct { Failure got; ZOVRELAY_Status status; const char* reason; } cases[] = {
        {FromCurl(CURLE_HTTP_RETURNED_ERROR, 404, 0, 0, false, ""), kHttpError, "HTTP 404"},
        {FromCurl(CURLE_HTTP_RETURNED_ERROR, 401, 0, 0, false, ""), kHttpError, "HTTP 401"},
        {FromCurl(CURLE_HTTP_RETURNED_ERROR, 401, 0, 0, true, ""), kProxyRefused, "proxy refused the credentials (HTTP 401)"},
        {FromCurl(CURLE_RECV_ERROR, 0, 407, 0, true, "x"), kProxyRefused, "proxy refused the credentials (HTTP 407)"},
        {FromCurl(CURLE_RECV_ERROR, 0, 502, 0, false, "x"), kConnectionFailed, "proxy answered HTTP 502"},
        {FromCurl(CURLE_COULDNT_RESOLVE_HOST, 0, 0, 0, false, ""), kHostNotResolved, "host name not resolved"},
        {FromCurl(CURLE_PEER_FAILED_VERIFICATION, 0, 0, 0, false, "bad\nname"), kCertificateRefused,
         "certificate refused (bad name)"},
        {FromCurl(CURLE_UNSUPPORTED_PROTOCOL, 0, 0, 0, false, ""), kUnsupportedAddress, "unsupported address"},
        {FromErrno(ENOSPC), kNoSpace, "no space left"},
        {FromErrno(EROFS), kPermissionDenied, "read-only file system"},
        {FromErrno(ENOTDIR), kIoError, "not a directory"},
    };
    for (const auto& c : cases) EXPECT_EQ(std::make_pair(c.got.status, c.got.reason), std::make_pair(c.status, std::string(c.reason)));
}

TEST(LocalRelayFailure, DescriptionsFitAndAreCutOnlyAtTheirEnd) {
    const std::string longPart = "packages/." + std::string(80, 'x') + ".part";
    const struct {
        std::string reason, object, expected;
    } cases[] = {
        {"HTTP 404", "pattern/kerno-16123.zip", "HTTP 404 for pattern/kerno-16123.zip"},
        {"certificate refused (SSL certificate problem: self-signed certificate)", "https://h/server.ini",
         "certificate refused: https://h/server.ini"},
        {"proxy refused the credentials (HTTP 407)", "http://127.0.0.1:8080/server.ini",
         "proxy refused the credentials: http://127.0.0.1:8080/server.ini"},
        {"no space left", longPart, ("no space left: " + longPart).substr(0, 60) + "..."},
        {"cannot connect", "http://h/" + std::string(34, 'x') + "\xc3\xa9" + std::string(10, 'x'),
         "cannot connect: http://h/" + std::string(34, 'x') + "..."},  // never half a character
    };
    for (const auto& c : cases) EXPECT_EQ(Describe(c.reason, c.object), c.expected);
}

TEST(LocalRelayFailure, OnlyTheThreadsLastFailureCarriesItsDetail) {
    ASSERT_EQ(ZOVRELAY_Startup(nullptr), kSuccess);
    ZOVRELAY_Context* context = nullptr;
    ASSERT_EQ(ZOVRELAY_CreateContext(&context, L"/proc/version/repository"), kRepositoryNotAccessible);
    const std::wstring detailed = L"repository not accessible: /proc/version/repository";
    EXPECT_EQ(Message(kRepositoryNotAccessible), detailed);
    EXPECT_EQ(Message(kNoSpace), L"no space left on device");  // another status: the table's text
    std::wstring elsewhere;
    std::thread([&] { elsewhere = Message(kRepositoryNotAccessible); }).join();
    EXPECT_EQ(elsewhere, L"repository not accessible");
    ZOV_Version version;
    ASSERT_EQ(ZOVRELAY_GetVersion(&version), kSuccess);  // a success leaves the last failure
    EXPECT_EQ(Message(kRepositoryNotAccessible), detailed);
    ASSERT_EQ(ZOVRELAY_CreateContext(nullptr, L"/x"), kInvalidArgument);  // a later failure replaces it
    EXPECT_EQ(Message(kRepositoryNotAccessible), L"repository not accessible");
    EXPECT_EQ(Message(kInvalidArgument), L"invalid argument");
}
