// Model-based random testing of the stores with expiry: long random sequences
// of operations, clock steps and counter resets, each checked after every step
// against a small model of the rules. Per step the model checks every result
// and returned object, every field of the stores' event counters (a cleanup
// gate that opens or stays shut shows in the sweep counts at once), the
// count, every key's presence and the live object count, so that a reference
// kept or dropped wrongly shows at once. A failure prints its seed, the
// store's settings and the steps up to the one that failed.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "reliability/Reliability.h"
#include "support/FakeClock.h"
#include "support/TempFolder.h"

using reliability::Random;
using testsupport::FakeClock;
using VelLogin::CacheStorage;
using VelLogin::FileSystemStorage;
using VelLogin::MemStorage;
using VelLogin::ObjectStorage;
namespace {

constexpr long kStart = 1000000000;

using Ptr = VelLogin::RefCountPtr<VelLogin::IStorable>;

// A storable with a payload and a serial number of its own that tells objects
// apart; it counts the live ones. Its image is "payload:key"; a payload of 0
// refuses to make one, so that a write fails.
class Item : public VelLogin::IStorable {
 public:
  Item(std::string keyArg, uint32_t payloadArg) : key(std::move(keyArg)), payload(payloadArg) {
    ++live;
  }
  ~Item() override { --live; }
  std::string getKey() const override { return key; }
  bool serialize(char*& data, unsigned& len) override {
    m_image = std::to_string(payload) + ":" + key;
    if (payload == 0 || m_image.size() > len) return false;
    data = &m_image[0];
    len = static_cast<unsigned>(m_image.size());
    return true;
  }
  std::string toString() const override { return key; }

  static Ptr make(const std::string& key, uint32_t payload) { return Ptr(new Item(key, payload)); }
  static Ptr fromBytes(const char* data, unsigned len) {
    const std::string bytes(data, len);
    return make(bytes.substr(bytes.find(':') + 1), static_cast<uint32_t>(std::stoul(bytes)));
  }
  static const Item* of(const Ptr& ptr) { return static_cast<const Item*>(ptr.get()); }

  static inline long live = 0;      // items alive now
  static inline uint64_t made = 0;  // and made so far
  const std::string key;
  const uint32_t payload;
  const uint64_t serial = ++made;

 private:
  std::string m_image;  // what serialize() handed out last
};

// Release: the caller drops a kept object; Reset: resetCounters().
enum Kind { Set, SetNull, Get, Del, DelAll, Cleanup, Release, Reset, Tick };

struct Step {
  Kind kind;
  unsigned key;    // into kKeys; for Release into the kept objects
  uint32_t value;  // Set: payload (0: the object refuses to serialise); Tick: seconds;
                   // Get: non-zero when the caller keeps the object
};

struct Config {
  long lifetime;
  unsigned threshold;
};

long saturatingAdd(long base, long seconds) {
  long sum;
  return __builtin_add_overflow(base, seconds, &sum) ? (seconds > 0 ? LONG_MAX : LONG_MIN) : sum;
}

// A stored record; as a read's expected result, serial 0 means a new object
// rebuilt with the payload.
struct Record {
  long expiry;
  uint64_t serial;
  uint32_t payload;
};

// Every field of a store's counters, all of them uint64_t.
template <typename Counters>
std::vector<uint64_t> fields(const Counters& c) {
  std::vector<uint64_t> all(sizeof c / sizeof(uint64_t));
  std::memcpy(all.data(), &c, sizeof c);
  return all;
}

// The expiry rules of MemStorage and the cache: a record expires when the
// clock is strictly past time-of-storing + lifetime; a sweep runs only when
// more than lifetime seconds have passed since the last one that ran and the
// table holds more than threshold records.
template <typename Counters>
struct ExpiringTable {
  long lifetime;
  unsigned threshold;
  long lastCleanup = kStart;
  std::map<std::string, Record> records;
  Counters counters;

