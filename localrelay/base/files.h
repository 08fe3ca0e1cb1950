// Safe file operations inside a directory we opened: every name is resolved relative to a
// directory descriptor and never through a symbolic link, temporaries are created exclusively
// under fresh random names, and complete files replace old ones by rename. Nothing here follows
// a link or reuses a name someone else planted, so a repository's content cannot redirect a write
// or a removal outside it.
#ifndef LOCALRELAY_FILES_H
#define LOCALRELAY_FILES_H

#include "zovrelay.h"

#include <fcntl.h>
#include <sys/types.h>

#include <cstdint>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace localrelay {

// Owns one open file descriptor; closing it drops any flock held through it.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor();

    int get() const { return fd_; }
    int release() noexcept;

private:
    int fd_ = -1;
};

// The status for a failed file operation's errno: no space and refused access are told apart
// because their remedies differ; anything else is an i/o error.
ZOVRELAY_Status FileStatus(int error);

// Opens the real directory `name` under `directory` (a symbolic link or anything else is
// refused): -1 with errno set otherwise.
int OpenDirectoryAt(int directory, const std::string& name);
// Opens the regular file `name` under `directory` for reading, without following a link and
// without blocking on a FIFO: -1 with errno set otherwise (ELOOP, EINVAL for no regular file).
int OpenFileAt(int directory, const std::string& name);

// A fresh temporary file "<prefix><random><suffix>" created exclusively (O_EXCL, mode 0666 less
// the umask) in `directory`, open for writing. A name that exists (planted, or a link) is never
// reused: another random name is drawn. Removed when this goes out of scope unless Keep() is
// called after it was renamed into place. A failure's message names `target`, the file it is to
// become (the temporary's own name when none is given): an administrator knows that name.
class TemporaryFile {
public:
    TemporaryFile() = default;
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile();

    ZOVRELAY_Status Create(int directory, std::string_view prefix, std::string_view suffix, std::string target = "");
    int fd() const { return fd_.get(); }
    const std::string& name() const { return name_; }
    // Writes all of `data`; a status from FileStatus on failure.
    ZOVRELAY_Status Write(const char* data, size_t size);
    ZOVRELAY_Status Close();  // kIoError (or a FileStatus) when the kernel reports a late error
    // Renames the complete file over `target` in the same directory and keeps it.
    ZOVRELAY_Status ReplaceInto(const std::string& target);
    void Keep() { name_.clear(); }

private:
    int directory_ = -1;
    std::string name_, target_;
    FileDescriptor fd_;
};

// Renames `from` over `to`, both under `directory`: readers see the old file or the new one. A
// directory in the way (planted) is removed when empty; otherwise the rename fails, its message
// naming `to`.
ZOVRELAY_Status ReplaceAt(int directory, const std::string& from, const std::string& to);
// The same, recording no failure (for a thread beside the call): 0, or the rename's errno.
int RenameOver(int directory, const std::string& from, const std::string& to);

// Writes `text` as the file `name` of `directory` through a fresh temporary
// ".<name>.<random>.tmp" and a rename: readers see the old content or the new, whole.
ZOVRELAY_Status WriteWholeFileAt(int directory, const std::string& name, const std::string& text);
// The same, unless the regular file `name` holds `text` already: a run that changed nothing
// rewrites nothing.
ZOVRELAY_Status WriteChangedFileAt(int directory, const std::string& name, const std::string& text);
// The regular file `name` under `directory` (never through a link) whole; nullopt when it cannot
// be read or is larger than `limit` bytes.
std::optional<std::string> ReadWholeFileAt(int directory, const std::string& name, size_t limit);

// A file's bytes in a buffer that is not cleared before the read fills it: for a large record
// read at every run, where clearing it first cost as much as reading it.
class FileBytes {
public:
    FileBytes() = default;
    static FileBytes Copy(std::string_view bytes);
    std::string_view view() const { return std::string_view(data_.get(), size_); }

private:
    friend std::optional<FileBytes> ReadFileBytesAt(int directory, const std::string& name, size_t limit);
    std::unique_ptr<char[]> data_;
    size_t size_ = 0;
};
// ReadWholeFileAt into FileBytes.
std::optional<FileBytes> ReadFileBytesAt(int directory, const std::string& name, size_t limit);

// Removes the name `name` under `directory`: a file, a link (never its target), or an empty
// directory. False when it stays.
bool RemoveAt(int directory, const std::string& name);

// Makes `size` bytes at `at` of the file `to` a copy of those at `offset` of `from`. Where the
// file system shares blocks between files (reflinks, on btrfs and XFS), whole blocks are shared
// rather than written again: both offsets must then be multiples of kShareableBlock. Anything
// else is copied by the kernel. A status from FileStatus on failure.
inline constexpr uint64_t kShareableBlock = 4096;
ZOVRELAY_Status CopyRange(int from, uint64_t offset, uint64_t size, int to, uint64_t at);

// Opens the file `name` under `directory` (O_RDWR unless `flags` say otherwise) when it is ours to
// rewrite or continue: a regular file with no other link to it, never through a symbolic link
// (-1 with errno set otherwise).
int OpenOwnFileAt(int directory, const std::string& name, int flags = O_RDWR);

// Random lower-case hexadecimal characters for temporary names.
std::string RandomName(size_t length = 12);

// Directory part and name of a path ("/a/b" gives "/a" and "b").
std::string DirectoryOf(const std::string& path);
std::string NameOf(const std::string& path);

}  // namespace localrelay

#endif
