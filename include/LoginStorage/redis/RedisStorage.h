// RedisStorage: raw records kept as Redis strings on a Redis server, so that
// stores on several machines share them. Built into its own library,
// libLoginStorageRedis.so (CMake target LoginStorage::Redis, pkg-config
// loginstorage-redis); the core library does not depend on it.
//
//   VelLogin::CacheStorage sessions(
//       new VelLogin::ObjectStorage(
//           new VelLogin::RedisStorage("10.0.0.5", 6379, "sessions:", 500),
//           &Session::fromBytes),
//       60, 1000);
//
// On the server: the record under key is the string value of the Redis key
// prefix + key, holding exactly the record's bytes. Keys and records are
// binary-safe (NUL bytes included). The prefix namespaces the store as a
// folder does: iteration, delAll() and getNumElements() see only keys that
// begin with it; stores with different prefixes share a server without
// meeting. The empty prefix takes the whole database. Records are walked with
// SCAN, never KEYS, so a large database is not blocked.
//
// A record's lifetime is the server's time to live: setRaw() and
// setExpiration() with expiration > 0 give the record that many seconds,
// 0 keeps it until it is removed. The server applies it, not this process's
// clock.
//
// Failures never look like success: an unreachable, refusing, failing or
// too slow server makes operations fail with false results (len 0 for
// reads, 0 from getNumElements()), a trace message on topic "STORAGE" and
// the cause in lastError(). A walk that breaks off ends with a severity-1
// trace message and lastError() set. A reply that is not what the command
// answers (wrong type, a key outside the prefix, a bulk above the record
// limit, an array longer than a SCAN batch) is a protocol error: the
// operation fails and the connection is dropped.
//
// Bounds: each operation has one deadline, the timeout, for connecting
// (sentinels included), sending and every read of its replies; a walk
// (iteration, delAll(), getNumElements()) spends at most walkTimeoutMs of
// the options in SCAN calls and stops on a SCAN cursor that keeps coming
// back. A reply is bounded before memory is taken for it.
//
// After a failed or broken connection, a timeout, a READONLY or a MASTERDOWN
// reply, the next operation connects again (asking the sentinels anew), so a
// restarted server or a promoted replica is used as soon as it serves. A
// broken connection never raises SIGPIPE in the process.
//
// Several objects and processes may share a prefix; nothing coordinates them
// beyond the server's own atomicity of each command.
//
// One thread at a time per object.
#ifndef LOGINSTORAGE_REDIS_REDISSTORAGE_H
#define LOGINSTORAGE_REDIS_REDISSTORAGE_H

#include <string>
#include <vector>

#include "../storage/AbstractStorage.h"
#include "../storage/Export.h"
#include "RedisOptions.h"

namespace VelLogin {

class RedisConnection;
class RedisScan;

class LOGINSTORAGE_EXPORT RedisStorage : public AbstractStorage {
 public:
  // The largest string value a Redis server accepts by default (512 MiB).
  static constexpr unsigned kMaxRedisRecordLen = 512u * 1024u * 1024u;

  // Keeps records on the server at host:port under keys prefix + key.
  // timeoutMs is the deadline of each operation (0 means 1000). Connects
  // at once; a server that cannot be reached is reported in
  // the trace only: the object exists all the same and connects again on its
  // next operation.
  RedisStorage(const std::string& host, unsigned port, const std::string& prefix,
               unsigned timeoutMs);
  // Keeps records on the server that options name (RedisOptions.h), under
  // keys options.prefix + key. Connects at once, as above.
  explicit RedisStorage(const RedisOptions& options);
  RedisStorage(const RedisStorage&) = delete;
  RedisStorage& operator=(const RedisStorage&) = delete;

  // Reads the record under the record buffer convention (AbstractStorage.h).
  // False with len 0 when the record is missing, is not a string or the
  // server fails; false with len set to the record's length when that
  // exceeds the capacity.
  bool getRaw(const std::string& key, char*& data, unsigned& len) const override;

  // Stores len bytes from data, replacing any old record and its lifetime.
  // expiration > 0: the record expires after that many seconds; 0: never.
  // False, with nothing sent, when len is 0, data is null or len exceeds
  // getMaxRecordLen(); false when the server fails.
  bool setRaw(const std::string& key, const char* data, unsigned len, unsigned expiration) override;

  // Gives an existing record a new lifetime: expiration seconds from now, or
  // none for 0. False when the record does not exist or the server fails.
  bool setExpiration(const std::string& key, unsigned expiration) override;

  // Removes the record; true when it existed and was removed.
  bool del(const std::string& key) override;

  // Removes every record under the prefix; true when the walk over them
  // completed and every removal succeeded (also when there were none).
  bool delAll() override;

  // Opens the iteration over the records under the prefix. It delivers each
  // record once; records added or removed meanwhile may or may not be seen.
  // False when an iteration is already open (it goes on undisturbed) or the
  // server cannot be walked (its first SCAN fails).
  bool startGetAll() override;

  // Closes the iteration, if one is open.
  void endGetAll() override;

  // kMaxRedisRecordLen.
  unsigned getMaxRecordLen() const override;

  // Ends an open iteration and closes the connection; records stay on the
  // server.
  ~RedisStorage() override;

  // The number of records under the prefix, counted on the server: a full
  // walk unless the prefix is empty (then DBSIZE), each key counted once,
  // exact when no record is added or removed meanwhile. 0 with lastError()
  // set when the server fails.
  unsigned getNumElements() const override;

  // True when the record exists on the server.
  bool isInStorage(const std::string& key) const override;

  // The next record of the walk, read with getRaw() (key is set even when
  // the read fails, for example because the record was removed meanwhile);
  // at the end, or when the server fails mid-walk, true with endReached and
  // len 0; after a failure lastError() is set.
  bool getNextInternal(std::string& key, char*& data, unsigned& len, bool& endReached) override;

  // Why the last operation failed: the server's error text, "timeout ...",
  // "protocol error: ..." or a connection failure. Every operation empties
  // it first, so an empty lastError() tells a real 0 from getNumElements(),
  // a missing record from getRaw() and the end of an iteration from an
  // outage.
  const std::string& lastError() const;

 private:
  std::string m_prefix;
  RedisConnection* m_connection;  // owned; private to the library
  RedisScan* m_scan;              // owned; the walk of the open iteration
  bool m_iterating;
  std::vector<std::string> m_pending;  // the keys of the last batch
  size_t m_nextPending;                // the next of them to deliver
};

}  // namespace VelLogin

#endif
