// What a user would otherwise pick for small records on one machine, on the
// folder store's workload: LMDB and SQLite, each in a fresh folder, 256
// records of the given size, reads and replacing writes of one record by
// key and a pass over all records. Records are handed to the caller in a
// new[] buffer, as the folder store hands them.
//
// Durability is set to match the folder store's default: a write survives
// the process being killed, not a power cut (LMDB with MDB_NOSYNC, SQLite in
// WAL mode with synchronous=OFF).
#include <benchmark/benchmark.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "BenchSupport.h"

#if defined(LOGINSTORAGE_BENCH_LMDB)
#include <lmdb.h>
#endif
#if defined(LOGINSTORAGE_BENCH_SQLITE)
#include <sqlite3.h>
#endif

namespace {

constexpr size_t kRecords = 256;

#if defined(LOGINSTORAGE_BENCH_LMDB)

void check(int rc, const char* what) {
  if (rc != MDB_SUCCESS) throw std::runtime_error(std::string(what) + ": " + mdb_strerror(rc));
}

struct Lmdb {
  MDB_env* env = nullptr;
  MDB_dbi dbi = 0;
  std::vector<std::string> keys = bench::fileKeys(kRecords);

  explicit Lmdb(size_t size) {
    check(mdb_env_create(&env), "mdb_env_create");
    check(mdb_env_set_mapsize(env, size_t(256) << 20), "mdb_env_set_mapsize");
    check(mdb_env_open(env, bench::freshFolder().c_str(), MDB_NOSYNC, 0600), "mdb_env_open");
    MDB_txn* txn;
    check(mdb_txn_begin(env, nullptr, 0, &txn), "mdb_txn_begin");
    check(mdb_dbi_open(txn, nullptr, 0, &dbi), "mdb_dbi_open");
    const std::string bytes = bench::recordBytes(size, 1);
    for (const std::string& key : keys) put(txn, key, bytes);
    check(mdb_txn_commit(txn), "mdb_txn_commit");
  }
  ~Lmdb() { mdb_env_close(env); }

  void put(MDB_txn* txn, const std::string& key, const std::string& bytes) {
    MDB_val k{key.size(), const_cast<char*>(key.data())};
    MDB_val v{bytes.size(), const_cast<char*>(bytes.data())};
    check(mdb_put(txn, dbi, &k, &v, 0), "mdb_put");
  }
};

void lmdbGet(benchmark::State& state) {
  Lmdb db(static_cast<size_t>(state.range(0)));
  MDB_txn* txn;
  check(mdb_txn_begin(db.env, nullptr, MDB_RDONLY, &txn), "mdb_txn_begin");
  mdb_txn_reset(txn);
  size_t i = 0;
  for (auto _ : state) {
    check(mdb_txn_renew(txn), "mdb_txn_renew");
    const std::string& key = db.keys[i];
    MDB_val k{key.size(), const_cast<char*>(key.data())};
    MDB_val v;
    check(mdb_get(txn, db.dbi, &k, &v), "mdb_get");
    char* data = new char[v.mv_size];
    std::memcpy(data, v.mv_data, v.mv_size);
    mdb_txn_reset(txn);
    benchmark::DoNotOptimize(data);
    delete[] data;
    if (++i == db.keys.size()) i = 0;
  }
  mdb_txn_abort(txn);
}

void lmdbPut(benchmark::State& state) {
  Lmdb db(static_cast<size_t>(state.range(0)));
  const std::string bytes = bench::recordBytes(static_cast<size_t>(state.range(0)), 2);
  size_t i = 0;
  for (auto _ : state) {
    MDB_txn* txn;
    check(mdb_txn_begin(db.env, nullptr, 0, &txn), "mdb_txn_begin");
    db.put(txn, db.keys[i], bytes);
    check(mdb_txn_commit(txn), "mdb_txn_commit");
    if (++i == db.keys.size()) i = 0;
  }
}

void lmdbIterate(benchmark::State& state) {
  Lmdb db(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    MDB_txn* txn;
    MDB_cursor* cursor;
    check(mdb_txn_begin(db.env, nullptr, MDB_RDONLY, &txn), "mdb_txn_begin");
    check(mdb_cursor_open(txn, db.dbi, &cursor), "mdb_cursor_open");
    MDB_val k, v;
    size_t seen = 0;
    while (mdb_cursor_get(cursor, &k, &v, MDB_NEXT) == MDB_SUCCESS) {
      std::string key(static_cast<const char*>(k.mv_data), k.mv_size);
      char* data = new char[v.mv_size];
      std::memcpy(data, v.mv_data, v.mv_size);
      benchmark::DoNotOptimize(data);
      delete[] data;
      ++seen;
    }
    mdb_cursor_close(cursor);
    mdb_txn_abort(txn);
    if (seen != db.keys.size()) state.SkipWithError("iteration missed records");
  }
  state.counters["records"] = double(db.keys.size());
}

#endif  // LOGINSTORAGE_BENCH_LMDB

#if defined(LOGINSTORAGE_BENCH_SQLITE)

struct Sqlite {
  sqlite3* db = nullptr;
  sqlite3_stmt* select = nullptr;
  sqlite3_stmt* replace = nullptr;
  std::vector<std::string> keys = bench::fileKeys(kRecords);