  explicit ExpiringTable(const Config& c) : lifetime(c.lifetime), threshold(c.threshold) {}
  void put(const std::string& key, uint64_t serial, uint32_t payload, long now) {
    records[key] = Record{saturatingAdd(now, lifetime), serial, payload};
  }
  void cleanup(long now) {
    if (now <= saturatingAdd(lastCleanup, lifetime) || records.size() <= threshold) return;
    for (auto it = records.begin(); it != records.end();) {
      const bool expired = now > it->second.expiry;
      it = expired ? records.erase(it) : std::next(it);
      counters.recordsSwept += expired;
    }
    ++counters.sweeps;
    lastCleanup = now;
  }
  void addSerials(std::set<uint64_t>& serials) const {
    for (const auto& entry : records) serials.insert(entry.second.serial);
  }
};

// MemStorage: get drops what it finds expired; isInStorage and the count see
// expired records until then.
struct MemModel : ExpiringTable<MemStorage::Counters> {
  using ExpiringTable::ExpiringTable;
  std::optional<Record> get(const std::string& key, long now) {
    auto it = records.find(key);
    const bool found = it != records.end(), expired = found && now > it->second.expiry;
    ++(expired ? counters.expiredOnRead : found ? counters.hits : counters.misses);
    if (expired) records.erase(it);
    if (!found || expired) return std::nullopt;
    return it->second;
  }
  bool set(const std::string& key, uint64_t serial, uint32_t payload, long now) {
    return put(key, serial, payload, now), true;
  }
  void setNull(long) {}
  bool del(const std::string& key) { return records.erase(key), true; }
  bool delAll() { return records.clear(), true; }
  bool isInStorage(const std::string& key) const { return records.count(key) != 0; }
  unsigned count() const { return static_cast<unsigned>(records.size()); }
};

// CacheStorage over a folder behind an object adapter. Files never expire,
// every read of one rebuilds a new object, and a write fails for a key that
// is no plain file name or for an object that cannot make its image. The
// cache: get and set sweep first; a fresh record answers get without the
// folder; a stale or missing one is read through and, when the folder has the
// object, cached anew; set writes through and caches only what the folder
// accepted.
struct CacheModel : ExpiringTable<CacheStorage::Counters> {
  using ExpiringTable::ExpiringTable;
  std::map<std::string, uint32_t> files;

  std::optional<Record> get(const std::string& key, long now) {
    cleanup(now);
    auto it = records.find(key);
    if (it != records.end() && !(now > it->second.expiry)) {
      ++counters.hits;
      return it->second;
    }
    ++(it != records.end() ? counters.staleHits : counters.misses);
    ++counters.backingReads;
    auto file = files.find(key);
    counters.backingReadFailures += file == files.end();
    if (file == files.end()) return std::nullopt;
    put(key, 0, file->second, now);
    return Record{0, 0, file->second};
  }
  // The sweep runs before the null object is refused.
  void setNull(long now) { cleanup(now); }
  bool set(const std::string& key, uint64_t serial, uint32_t payload, long now) {
    cleanup(now);
    const bool accepted = FileSystemStorage::isPlainKey(key) && payload != 0;
    if (accepted) {
      put(key, serial, payload, now);
      files[key] = payload;
    }
    counters.writeThroughsRefused += !accepted;
    return accepted;
  }
  bool del(const std::string& key) { return records.erase(key), files.erase(key) != 0; }
  bool delAll() { return records.clear(), files.clear(), true; }
  bool isInStorage(const std::string& key) const {
    return records.count(key) != 0 || files.count(key) != 0;
  }
  unsigned count() const { return 0; }
};

// A read's result: "null", "#serial=payload" or "new=payload" (serial 0).
std::string show(const std::optional<Record>& read) {
  if (!read) return "null";
  return (read->serial == 0 ? "new" : "#" + std::to_string(read->serial)) + "=" +
         std::to_string(read->payload);
}

const std::vector<std::string> kKeys{"a", "b", "c", "d", "", "no/such"};

// One store under test with its model: MemStorage, or a cache over a folder.
// After each step it
// compares the results, the counters, the count, every key's presence, the
// live objects and, for a folder, the files.
template <typename Store, typename Model>
class Checked {
 public:
  explicit Checked(const Config& c) : m_model(c) {
    if constexpr (std::is_same_v<Store, MemStorage>) {
      m_store.reset(new MemStorage(c.lifetime, c.threshold));
    } else {
      m_folder.emplace();
      m_store.reset(new CacheStorage(
          new ObjectStorage(new FileSystemStorage(m_folder->path(), 0, false, false, 0),
                            &Item::fromBytes),
          c.lifetime, c.threshold));
    }
  }

