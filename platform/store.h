// The SQLite store behind AccessReg (private to the platform layer).
//
// One database file per store: the per-user store holds the current user's root (key id
// 0) and, under "Software\Classes", the classes root; the machine store holds the local
// machine's root. Every function returns a status code (reg_types.h) and leaves it, with a
// message, in the thread's store status.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/reg_types.h"

struct sqlite3;

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

class Connection {
 public:
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Opens the store file of `root`. For reading, a missing file gives ERROR_FILE_NOT_FOUND
  // and nothing is created. For writing, the per-user store makes its folder and file when
  // missing; the machine store makes its file but never a folder (ERROR_PATH_NOT_FOUND).
  // A file that is not a valid store gives ERROR_BADDB and is left untouched.
  static uint32_t Open(RegRoot root, bool forWrite, std::unique_ptr<Connection>* out);

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

  bool CanWrite() const { return canWrite_; }

 private:
  Connection(sqlite3* db, std::string path, bool machine);
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

  friend class Statement;
};

}  // namespace store

// What an AccessReg object holds while it has a key.
struct OpenStoreKey {
  RegRoot root;
  int64_t keyId = 0;
  // Null only for a root opened while its store file did not exist yet; the first write
  // opens (and makes) the store.
  std::unique_ptr<store::Connection> conn;
};

}  // namespace marquel
