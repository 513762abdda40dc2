// The SQLite store behind AccessReg (private to the platform layer).
//
// One database file per store: the per-user store holds the current user's root (key id
// 0) and, under "Software\Classes", the classes root; the machine store holds the local
// machine's root. Every function returns a status code (reg_types.h) and leaves it, with a
// message, in the thread's store status.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/reg_types.h"

struct sqlite3;
struct sqlite3_stmt;
struct stat;

namespace marquel {
namespace store {

// Records the outcome of a store operation in the thread's status and returns `code`.
uint32_t SetStatus(uint32_t code, std::string message);
inline uint32_t Ok() {
  return SetStatus(ERROR_SUCCESS, std::string());
}

// Splits a key path at "\" into its components, after the classes-root prefix when
// `root` is the classes root. A single trailing "\" is allowed; any other empty
// component gives ERROR_BAD_PATHNAME, a component over 255 characters
// ERROR_INVALID_PARAMETER.
uint32_t SplitKeyPath(RegRoot root, const char* path, std::vector<std::string>* parts);
// ERROR_INVALID_PARAMETER for a value name over 16383 characters.
uint32_t CheckValueName(const char* name);

// Values of at most this many bytes can be found by their contents through an index.
constexpr uint32_t kMaxIndexedValueBytes = 16;

// The number of store connections the calling thread has opened so far.
uint64_t ConnectionsOpened();

class Connection;

// A use of a store connection. Each thread keeps one connection per store file and hands
// it to every object of that thread; a connection that has written is closed when its last
// user lets go, so that its log is folded into the store file as when each object had
// its own connection.
class ConnectionRef {
 public:
  ConnectionRef() = default;
  explicit ConnectionRef(std::shared_ptr<Connection> conn) : conn_(std::move(conn)) {}
  ~ConnectionRef() { Release(); }
  ConnectionRef(ConnectionRef&&) = default;
  ConnectionRef& operator=(ConnectionRef&& other) {
    if (this != &other) {
      Release();
      conn_ = std::move(other.conn_);
    }
    return *this;
  }

  Connection* operator->() const { return conn_.get(); }
  bool operator==(std::nullptr_t) const { return conn_ == nullptr; }
  void Release();

 private:
  std::shared_ptr<Connection> conn_;
};

class Connection {
 public:
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Opens the store file of `root`. For reading, a missing file gives ERROR_FILE_NOT_FOUND
  // and nothing is created. For writing, the per-user store makes its folder and file when
  // missing; the machine store makes its file but never a folder (ERROR_PATH_NOT_FOUND).
  // A file that is not a valid store gives ERROR_BADDB and is left untouched.
  // The thread's connection to the file is reused while the file is the same one (path,
  // device, inode, mode, size and times) in the same process; otherwise a new one is opened.
  static uint32_t Open(RegRoot root, bool forWrite, ConnectionRef* out);

  // Key id of `parts` below key `from` (0 is the root).
  uint32_t FindKey(int64_t from, const std::vector<std::string>& parts, int64_t* id);
  // Finds or makes `parts` below `from` with every missing parent, in one transaction.
  uint32_t CreateKeyPath(int64_t from, const std::vector<std::string>& parts,
                         const std::string& className, int64_t* id);
  // Deletes the key `parts` below `from` with its values; ERROR_ACCESS_DENIED when it
  // has sub-keys or is the root.
  uint32_t DeleteKeyPath(int64_t from, const std::vector<std::string>& parts);

  uint32_t ReadValue(int64_t key, const std::string& name, uint32_t* type,
                     std::vector<uint8_t>* data);
  // ERROR_KEY_DELETED when the key has gone since it was opened.
  uint32_t WriteValue(int64_t key, const std::string& name, uint32_t type, const void* data,
                      uint32_t size);
  uint32_t DeleteValue(int64_t key, const std::string& name);

  // Creation-order enumeration; ERROR_NO_MORE_ITEMS past the end.
  uint32_t SubKeyAt(int64_t key, uint32_t index, std::string* name);
  uint32_t ValueAt(int64_t key, uint32_t index, std::string* name, uint32_t* type, uint32_t* size);

  // The names of the sub-keys of `parent`, in creation order, whose value `name` holds
  // exactly the `size` bytes at `data` (at most kMaxIndexedValueBytes; longer values are
  // not indexed and give ERROR_INVALID_PARAMETER).
  uint32_t SubKeysWithValue(int64_t parent, const std::string& name, const void* data,
                            uint32_t size, std::vector<std::string>* names);

  bool CanWrite() const { return canWrite_; }
  bool Wrote() const { return wrote_; }

 private:
  struct CachedStatement {
    sqlite3_stmt* stmt = nullptr;
    bool inUse = false;
  };

  Connection(sqlite3* db, std::string path, bool machine);
  static uint32_t OpenNew(const std::string& path, bool machine, bool forWrite,
                          std::shared_ptr<Connection>* out);
  bool SameFile(const std::string& path, const struct stat& st) const;
  void Remember(const struct stat& st);
  void UpgradeIndex();      // adds the value index to a store made without it
  uint32_t Inspect();       // checks the file is a store of ours; sets hasSchema_
  uint32_t EnsureSchema();  // makes the tables in an empty store
  uint32_t Exec(const char* sql);
  uint32_t Fail(int rc, const char* doing);  // maps a SQLite failure to a status
  uint32_t Commit();
  void Rollback();
  uint32_t LookUp(int64_t from, const std::vector<std::string>& parts, int64_t* id);
  uint32_t ChildId(int64_t parent, const std::string& name, int64_t* id);

  sqlite3* db_;
  std::string path_;
  bool machine_;
  bool hasSchema_ = false;
  bool canWrite_ = false;
  bool wrote_ = false;
  pid_t pid_;
  // What the file looked like when last seen by this connection.
  dev_t dev_ = 0;
  ino_t ino_ = 0;
  mode_t mode_ = 0;
  uid_t uid_ = 0;
  off_t size_ = 0;
  int64_t mtimeNs_ = 0;
  int64_t ctimeNs_ = 0;
  std::unordered_map<std::string, CachedStatement> statements_;

  friend class Statement;
  friend class ConnectionRef;
};

}  // namespace store

// What an AccessReg object holds while it has a key.
struct OpenStoreKey {
  RegRoot root;
  int64_t keyId = 0;
  // Null only for a root opened while its store file did not exist yet; the first write
  // opens (and makes) the store.
  store::ConnectionRef conn;
};

}  // namespace marquel