  // Applies s to the store and its model and compares them.
  void step(const Step& s) {
    Store& store = *m_store;
    const std::string& key = kKeys[s.key % kKeys.size()];
    const long now = static_cast<long>(FakeClock::now());
    switch (s.kind) {
      case Set: {
        Ptr item = Item::make(key, s.value);
        EXPECT_EQ(store.set(item, s.value % 7),
                  m_model.set(key, Item::of(item)->serial, s.value, now))
            << "set";
        break;
      }
      case SetNull:
        m_model.setNull(now);
        EXPECT_EQ(store.set(Ptr(), 0), false) << "set of null";
        break;
      case Get: {
        const uint64_t madeBefore = Item::made;
        const std::optional<Record> expected = m_model.get(key, now);
        const Ptr got = store.get(key, nullptr);
        const Item* item = Item::of(got);
        const uint64_t serial = item && item->serial <= madeBefore ? item->serial : 0;
        EXPECT_EQ(item ? show(Record{0, serial, item->payload}) : "null", show(expected)) << "get";
        // A read-through of a folder makes a new object: the cache holds that.
        if (item && expected && expected->serial == 0) m_model.records[key].serial = item->serial;
        if (item && s.value != 0) m_kept.push_back(got);
        break;
      }
      case Del:
        EXPECT_EQ(store.del(key), m_model.del(key)) << "del";
        break;
      case DelAll:
        EXPECT_EQ(store.delAll(), m_model.delAll()) << "delAll";
        break;
      case Cleanup:
        store.cleanup();
        m_model.cleanup(now);
        break;
      case Release:
        if (!m_kept.empty()) m_kept.erase(m_kept.begin() + s.key % m_kept.size());
        break;
      case Reset:
        store.resetCounters();
        m_model.counters = {};
        break;
      case Tick:
        FakeClock::advance(static_cast<long>(s.value));
        break;
    }
    EXPECT_EQ(fields(store.counters()), fields(m_model.counters)) << "counters";
    EXPECT_EQ(store.getNumElements(), m_model.count()) << "getNumElements";
    for (const std::string& each : kKeys) {
      EXPECT_EQ(store.isInStorage(each), m_model.isInStorage(each)) << "isInStorage " << each;
    }
    // Exactly the objects that the stores (by the model) and the caller hold
    // are alive.
    std::set<uint64_t> held;
    m_model.addSerials(held);
    for (const Ptr& object : m_kept) held.insert(Item::of(object)->serial);
    EXPECT_EQ(Item::live, static_cast<long>(held.size())) << "live objects";
    if constexpr (std::is_same_v<Store, CacheStorage>) {
      std::vector<std::string> names;
      for (const auto& file : m_model.files) names.push_back(file.first);
      EXPECT_EQ(testsupport::listFolder(m_folder->path()), names) << "the folder's files";
    }
  }

 private:
  std::optional<testsupport::TempFolder> m_folder;  // outlives the store
  std::unique_ptr<Store> m_store;
  Model m_model;
  std::vector<Ptr> m_kept;  // objects the caller goes on holding
};

Config randomConfig(Random& random) {
  static const long lifetimes[] = {-1, 0, 1, 2, 5, 30, LONG_MAX};
  static const unsigned thresholds[] = {0, 1, 2, 4, 100};
  return Config{lifetimes[random.below(7)], thresholds[random.below(5)]};
}

Step randomStep(Random& random) {
  // Cumulative percentages of each kind, in the order of Kind.
  static const unsigned kUpTo[] = {25, 27, 59, 67, 69, 80, 83, 85, 100};
  const unsigned roll = random.below(100);
  unsigned kind = 0;
  while (roll >= kUpTo[kind]) ++kind;
  Step s{static_cast<Kind>(kind), random.below(6), 0};
  if (s.kind == Set) s.value = random.chance(10) ? 0 : 1 + random.below(1000);
  if (s.kind == Get) s.value = random.chance(20) ? 1 : 0;
  if (s.kind == Tick) {
    const unsigned size = random.below(10);
    s.value = size < 3 ? 0 : size < 7 ? 1 : 2 + random.below(60);
  }
  return s;
}

// Runs random sequences of random length on fresh targets, from the start
// time, until total steps were checked or one differs from the model.
template <typename T>
void explore(const char* name, uint64_t seed, unsigned total) {
  Random random(seed);
  uint64_t checked = 0;
  unsigned runs = 0;
  for (; checked < total && !::testing::Test::HasFailure(); ++runs) {
    const Config config = randomConfig(random);
    FakeClock::set(kStart);
    T target(config);
    std::ostringstream steps;
    for (unsigned n = 50 + random.below(250); n > 0 && !::testing::Test::HasFailure(); --n) {
      const Step s = randomStep(random);
      steps << " " << s.kind << " '" << kKeys[s.key % kKeys.size()] << "' " << s.value << ";";
      target.step(s);
      ++checked;
    }
    if (::testing::Test::HasFailure()) {
      ADD_FAILURE() << name << " differs from its model; LOGINSTORAGE_SEED=" << seed
                    << " replays it (run " << runs + 1 << ", lifetime " << config.lifetime
                    << ", threshold " << config.threshold << "), steps:" << steps.str();
    }
  }
  FakeClock::useRealTime();
  EXPECT_EQ(Item::live, 0) << "objects outlived every store and caller";
  std::cout << "[ figures  ] " << name << ": " << checked << " random operations checked in "
            << runs << " sequences, seed " << seed << std::endl;
}

TEST(ModelTest, MemStorageFollowsItsModel) {
  explore<Checked<MemStorage, MemModel>>("MemStorage", reliability::seed(20240611),
                                         reliability::scaled(3000000));
}

TEST(ModelTest, CacheOverFolderFollowsItsModel) {
  explore<Checked<CacheStorage, CacheModel>>(
      "CacheStorage over ObjectStorage over FileSystemStorage", reliability::seed(20240613),
      reliability::scaled(60000));
}

}  // namespace
