// When held versions are read back in full. Reading every byte of a large repository every night
// would cost more than the mirror itself, so each merged archive is verified when it changed since
// its last full verification (another size, modification or change time, or inode: rewritten,
// replaced, restored from a backup, or bytes rewritten in place with the modification time set
// back) and otherwise at most a week after its last one (see NeedsVerification). The record is the hidden file
// ".verified" in the repository's root, which the module's clean-up never touches.
#ifndef LOCALRELAY_VERIFICATION_H
#define LOCALRELAY_VERIFICATION_H

#include "archive/archive.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <string>

namespace localrelay {

inline constexpr const char* kVerificationName = ".verified";
inline constexpr int64_t kVerificationInterval = 7 * 24 * 3600;  // seconds

struct Verified {
    FileIdentity file;
    // Nanoseconds since the epoch: when the file was seen with this identity just before its bytes
    // were read and found whole (or, for a file this relay wrote, when it was seen unchanged since).
    int64_t at = 0;
};

// Archive file name -> its last full verification. A missing or malformed record is empty: every
// archive is then verified once.
using VerificationRecord = std::map<std::string, Verified>;

VerificationRecord ReadVerification(int root);
ZOVRELAY_Status WriteVerification(int root, const VerificationRecord& record);
VerificationRecord ParseVerification(std::string_view text);
std::string FormatVerification(const VerificationRecord& record);

// The file open at `fd` holds exactly `size` bytes with this SHA-256 (read whole).
bool FileMatches(int fd, uint64_t size, const std::string& sha256);
// The SHA-256 of the whole file open at `fd`; nullopt when it cannot be read.
std::optional<std::string> FileDigest(int fd);

// The archive `name`, as opened now (`now` in nanoseconds), must be read back in full: its record
// is missing, names another identity, is not later than the file's last change by a clock tick
// (RecordedAfterChange), or is due. The week is shortened by up to
// half of it, by a fraction that the name decides: archives verified together the first time fall
// due on different nights after, so no night reads the whole repository back.
bool NeedsVerification(const VerificationRecord& record, const std::string& name, const FileIdentity& file, int64_t now);
// When that falls due (nanoseconds); INT64_MIN when it is due whatever the time.
int64_t VerificationDue(const VerificationRecord& record, const std::string& name, const FileIdentity& file, int64_t now);

}  // namespace localrelay

#endif
