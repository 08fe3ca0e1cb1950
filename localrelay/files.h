// File operations that make a repository change all at once: temporaries that vanish unless
// kept, and replacement by rename after the data reached the disk.
#ifndef LOCALRELAY_FILES_H
#define LOCALRELAY_FILES_H

#include "zovrelay.h"

#include <string>

namespace localrelay {

// A path that is removed when this goes out of scope, unless Release()d first (after a rename).
class TemporaryFile {
public:
    explicit TemporaryFile(std::string path) : path_(std::move(path)) {}
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile();

    const std::string& path() const { return path_; }
    void Release() { path_.clear(); }

private:
    std::string path_;
};

// Directory part and name of a path ("/a/b" gives "/a" and "b").
std::string DirectoryOf(const std::string& path);
std::string NameOf(const std::string& path);

// Renames the complete file `from` over `to`: readers see the old file or the new one, never a
// part. When the rename fails, the errno's status (failure.h: no space, permission denied, else
// kIoError) with the target as the failure's detail.
ZOVRELAY_Status ReplaceFile(const std::string& from, const std::string& to);

// Creates or truncates `path` and writes `text` whole; failures as ReplaceFile's.
ZOVRELAY_Status WriteWholeFile(const std::string& path, const std::string& text);

}  // namespace localrelay

#endif
