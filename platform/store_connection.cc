// Opening a store file: locations, folder and file creation, the schema, failures.
#include <fcntl.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/env.h"
#include "store.h"
#include "store_statement.h"

namespace marquel {
namespace {

constexpr int kBusyTimeoutMs = 5000;
// "MQRG": marks a database as a store of this system, so that another program's database
// named by mistake is refused rather than changed.
constexpr int64_t kApplicationId = 0x4D515247;
constexpr int64_t kSchemaVersion = 1;

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS keys("
    "  id INTEGER PRIMARY KEY AUTOINCREMENT,"
    "  parent INTEGER NOT NULL,"
    "  name TEXT NOT NULL COLLATE NOCASE,"
    "  class TEXT NOT NULL DEFAULT '',"
    "  UNIQUE(parent, name));"
    "CREATE TABLE IF NOT EXISTS vals("
    "  id INTEGER PRIMARY KEY AUTOINCREMENT,"
    "  key INTEGER NOT NULL,"
    "  name TEXT NOT NULL COLLATE NOCASE,"
    "  type INTEGER NOT NULL,"
    "  data BLOB NOT NULL,"
    "  UNIQUE(key, name));"
    "CREATE INDEX IF NOT EXISTS vals_by_small_data ON vals(name, data) WHERE length(data) <= 16;"
    "PRAGMA application_id = 1297175111;"
    "PRAGMA user_version = 1;";
static_assert(kApplicationId == 1297175111);
static_assert(store::kMaxIndexedValueBytes == 16);

// Stores made before the value index get it on their first writable open; the schema
// version stays, so that older programs keep reading the store.
constexpr const char* kIndexUpgrade =
    "CREATE INDEX IF NOT EXISTS vals_by_small_data ON vals(name, data) WHERE length(data) <= 16";

thread_local uint32_t t_lastError = ERROR_SUCCESS;
thread_local std::string t_lastMessage;
thread_local uint64_t t_connectionsOpened = 0;

// The thread's connections, one per store: the per-user store and the machine store.
// Closed at thread exit (a forked child's copy is never closed, see ~Connection).
thread_local bool t_connectionsGone = false;
struct ThreadConnections {
  ~ThreadConnections() { t_connectionsGone = true; }
  std::shared_ptr<store::Connection> user;
  std::shared_ptr<store::Connection> machine;
  std::shared_ptr<store::Connection>& For(bool isMachine) { return isMachine ? machine : user; }
};
thread_local ThreadConnections t_connections;

int64_t Nanoseconds(const struct timespec& t) {
  return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

bool IsFolder(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Makes `path` and its missing parents, private to the user.
bool MakeFolders(const std::string& path) {
  if (IsFolder(path)) return true;
  size_t slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0 && !MakeFolders(path.substr(0, slash))) {
    return false;
  }
  return mkdir(path.c_str(), 0700) == 0 || (errno == EEXIST && IsFolder(path));
}

std::string FolderOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Makes the store's folder (per-user store only) and an empty file, which SQLite takes
// as an empty database. The per-user file is private to the user; the machine file is
// readable by every user, who read the log settings from it.
uint32_t CreateStoreFile(const std::string& path, bool machine) {
  const std::string folder = FolderOf(path);
  errno = 0;
  if (machine ? !IsFolder(folder) : !MakeFolders(folder)) {
    return store::SetStatus(ERROR_PATH_NOT_FOUND,
                            "store folder " + folder + " does not exist and was not made" +
                                (machine ? " (the machine store never makes folders)" : "") +
                                (errno ? std::string(": ") + std::strerror(errno) : ""));
  }
  int fd = open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, machine ? 0644 : 0600);
  if (fd >= 0) {
    close(fd);
  } else if (errno != EEXIST) {
    const uint32_t code = errno == EACCES || errno == EROFS || errno == EPERM
                              ? ERROR_ACCESS_DENIED
                              : ERROR_REGISTRY_IO_FAILED;
    return store::SetStatus(code, "cannot create store file " + path + ": " + std::strerror(errno));
  }
  return ERROR_SUCCESS;
}

}  // namespace

uint32_t StoreLastError() {
  return t_lastError;
}
const std::string& StoreLastMessage() {
  return t_lastMessage;
}

std::string StoreFilePath(RegRoot root) {
  if (root == RegRoot::kLocalMachine) {
    const char* named = getenv("MARQUEL_MACHINE_STORE");
    return (named != nullptr && named[0] != '\0') ? named : "/etc/halvern/registry.db";
  }
  const std::string data = CurrentEnv()->AppDataFolder();
  return data.empty() ? std::string() : data + "/Halvern/registry.db";
}

namespace store {

uint32_t SetStatus(uint32_t code, std::string message) {
  t_lastError = code;
  t_lastMessage = std::move(message);
  return code;
}

uint64_t ConnectionsOpened() {
  return t_connectionsOpened;
}

void ConnectionRef::Release() {
  if (conn_ == nullptr) return;
  if (t_connectionsGone) {
    conn_.reset();
    return;
  }
  // A connection that wrote is closed with its last user: the close folds its log into
  // the store file, which other programs and copies of the file then see whole.
  std::shared_ptr<Connection>& cached = t_connections.For(conn_->machine_);
  if (conn_->Wrote() && cached == conn_ && conn_.use_count() == 2) cached.reset();
  conn_.reset();
}

Connection::Connection(sqlite3* db, std::string path, bool machine)
    : db_(db), path_(std::move(path)), machine_(machine), pid_(getpid()) {}

Connection::~Connection() {
  if (pid_ != getpid()) {
    // Inherited over fork: closing it here could fold or remove the parent's log. Kept
    // reachable and never used.
    static auto* inherited = new std::vector<sqlite3*>();
    inherited->push_back(db_);
    return;
  }
  for (auto& [sql, cached] : statements_) sqlite3_finalize(cached.stmt);
  sqlite3_close_v2(db_);
}

bool Connection::SameFile(const std::string& path, const struct stat& st) const {
  return pid_ == getpid() && path == path_ && st.st_dev == dev_ && st.st_ino == ino_ &&
         st.st_mode == mode_ && st.st_uid == uid_ && st.st_size == size_ &&
         Nanoseconds(st.st_mtim) == mtimeNs_ && Nanoseconds(st.st_ctim) == ctimeNs_;
}

void Connection::Remember(const struct stat& st) {
  dev_ = st.st_dev;
  ino_ = st.st_ino;
  mode_ = st.st_mode;
  uid_ = st.st_uid;
  size_ = st.st_size;
  mtimeNs_ = Nanoseconds(st.st_mtim);
  ctimeNs_ = Nanoseconds(st.st_ctim);
}

uint32_t Connection::Open(RegRoot root, bool forWrite, ConnectionRef* out) {
  *out = ConnectionRef();
  const bool machine = root == RegRoot::kLocalMachine;
  std::shared_ptr<Connection>& cached = t_connections.For(machine);
  const std::string path = StoreFilePath(root);
  if (path.empty()) {
    cached.reset();
    return SetStatus(ERROR_PATH_NOT_FOUND,
                     "no store location: neither XDG_DATA_HOME nor HOME is set");
  }
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    cached.reset();
    if (!forWrite) return SetStatus(ERROR_FILE_NOT_FOUND, "store file " + path + " does not exist");
    const uint32_t made = CreateStoreFile(path, machine);
    if (made != ERROR_SUCCESS) return made;
  } else if (!S_ISREG(st.st_mode)) {
    cached.reset();
    return SetStatus(ERROR_BADDB, "store file " + path + " is not a regular file");
  } else if (cached != nullptr && cached->SameFile(path, st)) {
    uint32_t status = cached->hasSchema_ ? ERROR_SUCCESS : cached->Inspect();
    if (status == ERROR_SUCCESS && forWrite && !cached->hasSchema_) status = cached->EnsureSchema();
    if (status != ERROR_SUCCESS) {
      cached.reset();
      return status;
    }
    *out = ConnectionRef(cached);
    return Ok();
  }
  std::shared_ptr<Connection> conn;
  const uint32_t status = OpenNew(path, machine, forWrite, &conn);
  // A connection still in use by an object keeps working; the thread moves on to the new one.
  cached.reset();
  if (status != ERROR_SUCCESS) return status;
  cached = conn;
  *out = ConnectionRef(std::move(conn));
  return Ok();
}

uint32_t Connection::OpenNew(const std::string& path, bool machine, bool forWrite,
                             std::shared_ptr<Connection>* out) {
  sqlite3* db = nullptr;
  // No SQLITE_OPEN_CREATE: only CreateStoreFile makes files. A file the user may not
  // write is opened read-only by SQLite; writes to it then fail as access denied.
  int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  ++t_connectionsOpened;
  std::shared_ptr<Connection> conn(new Connection(db, path, machine));
  if (rc != SQLITE_OK) return conn->Fail(rc, "opening");
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  sqlite3_extended_result_codes(db, 1);
  conn->canWrite_ = sqlite3_db_readonly(db, "main") == 0;
  uint32_t status = conn->Inspect();
  if (status != ERROR_SUCCESS) return status;
  // Each commit reaches the disk before it returns.
  status = conn->Exec("PRAGMA synchronous = FULL");
  if (status != ERROR_SUCCESS) return status;
  if (forWrite && !conn->hasSchema_) {
    status = conn->EnsureSchema();
    if (status != ERROR_SUCCESS) return status;
  }
  if (conn->hasSchema_ && conn->canWrite_) conn->UpgradeIndex();
  struct stat st;
  if (stat(path.c_str(), &st) != 0)
    return SetStatus(ERROR_FILE_NOT_FOUND, "store file " + path + " does not exist");
  conn->Remember(st);
  *out = std::move(conn);
  return Ok();
}

void Connection::UpgradeIndex() {
  {
    Statement s(*this,
                "SELECT 1 FROM sqlite_master WHERE type = 'index' AND name = 'vals_by_small_data'");
    if (s.Step() != SQLITE_DONE) return;  // present, or unreadable: lookups still scan
  }
  // Best effort, and never waiting for another writer: a store without the index answers
  // the same, only slower, and a later connection tries again.
  sqlite3_busy_timeout(db_, 0);
  if (Exec("BEGIN IMMEDIATE") == ERROR_SUCCESS &&
      (Exec(kIndexUpgrade) != ERROR_SUCCESS || Commit() != ERROR_SUCCESS)) {
    Rollback();
  }
  sqlite3_busy_timeout(db_, kBusyTimeoutMs);
}

uint32_t Connection::Inspect() {
  int64_t appId = 0;
  int64_t version = 0;
  int64_t tables = 0;
  {
    Statement s(*this, "PRAGMA application_id");
    int rc = s.Step();
    if (rc != SQLITE_ROW) return Fail(rc, "reading");
    appId = s.Int(0);
  }
  {
    Statement s(*this, "PRAGMA user_version");
    int rc = s.Step();
    if (rc != SQLITE_ROW) return Fail(rc, "reading");
    version = s.Int(0);
  }
  {
    Statement s(*this, "SELECT count(*) FROM sqlite_master");
    int rc = s.Step();
    if (rc != SQLITE_ROW) return Fail(rc, "reading");
    tables = s.Int(0);
  }
  if (appId == kApplicationId && version == kSchemaVersion) {
    hasSchema_ = true;
    return ERROR_SUCCESS;
  }
  if (appId == 0 && version == 0 && tables == 0) return ERROR_SUCCESS;  // empty: no keys yet
  return SetStatus(ERROR_BADDB, "store file " + path_ +
                                    " is a database of another kind or version; it was left "
                                    "unchanged");
}

uint32_t Connection::EnsureSchema() {
  // The per-user store is shared by the server's threads and the tools, so readers must
  // not wait for writers (WAL). The machine store keeps a rollback journal: in WAL mode a
  // user could not read a store in a folder only the administrator may write.
  uint32_t status = Exec(machine_ ? "PRAGMA journal_mode = DELETE" : "PRAGMA journal_mode = WAL");
  if (status != ERROR_SUCCESS) return status;
  status = Exec("BEGIN IMMEDIATE");
  if (status != ERROR_SUCCESS) return status;
  hasSchema_ = false;
  status = Inspect();  // another process may have made the schema meanwhile
  if (status == ERROR_SUCCESS && !hasSchema_) status = Exec(kSchema);
  if (status != ERROR_SUCCESS) {
    Rollback();
    return status;
  }
  status = Commit();
  if (status == ERROR_SUCCESS) hasSchema_ = true;
  return status;
}

uint32_t Connection::Exec(const char* sql) {
  int rc = sqlite3_exec(db_, sql, nullptr, nullptr, nullptr);
  return rc == SQLITE_OK ? ERROR_SUCCESS : Fail(rc, "using");
}

uint32_t Connection::Commit() {
  wrote_ = true;
  uint32_t status = Exec("COMMIT");
  if (status != ERROR_SUCCESS) Rollback();
  // The commit may have folded the log into the file; that change is this connection's own.
  struct stat st;
  if (status == ERROR_SUCCESS && stat(path_.c_str(), &st) == 0) Remember(st);
  return status;
}

void Connection::Rollback() {
  if (sqlite3_get_autocommit(db_) == 0) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
}

uint32_t Connection::Fail(int rc, const char* doing) {
  const std::string detail = db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
  const std::string where = std::string("store file ") + path_;
  switch (rc & 0xFF) {
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
      return SetStatus(ERROR_BADDB, where + " is damaged or not a store (" + detail +
                                        "); it was left unchanged");
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return SetStatus(ERROR_BUSY,
                       where + " stayed locked by another user of the store (" + detail + ")");
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return SetStatus(ERROR_ACCESS_DENIED, where + " may not be written (" + detail + ")");
    case SQLITE_NOMEM:
      return SetStatus(ERROR_NOT_ENOUGH_MEMORY, "out of memory using " + where);
    case SQLITE_CANTOPEN:
      if (access(path_.c_str(), R_OK) != 0) {
        return SetStatus(ERROR_ACCESS_DENIED, where + " may not be read (" + detail + ")");
      }
      [[fallthrough]];
    default:
      return SetStatus(ERROR_REGISTRY_IO_FAILED,
                       std::string("failed ") + doing + " " + where + " (" + detail + ")");
  }
}

}  // namespace store
}  // namespace marquel