  void exec(const char* sql) {
    char* error = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
      std::string message = error != nullptr ? error : "?";
      sqlite3_free(error);
      throw std::runtime_error(message);
    }
  }
  sqlite3_stmt* prepare(const char* sql) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
      throw std::runtime_error(sqlite3_errmsg(db));
    }
    return stmt;
  }

  explicit Sqlite(size_t size) {
    const std::string path = bench::freshFolder() + "records.db";
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) throw std::runtime_error("sqlite3_open");
    exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=OFF;"
         "CREATE TABLE records (key TEXT PRIMARY KEY, value BLOB) WITHOUT ROWID;");
    select = prepare("SELECT value FROM records WHERE key = ?1");
    replace = prepare("INSERT OR REPLACE INTO records (key, value) VALUES (?1, ?2)");
    const std::string bytes = bench::recordBytes(size, 1);
    exec("BEGIN");
    for (const std::string& key : keys) put(key, bytes);
    exec("COMMIT");
  }
  ~Sqlite() {
    sqlite3_finalize(select);
    sqlite3_finalize(replace);
    sqlite3_close(db);
  }

  void put(const std::string& key, const std::string& bytes) {
    sqlite3_bind_text(replace, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    sqlite3_bind_blob(replace, 2, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
    if (sqlite3_step(replace) != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(db));
    sqlite3_reset(replace);
  }
};

void sqliteGet(benchmark::State& state) {
  Sqlite db(static_cast<size_t>(state.range(0)));
  size_t i = 0;
  for (auto _ : state) {
    const std::string& key = db.keys[i];
    sqlite3_bind_text(db.select, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    if (sqlite3_step(db.select) != SQLITE_ROW) state.SkipWithError("no row");
    const int len = sqlite3_column_bytes(db.select, 0);
    char* data = new char[static_cast<size_t>(len)];
    std::memcpy(data, sqlite3_column_blob(db.select, 0), static_cast<size_t>(len));
    sqlite3_reset(db.select);
    benchmark::DoNotOptimize(data);
    delete[] data;
    if (++i == db.keys.size()) i = 0;
  }
}

void sqlitePut(benchmark::State& state) {
  Sqlite db(static_cast<size_t>(state.range(0)));
  const std::string bytes = bench::recordBytes(static_cast<size_t>(state.range(0)), 2);
  size_t i = 0;
  for (auto _ : state) {
    db.put(db.keys[i], bytes);
    if (++i == db.keys.size()) i = 0;
  }
}

void sqliteIterate(benchmark::State& state) {
  Sqlite db(static_cast<size_t>(state.range(0)));
  sqlite3_stmt* all = db.prepare("SELECT key, value FROM records");
  for (auto _ : state) {
    size_t seen = 0;
    while (sqlite3_step(all) == SQLITE_ROW) {
      std::string key(reinterpret_cast<const char*>(sqlite3_column_text(all, 0)),
                      static_cast<size_t>(sqlite3_column_bytes(all, 0)));
      const int len = sqlite3_column_bytes(all, 1);
      char* data = new char[static_cast<size_t>(len)];
      std::memcpy(data, sqlite3_column_blob(all, 1), static_cast<size_t>(len));
      benchmark::DoNotOptimize(data);
      delete[] data;
      ++seen;
    }
    sqlite3_reset(all);
    if (seen != db.keys.size()) state.SkipWithError("iteration missed records");
  }
  sqlite3_finalize(all);
  state.counters["records"] = double(db.keys.size());
}

#endif  // LOGINSTORAGE_BENCH_SQLITE

[[maybe_unused]] const bool registered = [] {
  for (int64_t size : {100, 1024, 4096}) {
#if defined(LOGINSTORAGE_BENCH_LMDB)
    benchmark::RegisterBenchmark("lmdb:get", lmdbGet)->Arg(size)->UseRealTime();
    benchmark::RegisterBenchmark("lmdb:put", lmdbPut)->Arg(size)->UseRealTime();
    benchmark::RegisterBenchmark("lmdb:iterate", lmdbIterate)->Arg(size)->UseRealTime();
#endif
#if defined(LOGINSTORAGE_BENCH_SQLITE)
    benchmark::RegisterBenchmark("sqlite:get", sqliteGet)->Arg(size)->UseRealTime();
    benchmark::RegisterBenchmark("sqlite:put", sqlitePut)->Arg(size)->UseRealTime();
    benchmark::RegisterBenchmark("sqlite:iterate", sqliteIterate)->Arg(size)->UseRealTime();
#endif
    (void)size;
  }
  return true;
}();

}  // namespace
