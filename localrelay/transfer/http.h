// What every HTTP transfer of one operation shares: the connection pool (connections, TLS
// sessions, DNS answers), and the options every transfer sets whatever it fetches.
#ifndef LOCALRELAY_HTTP_H
#define LOCALRELAY_HTTP_H

#include "transfer/transfer.h"

#include <curl/curl.h>

#include <string>

namespace localrelay {

// One per operation: the catalog and every package reuse its connections, so a mirror of
// thousands of packages opens a handful of connections and one TLS handshake per connection.
// Easy handles using it must be cleaned up before it goes.
class Pool {
public:
    Pool();
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;
    ~Pool();
    CURLSH* share() const { return share_; }

private:
    CURLSH* share_;
};


// Protocols, redirects, timeouts, certificate checks, proxy and pool for one easy handle.
// kNoSourceReachable (with `reason`) when a setting is refused, kOutOfMemory when libcurl is.
ZOVRELAY_Status SetCommonOptions(CURL* curl, const TransferSettings& settings, char* errorBuffer,
                                 std::string* reason);

}  // namespace localrelay

#endif
