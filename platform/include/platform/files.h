// File and folder calls for the rest of the system.
//
// Each function stands for one Windows file call and answers as that call does, so that
// the readers and writers above keep their logic; paths are UTF-8 and absolute paths use
// "/". No function logs, throws or shortens a path: a path the system cannot use fails.
// errno tells the reason of a failure where a caller wants it. Every write, fsync, truncate
// and rename passes one fault point (platform/fault_points.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace marquel {

// A file handle is a file descriptor; the invalid handle has all bits set.
using FileHandle = int;
constexpr FileHandle kInvalidFileHandle = -1;

// Access rights, share modes, dispositions and flags of OpenFileHandle.
constexpr uint32_t GENERIC_READ = 0x80000000u;
constexpr uint32_t GENERIC_WRITE = 0x40000000u;
constexpr uint32_t FILE_SHARE_READ = 0x1;
constexpr uint32_t FILE_SHARE_WRITE = 0x2;
constexpr uint32_t FILE_SHARE_DELETE = 0x4;
constexpr uint32_t CREATE_NEW = 1;         // fails when the file exists
constexpr uint32_t CREATE_ALWAYS = 2;      // creates, or empties an existing file
constexpr uint32_t OPEN_EXISTING = 3;      // fails when the file does not exist
constexpr uint32_t OPEN_ALWAYS = 4;        // opens, or creates an empty file
constexpr uint32_t TRUNCATE_EXISTING = 5;  // empties an existing file; needs GENERIC_WRITE
constexpr uint32_t FILE_ATTRIBUTE_NORMAL = 0x80;

// Seek methods.
constexpr int FILE_BEGIN = 0;
constexpr int FILE_CURRENT = 1;
constexpr int FILE_END = 2;

// The application-data folder number of GetSpecialFolder.
constexpr int CSIDL_APPDATA = 26;

// The owner-write bit of FileStatusRecord::mode (the same bit as Windows' _S_IWRITE).
constexpr uint32_t kOwnerWriteBit = 0200;

// The cached interface choice of the wrappers: 1 for the wide interface, 0 for the narrow
// one. Decided on first use and kept for the life of the process; on Linux the wide
// interface is the UTF-8 one, so the answer is 1.
int UseWideApi();

// Opens or creates a file. `shareMode`, `security`, `flags` and `templ` are accepted for
// the callers' sake; Linux does not lock files against other openers. Access 0 opens for
// reading. The open itself never waits: a FIFO without a peer opens for reading at once
// and fails (ENXIO) for writing. Returns the handle, or kInvalidFileHandle.
FileHandle OpenFileHandle(const std::string& path, uint32_t access, uint32_t shareMode,
                          const void* security, uint32_t disposition, uint32_t flags,
                          FileHandle templ);
// Opens an existing regular file for reading, or for reading and writing when `access`
// holds GENERIC_WRITE, without ever waiting: a FIFO, a device, a socket or a folder is
// refused (errno EINVAL, or EISDIR for a folder) and nothing of it is read. Media files and
// cache files named by the store are opened this way, so that a path a client or a damaged
// record gives can never stall the server. Returns the handle, or kInvalidFileHandle.
FileHandle OpenRegularFile(const std::string& path, uint32_t access);
// Reads up to n bytes (fewer only at the end of the file); *read receives the count.
bool ReadFile(FileHandle h, void* buffer, uint32_t n, uint32_t* read);
// Writes all n bytes; *written receives the count written.
bool WriteFile(FileHandle h, const void* buffer, uint32_t n, uint32_t* written);
bool CloseFileHandle(FileHandle h);
// Reads or writes exactly n bytes at `offset` without moving the file position (so that
// several users of one descriptor do not disturb each other); false on an error or a
// short read.
bool ReadAllAt(FileHandle h, uint64_t offset, void* buffer, size_t n);
bool WriteAllAt(FileHandle h, uint64_t offset, const void* buffer, size_t n);
// Moves the file position by a 64-bit offset from the start, the current position or the
// end (FILE_BEGIN, FILE_CURRENT, FILE_END) and returns the new position, or -1.
int64_t SeekFile(FileHandle h, int64_t offset, int method);
// Cuts or extends the file at the current position.
bool SetEndOfFile(FileHandle h);
// The file's size in bytes, or -1.
int64_t GetFileSize64(FileHandle h);
// Makes the file's data and size durable (fsync). False on a failure.
bool SyncFileHandle(FileHandle h);
// Makes the names in `folder` durable (fsync of the folder), after files were made,
// renamed or removed in it. False on a failure.
bool SyncFolder(const std::string& folder);
// Sets the file's last modification time to `mtime` (seconds since 1970) and leaves its
// access time. False on a failure.
bool SetFileModifiedTime(FileHandle h, int64_t mtime);
// Renames `from` to `to`, replacing a file `to` atomically (rename(2)). False on a failure.
bool RenameFile(const std::string& from, const std::string& to);

// Whether a file or folder exists.
bool FileExists(const std::string& path);
// Whether `path` is a regular file (after following symbolic links).
bool IsRegularFile(const std::string& path);

struct FileStatusRecord {
  int64_t size = 0;
  int64_t mtime = 0;  // last modification, seconds since 1970
  uint32_t mode = 0;  // st_mode: file type and permission bits (kOwnerWriteBit)
};
// Fills *status; 0 on success, -1 when the file does not exist or cannot be examined.
int FileStatus(const std::string& path, FileStatusRecord* status);
// The same for an open file.
int FileHandleStatus(FileHandle h, FileStatusRecord* status);

// Makes the name folder + "/" + prefix + uppercase hex number + ".tmp". With unique 0 the
// number is chosen so that a new empty file of that name can be created exclusively, and
// it is created; otherwise the low 16 bits of `unique` are used and nothing is created.
// Returns the number used, or 0 on failure (folder missing, no free name).
uint32_t MakeTempFileName(const std::string& folder, const std::string& prefix, uint32_t unique,
                          std::string* nameOut);
// MakeTempFileName in the user's temporary folder ($TMPDIR, else /tmp).
uint32_t GetTempFolderFileName(const std::string& prefix, uint32_t unique, std::string* nameOut);

// Deletes a file (not a folder).
bool RemoveFile(const std::string& path);
// Creates one folder; false when it exists already or its parent does not.
bool MakeFolder(const std::string& path);
// The folder part of an absolute path ("/" for a file in the root).
std::string FolderOf(const std::string& path);

// The special folder number `folder`: CSIDL_APPDATA (26) gives the application-data folder
// ($XDG_DATA_HOME, default ~/.local/share). With `create` a missing folder is made with
// its parents. False for other numbers, or when the folder cannot be found or made.
bool GetSpecialFolder(std::string* out, int folder, bool create);

// Turns every "/" into "\" (toBackslash) or every "\" into "/", in place.
void NormalizePathSeparators(std::string& path, bool toBackslash);

// The file-system name of the volume holding `path` (which need not exist yet): "FAT16"
// for a vfat volume of fewer than 65525 clusters, "FAT32" for a larger one, otherwise the
// kernel's name ("exfat", "ext4", "tmpfs", "btrfs", ...). Sets *nameOut to "" and returns
// false on failure.
bool GetFileSystemName(const std::string& path, std::string* nameOut);

}  // namespace marquel
