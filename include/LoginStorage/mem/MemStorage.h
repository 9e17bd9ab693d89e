// MemStorage: an object store that lives entirely in process memory.
//
// Objects are kept in a hash table under the key each object reports
// (IStorable::getKey()), shared, not copied: get() hands out a further
// reference to the stored object. Every record lives exactly the lifetime
// given to the constructor, counted from its set(); the expiration argument of
// set() is ignored. A record is expired once time() is strictly past its
// expiry: get() then drops it and returns null. Expired records nobody reads
// stay (counted by getNumElements(), reported by isInStorage()) until
// cleanup() sweeps them.
//
// Nothing sweeps on its own: the application calls cleanup() as often as it
// likes. A pass runs only when more than `lifetime` seconds have passed since
// construction or the last pass, and only while the table holds more than
// `cleanupThreshold` records (a table too small leaves the time of the last
// pass alone); both tests are cheap.
//
// Raw records and iteration are not supported and exist as fixed stubs:
// setRaw() accepts and discards, getRaw() and the get-all iteration come back
// empty.
//
//   MemStorage sessions(900, 1000);          // 15 minutes, sweep above 1000
//   sessions.set(RefCountPtr<IStorable>(new Session("alice", "t0k3n")), 0);
//   RefCountPtr<IStorable> alice = sessions.get("alice", nullptr);
//   sessions.cleanup();                      // e.g. once per request
//
// Stored objects live while a record or a caller holds a reference. No lock:
// one thread at a time per object, cleanup() included.
#ifndef LOGINSTORAGE_MEM_MEMSTORAGE_H
#define LOGINSTORAGE_MEM_MEMSTORAGE_H

#include <cstdint>
#include <string>
#include <unordered_map>

#include "../storage/AbstractObjectStorage.h"
#include "../storage/Export.h"
#include "../storage/IStorable.h"
#include "../storage/RefCountPtr.h"

namespace VelLogin {

class LOGINSTORAGE_EXPORT MemStorage : public AbstractObjectStorage {
 public:
  // One stored object and the time it expires, in seconds since the epoch.
  // Copies share the object.
  class LOGINSTORAGE_EXPORT MemRecord {
   public:
    // A placeholder (expiry 0, no object) until a record is assigned over it.
    MemRecord();
    // Expires at time() + lifetime, saturating; shares obj.
    MemRecord(long lifetime, RefCountPtr<IStorable> obj);
    MemRecord(const MemRecord&) = default;
    MemRecord& operator=(const MemRecord&) = default;
    virtual ~MemRecord();

    // Whether the record is expired now, or at a time the caller read once.
    bool expired();
    bool expired(long now);
    // A further reference to the object (null for a placeholder).
    RefCountPtr<IStorable> getStorable();
    // Restarts the lifetime from time() and replaces the object.
    void set(long lifetime, RefCountPtr<IStorable> obj);

   private:
    long m_expirationTime;
    RefCountPtr<IStorable> m_storable;
  };

  // What happened to this store since construction or resetCounters(), one
  // count per event. Every get() counts exactly one of hits, misses and
  // expiredOnRead.
  struct Counters {
    uint64_t hits = 0;           // get() returned a stored object
    uint64_t misses = 0;         // get() found no record
    uint64_t expiredOnRead = 0;  // get() met an expired record and dropped it
    uint64_t sweeps = 0;         // cleanup() passes that ran
    uint64_t recordsSwept = 0;   // records those passes removed
  };

  // Every record gets `lifetime` seconds, which is also the least spacing of
  // two cleanup passes; a pass does work only above `cleanupThreshold`
  // records. A lifetime of 0 keeps a record for the second it was stored in;
  // a negative one makes every record expired at once.
  MemStorage(long lifetime, unsigned cleanupThreshold);
  // Releases every stored object (each is destroyed unless a caller still
  // holds a reference).
  ~MemStorage() override;

  // Stub: sets data to null and len to 0, returns false.
  bool getRaw(const std::string& key, char*& data, unsigned& len) const override;
  // Stub: stores nothing, returns true.
  bool setRaw(const std::string& key, const char* data, unsigned len,
               unsigned expiration) override;
  // Stub: lifetimes are per store; changes nothing, returns true.
  bool setExpiration(const std::string& key, unsigned expiration) override;
  // Removes the record under key if there is one; true in every case.
  bool del(const std::string& key) override;
  // Removes every record; true.
  bool delAll() override;
  // Stub: no iteration; returns false.
  bool startGetAll() override;
  // Stub: returns false and leaves its outputs untouched.
  bool getNextRaw(std::string& key, char*& data, unsigned& len) override;
  // Stub: does nothing.
  void endGetAll() override;
  // 1000000.
  unsigned getMaxRecordLen() const override;
  // Records in the table, expired ones not yet removed included.
  unsigned getNumElements() const override;
  // True while a record for key is in the table, expired or not.
  bool isInStorage(const std::string& key) const override;
  // Stub: returns false and leaves its outputs untouched.
  bool getNextInternal(std::string& key, char*& data, unsigned& len,
                       bool& endReached) override;

  // The object stored under key, or null when there is none or it has
  // expired (an expired record is removed at once). factory is not used.
  RefCountPtr<IStorable> get(const std::string& key, FactoryFunc factory) override;
  // Stores obj under obj->getKey(), replacing any record there and starting
  // its lifetime anew; true. The expiration argument is ignored: every record
  // lives the store's lifetime. A null obj is refused with false.
  bool set(RefCountPtr<IStorable> obj, unsigned expiration) override;
  // Stub: returns null.
  RefCountPtr<IStorable> getNext() override;
  // Stub: objects are stored whole, nothing is rebuilt; does nothing.
  void setFactoryFunc(FactoryFunc factory) override;

  // Removes expired records when a pass is due (see the banner).
  virtual void cleanup();

  // Not virtual: the virtual table of the store is fixed.
  const Counters& counters() const { return m_counters; }
  void resetCounters() { m_counters = Counters(); }

 private:
  std::unordered_map<std::string, MemRecord> m_records;
  long m_lastCleanup;
  long m_lifetime;
  unsigned m_cleanupThreshold;
  Counters m_counters;
};

}  // namespace VelLogin

#endif
