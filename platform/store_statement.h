// A prepared SQLite statement of a connection's cache (private to the store). It is reset
// when the object goes, so that no read stays open between calls.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>

#include "store.h"

namespace marquel {
namespace store {

class Statement {
 public:
  Statement(Connection& conn, const char* sql) {
    Connection::CachedStatement& cached = conn.statements_[sql];
    if (cached.inUse) {  // the same text twice at once: a private copy
      rc_ = sqlite3_prepare_v2(conn.db_, sql, -1, &stmt_, nullptr);
      return;
    }
    if (cached.stmt == nullptr) {
      rc_ = sqlite3_prepare_v3(conn.db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &cached.stmt, nullptr);
      if (rc_ != SQLITE_OK) {
        sqlite3_finalize(cached.stmt);
        cached.stmt = nullptr;
        return;
      }
    }
    rc_ = SQLITE_OK;
    stmt_ = cached.stmt;
    cached_ = &cached;
    cached.inUse = true;
  }
  ~Statement() {
    if (cached_ == nullptr) {
      sqlite3_finalize(stmt_);
      return;
    }
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
    cached_->inUse = false;
  }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  // SQLITE_OK when prepared, else the failure; Step reports it again.
  int rc() const { return rc_; }

  void Bind(int index, int64_t value) {
    if (rc_ == SQLITE_OK) rc_ = sqlite3_bind_int64(stmt_, index, value);
  }
  void Bind(int index, const std::string& text) {
    if (rc_ == SQLITE_OK) {
      rc_ = sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()),
                              SQLITE_TRANSIENT);
    }
  }
  // A zero-length blob is bound as such, never as NULL.
  void BindBlob(int index, const void* data, uint32_t size) {
    if (rc_ != SQLITE_OK) return;
    rc_ = size == 0
              ? sqlite3_bind_zeroblob(stmt_, index, 0)
              : sqlite3_bind_blob(stmt_, index, data, static_cast<int>(size), SQLITE_TRANSIENT);
  }

  // SQLITE_ROW, SQLITE_DONE or a failure code.
  int Step() { return rc_ == SQLITE_OK ? sqlite3_step(stmt_) : rc_; }

  int64_t Int(int column) { return sqlite3_column_int64(stmt_, column); }
  std::string Text(int column) {
    const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
    return p ? std::string(p, static_cast<size_t>(sqlite3_column_bytes(stmt_, column)))
             : std::string();
  }
  const void* Blob(int column) { return sqlite3_column_blob(stmt_, column); }
  uint32_t Bytes(int column) { return static_cast<uint32_t>(sqlite3_column_bytes(stmt_, column)); }

 private:
  sqlite3_stmt* stmt_ = nullptr;
  Connection::CachedStatement* cached_ = nullptr;
  int rc_;
};

}  // namespace store
}  // namespace marquel
