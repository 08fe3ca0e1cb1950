// HTTP and HTTPS transfers through libcurl.
#include "transfer.h"

namespace localrelay {

ZOVRELAY_Status FetchHttp(const std::string&, const TransferSettings&, ChunkSink&, std::string* error) {
    if (error != nullptr) *error = "http sources are not supported yet";
    return kNoSourceReachable;
}

}  // namespace localrelay
