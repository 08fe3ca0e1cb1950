#include "repository/verification.h"
#include "base/files.h"
#include "base/status.h"

#include "transfer/package.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include <algorithm>
#include <charconv>
#include <functional>

namespace localrelay {

VerificationRecord ParseVerification(std::string_view text) {
    VerificationRecord record;
    // Lines "name size inode device mtime-ns ctime-ns verified-at-ns"; a malformed one is skipped,
    // and so is one of the earlier form without the change time: that archive is read back once.
    for (const char *at = text.data(), *end = at + text.size(); at < end;) {
        const char* const stop = std::find(at, end, '\n');
        const char* next = std::find(at, stop, ' ');
        const std::string name(at, next);
        at = stop + (stop < end ? 1 : 0);
        bool ok = !name.empty();
        const auto take = [&](auto& field) {
            if (!ok || next == stop || *next != ' ') return void(ok = false);
            const auto [after, error] = std::from_chars(next + 1, stop, field);
            ok = error == std::errc() && after != next + 1;
            next = after;
        };
        Verified verified;
        take(verified.file.size), take(verified.file.inode), take(verified.file.device), take(verified.file.modified),
            take(verified.file.changed), take(verified.at);
        if (ok && next == stop) {  // written in order: at the end, unless out of order
            if (record.empty() || record.rbegin()->first < name) record.emplace_hint(record.end(), name, verified);
            else record[name] = verified;
        }
    }
    return record;
}

std::string FormatVerification(const VerificationRecord& record) {
    std::string text;
    for (const auto& [name, v] : record)
        text += name + " " + std::to_string(v.file.size) + " " + std::to_string(v.file.inode) + " " +
                std::to_string(v.file.device) + " " + std::to_string(v.file.modified) + " " +
                std::to_string(v.file.changed) + " " + std::to_string(v.at) + "\n";
    return text;
}

VerificationRecord ReadVerification(int root) {
    return ParseVerification(ReadWholeFileAt(root, kVerificationName, 64u << 20).value_or(""));
}

ZOVRELAY_Status WriteVerification(int root, const VerificationRecord& record) {
    return WriteChangedFileAt(root, kVerificationName, FormatVerification(record));
}

bool FileMatches(int fd, uint64_t size, const std::string& sha256) {
    CheckingSink checking(size);
    std::vector<char> buffer(64 * 1024);
    for (off_t at = 0;;) {
        const ssize_t n = ::pread(fd, buffer.data(), buffer.size(), at);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return checking.Check(sha256) > 0;
        if (!checking.Write(buffer.data(), size_t(n))) return false;
        at += n;
    }
}

std::optional<std::string> FileDigest(int fd) {
    Sha256 digest;
    std::vector<char> buffer(64 * 1024);
    for (off_t at = 0;;) {
        const ssize_t n = ::pread(fd, buffer.data(), buffer.size(), at);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) return digest.HexDigest();
        digest.Update(buffer.data(), size_t(n));
        at += n;
    }
}

int64_t VerificationDue(const VerificationRecord& record, const std::string& name, const FileIdentity& file, int64_t now) {
    const auto found = record.find(name);
    if (found == record.end() || !(found->second.file == file) || !RecordedAfterChange(file, found->second.at, now))
        return INT64_MIN;
    const int64_t interval =
        (kVerificationInterval - int64_t(std::hash<std::string>{}(name) % (kVerificationInterval / 2))) * 1000000000;
    return found->second.at + interval;
}

bool NeedsVerification(const VerificationRecord& record, const std::string& name, const FileIdentity& file, int64_t now) {
    return now >= VerificationDue(record, name, file, now);
}

}  // namespace localrelay
