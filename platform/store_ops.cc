// Key and value operations of a store connection.
#include <sqlite3.h>

#include "platform/text.h"
#include "store.h"
#include "store_statement.h"

namespace marquel {
namespace store {
namespace {

// The classes root is this key of the per-user store.
const char* const kClassesPrefix[] = {"Software", "Classes"};

uint32_t NotFound(const char* what) {
  return SetStatus(ERROR_FILE_NOT_FOUND, std::string(what) + " does not exist");
}

}  // namespace

uint32_t SplitKeyPath(RegRoot root, const char* path, std::vector<std::string>* parts) {
  parts->clear();
  if (root != RegRoot::kCurrentUser && root != RegRoot::kClassesRoot &&
      root != RegRoot::kLocalMachine) {
    return SetStatus(ERROR_INVALID_HANDLE, "unknown root");
  }
  if (root == RegRoot::kClassesRoot)
    parts->assign(std::begin(kClassesPrefix), std::end(kClassesPrefix));
  std::string_view rest = path != nullptr ? path : "";
  if (!rest.empty() && rest.back() == '\\') rest.remove_suffix(1);
  if (rest.empty()) return Ok();
  while (true) {
    size_t sep = rest.find('\\');
    std::string_view part = rest.substr(0, sep);
    if (part.empty()) {
      return SetStatus(ERROR_BAD_PATHNAME, "key path has an empty component: " + std::string(path));
    }
    if (Utf16Length(part) > kMaxKeyNameChars) {
      return SetStatus(ERROR_INVALID_PARAMETER,
                       "key name longer than 255 characters: " + std::string(part));
    }
    parts->emplace_back(part);
    if (sep == std::string_view::npos) break;
    rest.remove_prefix(sep + 1);
  }
  return Ok();
}

uint32_t CheckValueName(const char* name) {
  if (name != nullptr && Utf16Length(name) > kMaxValueNameChars) {
    return SetStatus(ERROR_INVALID_PARAMETER, "value name longer than 16383 characters");
  }
  return Ok();
}

uint32_t Connection::ChildId(int64_t parent, const std::string& name, int64_t* id) {
  Statement s(*this, "SELECT id FROM keys WHERE parent = ?1 AND name = ?2");
  s.Bind(1, parent);
  s.Bind(2, name);
  int rc = s.Step();
  if (rc == SQLITE_ROW) {
    *id = s.Int(0);
    return ERROR_SUCCESS;
  }
  return rc == SQLITE_DONE ? NotFound("key") : Fail(rc, "reading");
}

uint32_t Connection::LookUp(int64_t from, const std::vector<std::string>& parts, int64_t* id) {
  int64_t current = from;
  for (const std::string& part : parts) {
    if (!hasSchema_) return NotFound("key");
    uint32_t status = ChildId(current, part, &current);
    if (status != ERROR_SUCCESS) return status;
  }
  *id = current;
  return ERROR_SUCCESS;
}

uint32_t Connection::FindKey(int64_t from, const std::vector<std::string>& parts, int64_t* id) {
  uint32_t status = LookUp(from, parts, id);
  return status == ERROR_SUCCESS ? Ok() : status;
}

uint32_t Connection::CreateKeyPath(int64_t from, const std::vector<std::string>& parts,
                                   const std::string& className, int64_t* id) {
  uint32_t status = hasSchema_ ? ERROR_SUCCESS : EnsureSchema();
  if (status == ERROR_SUCCESS) status = Exec("BEGIN IMMEDIATE");
  if (status != ERROR_SUCCESS) return status;
  int64_t current = from;
  for (const std::string& part : parts) {
    status = ChildId(current, part, &current);
    if (status == ERROR_FILE_NOT_FOUND) {
      Statement s(*this, "INSERT INTO keys(parent, name, class) VALUES(?1, ?2, ?3)");
      s.Bind(1, current);
      s.Bind(2, part);
      s.Bind(3, className);
      int rc = s.Step();
      status = rc == SQLITE_DONE ? ERROR_SUCCESS : Fail(rc, "writing");
      current = sqlite3_last_insert_rowid(db_);
    }
    if (status != ERROR_SUCCESS) {
      Rollback();
      return status;
    }
  }
  status = Commit();
  if (status != ERROR_SUCCESS) return status;
  *id = current;
  return Ok();
}

uint32_t Connection::DeleteKeyPath(int64_t from, const std::vector<std::string>& parts) {
  if (parts.empty()) return SetStatus(ERROR_ACCESS_DENIED, "a root cannot be deleted");
  if (!hasSchema_) return NotFound("key");
  uint32_t status = Exec("BEGIN IMMEDIATE");
  if (status != ERROR_SUCCESS) return status;
  int64_t id = 0;
  status = LookUp(from, parts, &id);
  if (status == ERROR_SUCCESS) {
    Statement s(*this, "SELECT 1 FROM keys WHERE parent = ?1 LIMIT 1");
    s.Bind(1, id);
    int rc = s.Step();
    if (rc == SQLITE_ROW) {
      status = SetStatus(ERROR_ACCESS_DENIED, "key has sub-keys and cannot be deleted");
    } else if (rc != SQLITE_DONE) {
      status = Fail(rc, "reading");
    }
  }
  for (const char* sql : {"DELETE FROM vals WHERE key = ?1", "DELETE FROM keys WHERE id = ?1"}) {
    if (status != ERROR_SUCCESS) break;
    Statement s(*this, sql);
    s.Bind(1, id);
    int rc = s.Step();
    if (rc != SQLITE_DONE) status = Fail(rc, "writing");
  }
  if (status != ERROR_SUCCESS) {
    Rollback();
    return status;
  }
  status = Commit();
  return status == ERROR_SUCCESS ? Ok() : status;
}

uint32_t Connection::ReadValue(int64_t key, const std::string& name, uint32_t* type,
                               std::vector<uint8_t>* data) {
  if (!hasSchema_) return NotFound("value");
  Statement s(*this, "SELECT type, data FROM vals WHERE key = ?1 AND name = ?2");
  s.Bind(1, key);
  s.Bind(2, name);
  int rc = s.Step();
  if (rc == SQLITE_DONE) return NotFound("value");
  if (rc != SQLITE_ROW) return Fail(rc, "reading");
  *type = static_cast<uint32_t>(s.Int(0));
  const auto* bytes = static_cast<const uint8_t*>(s.Blob(1));
  const uint32_t size = s.Bytes(1);
  data->assign(bytes, bytes + (bytes != nullptr ? size : 0));
  return Ok();
}

uint32_t Connection::WriteValue(int64_t key, const std::string& name, uint32_t type,
                                const void* data, uint32_t size) {
  uint32_t status = hasSchema_ ? ERROR_SUCCESS : EnsureSchema();
  if (status == ERROR_SUCCESS) status = Exec("BEGIN IMMEDIATE");
  if (status != ERROR_SUCCESS) return status;
  if (key != 0) {
    Statement s(*this, "SELECT 1 FROM keys WHERE id = ?1");
    s.Bind(1, key);
    int rc = s.Step();
    if (rc == SQLITE_DONE) status = SetStatus(ERROR_KEY_DELETED, "the open key has been deleted");
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) status = Fail(rc, "reading");
  }
  if (status == ERROR_SUCCESS) {
    // An update in place keeps the value's enumeration position.
    Statement s(*this,
                "INSERT INTO vals(key, name, type, data) VALUES(?1, ?2, ?3, ?4) "
                "ON CONFLICT(key, name) DO UPDATE SET type = excluded.type, data = excluded.data");
    s.Bind(1, key);
    s.Bind(2, name);
    s.Bind(3, static_cast<int64_t>(type));
    s.BindBlob(4, data, size);
    int rc = s.Step();
    if (rc != SQLITE_DONE) status = Fail(rc, "writing");
  }
  if (status != ERROR_SUCCESS) {
    Rollback();
    return status;
  }
  status = Commit();
  return status == ERROR_SUCCESS ? Ok() : status;
}

uint32_t Connection::DeleteValue(int64_t key, const std::string& name) {
  if (!hasSchema_) return NotFound("value");
  Statement s(*this, "DELETE FROM vals WHERE key = ?1 AND name = ?2");
  s.Bind(1, key);
  s.Bind(2, name);
  int rc = s.Step();
  if (rc != SQLITE_DONE) return Fail(rc, "writing");
  wrote_ = true;
  return sqlite3_changes(db_) == 0 ? NotFound("value") : Ok();
}

uint32_t Connection::SubKeyAt(int64_t key, uint32_t index, std::string* name) {
  if (!hasSchema_) return SetStatus(ERROR_NO_MORE_ITEMS, "no more sub-keys");
  Statement s(*this, "SELECT name FROM keys WHERE parent = ?1 ORDER BY id LIMIT 1 OFFSET ?2");
  s.Bind(1, key);
  s.Bind(2, static_cast<int64_t>(index));
  int rc = s.Step();
  if (rc == SQLITE_DONE) return SetStatus(ERROR_NO_MORE_ITEMS, "no more sub-keys");
  if (rc != SQLITE_ROW) return Fail(rc, "reading");
  *name = s.Text(0);
  return Ok();
}

uint32_t Connection::ValueAt(int64_t key, uint32_t index, std::string* name, uint32_t* type,
                             uint32_t* size) {
  if (!hasSchema_) return SetStatus(ERROR_NO_MORE_ITEMS, "no more values");
  Statement s(*this,
              "SELECT name, type, length(data) FROM vals WHERE key = ?1 ORDER BY id "
              "LIMIT 1 OFFSET ?2");
  s.Bind(1, key);
  s.Bind(2, static_cast<int64_t>(index));
  int rc = s.Step();
  if (rc == SQLITE_DONE) return SetStatus(ERROR_NO_MORE_ITEMS, "no more values");
  if (rc != SQLITE_ROW) return Fail(rc, "reading");
  *name = s.Text(0);
  *type = static_cast<uint32_t>(s.Int(1));
  *size = static_cast<uint32_t>(s.Int(2));
  return Ok();
}

uint32_t Connection::SubKeysWithValue(int64_t parent, const std::string& name, const void* data,
                                      uint32_t size, std::vector<std::string>* names) {
  names->clear();
  if (size > kMaxIndexedValueBytes) {
    return SetStatus(ERROR_INVALID_PARAMETER, "value too long to be looked up by its contents");
  }
  if (!hasSchema_) return Ok();
  // The values lead (CROSS JOIN keeps that order), so the index on (name, data) finds the
  // few matches instead of reading every sub-key of `parent`. The length term lets the
  // partial index serve; a store without the index gives the same answer by a scan.
  Statement s(*this,
              "SELECT k.name FROM vals AS v CROSS JOIN keys AS k ON k.id = v.key "
              "WHERE v.name = ?1 AND v.data = ?2 AND length(data) <= 16 AND k.parent = ?3 "
              "ORDER BY k.id");
  s.Bind(1, name);
  s.BindBlob(2, data, size);
  s.Bind(3, parent);
  int rc;
  while ((rc = s.Step()) == SQLITE_ROW) names->push_back(s.Text(0));
  if (rc != SQLITE_DONE) {
    names->clear();
    return Fail(rc, "reading");
  }
  return Ok();
}

}  // namespace store
}  // namespace marquel
