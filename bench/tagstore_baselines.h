// Baselines of the tag store benchmark: an SQLite table with an index on time, and a
// std::map, doing the same work as the store in the same run.
#pragma once

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace marquel::bench {

inline double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// One tag's samples in SQLite: a table with a unique index on (tag, time), written with
// one prepared INSERT OR REPLACE (an equal time code replaces, as in the store) inside one
// transaction, and read back with one prepared range query.
class SqliteTag {
 public:
  explicit SqliteTag(const std::string& path) {
    std::remove(path.c_str());
    if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) throw std::runtime_error("sqlite open");
    Exec("CREATE TABLE samples(tag INTEGER, t INTEGER, v INTEGER)");
    Exec("CREATE UNIQUE INDEX samples_time ON samples(tag, t)");
    Prepare("INSERT OR REPLACE INTO samples VALUES(16, ?, ?)", &insert_);
    Prepare("SELECT t, v FROM samples WHERE tag = 16 AND t >= ? AND t < ? ORDER BY t", &range_);
  }
  ~SqliteTag() {
    sqlite3_finalize(insert_);
    sqlite3_finalize(range_);
    sqlite3_close(db_);
  }

  // Inserts all samples in one transaction; returns the seconds taken.
  double Insert(const std::vector<int64_t>& times) {
    auto start = std::chrono::steady_clock::now();
    Exec("BEGIN");
    for (int64_t t : times) {
      sqlite3_bind_int64(insert_, 1, t);
      sqlite3_bind_int(insert_, 2, static_cast<int>(t & 0x7fffffff));
      if (sqlite3_step(insert_) != SQLITE_DONE) throw std::runtime_error("sqlite insert");
      sqlite3_reset(insert_);
    }
    Exec("COMMIT");
    return Seconds(start);
  }

  // Reads [from, to) into `out`; returns the seconds taken.
  double Range(int64_t from, int64_t to, std::vector<std::pair<int64_t, int32_t>>* out) {
    auto start = std::chrono::steady_clock::now();
    out->clear();
    sqlite3_bind_int64(range_, 1, from);
    sqlite3_bind_int64(range_, 2, to);
    while (sqlite3_step(range_) == SQLITE_ROW) {
      out->emplace_back(sqlite3_column_int64(range_, 0), sqlite3_column_int(range_, 1));
    }
    sqlite3_reset(range_);
    return Seconds(start);
  }

 private:
  void Exec(const char* sql) {
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
      throw std::runtime_error(sqlite3_errmsg(db_));
  }
  void Prepare(const char* sql, sqlite3_stmt** stmt) {
    if (sqlite3_prepare_v2(db_, sql, -1, stmt, nullptr) != SQLITE_OK)
      throw std::runtime_error(sqlite3_errmsg(db_));
  }

  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* range_ = nullptr;
};

// The same inserts into a std::map; returns the seconds taken.
inline double MapInsert(const std::vector<int64_t>& times, std::map<int64_t, int32_t>* map) {
  auto start = std::chrono::steady_clock::now();
  for (int64_t t : times) (*map)[t] = static_cast<int32_t>(t & 0x7fffffff);
  return Seconds(start);
}

// The same range read from a std::map; returns the seconds taken.
inline double MapRange(const std::map<int64_t, int32_t>& map, int64_t from, int64_t to,
                       std::vector<std::pair<int64_t, int32_t>>* out) {
  auto start = std::chrono::steady_clock::now();
  out->clear();
  for (auto it = map.lower_bound(from); it != map.end() && it->first < to; ++it)
    out->emplace_back(it->first, it->second);
  return Seconds(start);
}

}  // namespace marquel::bench
