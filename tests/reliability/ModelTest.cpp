// Model-based random testing of the stores with expiry: long random sequences
// of operations and clock steps, each checked after every step against a
// small model of the rules (lifetimes, strict expiry, both cleanup gates,
// write-through, stale re-reads) and against the live object count, so that
// a reference kept or dropped wrongly shows at once. A failure prints its
// seed, the store's settings and the shortest sequence that still fails.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "reliability/Reliability.h"
#include "support/FakeClock.h"
#include "support/TempFolder.h"

using reliability::Item;
using reliability::Random;
using testsupport::FakeClock;
using VelLogin::CacheStorage;
using VelLogin::FileSystemStorage;
using VelLogin::MemStorage;
using VelLogin::ObjectStorage;
using Ptr = VelLogin::RefCountPtr<VelLogin::IStorable>;

namespace {

constexpr long kStart = 1000000000;

enum class Kind { Set, SetNull, Get, Del, DelAll, Cleanup, BackingCleanup, Iterate, Release, Tick };

struct Step {
  Kind kind;
  unsigned key;    // index into the target's key pool
  uint32_t value;  // payload for Set (0: the object refuses to serialise), seconds for Tick,
                   // for Get non-zero when the caller keeps the object
};

struct Config {
  long lifetime;
  unsigned threshold;
  long backingLifetime;  // of a MemStorage behind the cache
  unsigned backingThreshold;
};

long saturatingAdd(long base, long seconds) {
  long sum;
  if (__builtin_add_overflow(base, seconds, &sum)) return seconds > 0 ? LONG_MAX : LONG_MIN;
  return sum;
}

// What a model expects a read to return: nothing, one known object, or a new
// object (serial 0) rebuilt with the given payload.
struct Expected {
  uint64_t serial;
  uint32_t payload;
};

struct Record {
  long expiry;
  uint64_t serial;
  uint32_t payload;
};

// The expiry rules shared by MemStorage and the cache: a record expires when
// the clock is strictly past time-of-storing + lifetime; a sweep runs only
// when more than lifetime seconds have passed since the last one that ran
// and the table holds more than threshold records.
struct ExpiringTable {
  long lifetime;
  unsigned threshold;
  long lastCleanup;
  std::map<std::string, Record> records;

  ExpiringTable(long lifetimeArg, unsigned thresholdArg, long now)
      : lifetime(lifetimeArg), threshold(thresholdArg), lastCleanup(now) {}

  void put(const std::string& key, uint64_t serial, uint32_t payload, long now) {
    records[key] = Record{saturatingAdd(now, lifetime), serial, payload};
  }
  void cleanup(long now) {
    if (now <= saturatingAdd(lastCleanup, lifetime)) return;
    if (records.size() <= threshold) return;
    for (auto it = records.begin(); it != records.end();) {
      it = now > it->second.expiry ? records.erase(it) : std::next(it);
    }
    lastCleanup = now;
  }
  void addSerials(std::set<uint64_t>& serials) const {
    for (const auto& entry : records) serials.insert(entry.second.serial);
  }
};

// MemStorage: every record lives the store's lifetime; get drops what it
// finds expired; isInStorage and the count see expired records until then.
struct MemModel : ExpiringTable {
  using ExpiringTable::ExpiringTable;
  std::optional<Expected> get(const std::string& key, long now) {
    auto it = records.find(key);
    if (it == records.end()) return std::nullopt;
    if (now > it->second.expiry) {
      records.erase(it);
      return std::nullopt;
    }
    return Expected{it->second.serial, it->second.payload};
  }
  bool set(const std::string& key, uint64_t serial, uint32_t payload, long now) {
    put(key, serial, payload, now);
    return true;
  }
  void setNull(long) {}
  bool del(const std::string& key) {
    records.erase(key);
    return true;
  }
  bool delAll() {
    records.clear();
    return true;
  }
  bool isInStorage(const std::string& key) const { return records.count(key) != 0; }
  unsigned count() const { return static_cast<unsigned>(records.size()); }
};

// A folder behind an object adapter: records never expire, every read
// rebuilds a new object, and a write fails for a key that is no plain file
// name here or for an object that cannot make its image.
struct DiskModel {
  std::map<std::string, uint32_t> files;
  std::optional<Expected> get(const std::string& key, long) const {
    auto it = files.find(key);
    if (it == files.end()) return std::nullopt;
    return Expected{0, it->second};
  }
  bool set(const std::string& key, uint64_t, uint32_t payload, long) {
    if (!FileSystemStorage::isPlainKey(key) || payload == 0) return false;
    files[key] = payload;
    return true;
  }
  bool del(const std::string& key) { return files.erase(key) != 0; }
  bool delAll() {
    files.clear();
    return true;
  }
  bool isInStorage(const std::string& key) const { return files.count(key) != 0; }
  unsigned count() const { return 0; }
};

// CacheStorage over any backing model: get and set sweep first; a fresh
// record answers get without the backing store; a stale or missing one is
// read through and, when the backing store has the object, cached anew; set
// writes through and caches only what the backing store accepted.
template <typename Backing>
struct CacheModel : ExpiringTable {
  Backing backing;
  CacheModel(long lifetimeArg, unsigned thresholdArg, long now, Backing backingArg)
      : ExpiringTable(lifetimeArg, thresholdArg, now), backing(std::move(backingArg)) {}

  std::optional<Expected> get(const std::string& key, long now) {
    cleanup(now);
    auto it = records.find(key);
    if (it != records.end() && !(now > it->second.expiry)) {
      return Expected{it->second.serial, it->second.payload};
    }
    std::optional<Expected> result = backing.get(key, now);
    if (result) put(key, result->serial, result->payload, now);
    return result;
  }
  // A read-through of a folder makes a new object: the cache then holds that.
  void adopt(const std::string& key, uint64_t serial) { records[key].serial = serial; }
  // The sweep runs before the null object is refused.
  void setNull(long now) { cleanup(now); }
  bool set(const std::string& key, uint64_t serial, uint32_t payload, long now) {
    cleanup(now);
    if (!backing.set(key, serial, payload, now)) return false;
    put(key, serial, payload, now);
    return true;
  }
  bool del(const std::string& key) {
    records.erase(key);
    return backing.del(key);
  }
  bool delAll() {
    records.clear();
    return backing.delAll();
  }
  bool isInStorage(const std::string& key) const {
    return records.count(key) != 0 || backing.isInStorage(key);
  }
  unsigned count() const { return backing.count(); }
};

std::string describe(const Ptr& ptr) {
  if (!ptr) return "null";
  const Item* item = Item::of(ptr);
  return "#" + std::to_string(item->serial()) + " payload " + std::to_string(item->payload());
}

std::string describe(const std::optional<Expected>& expected) {
  if (!expected) return "null";
  return (expected->serial == 0 ? std::string("a new object")
                                : "#" + std::to_string(expected->serial)) +
         " payload " + std::to_string(expected->payload);
}

// One store under test with its model. Step() applies a step to both and
// returns what differs ("" when nothing does).
class Target {
 public:
  virtual ~Target() = default;
  virtual const std::vector<std::string>& keys() const = 0;
  virtual std::string step(const Step& s) = 0;

 protected:
  // "" when exactly the objects that the stores (by the model) and the
  // caller hold are alive.
  std::string liveObjects(std::set<uint64_t> held) const {
    for (const Ptr& object : m_kept) held.insert(Item::of(object)->serial());
    if (Item::live() == static_cast<long>(held.size())) return "";
    return "live objects " + std::to_string(Item::live()) + ", the stores and the caller hold " +
           std::to_string(held.size());
  }
  std::vector<Ptr> m_kept;  // objects the caller goes on holding
};

// Compares the results that every target shares.
template <typename Store, typename Model>
std::string commonStep(Store& store, Model& model, const std::vector<std::string>& keys,
                       const Step& s, const std::function<void()>& backingCleanup,
                       const std::function<void(const std::string&, uint64_t)>& adopt,
                       std::vector<Ptr>& kept) {
  const std::string& key = keys[s.key % keys.size()];
  const long now = static_cast<long>(FakeClock::now());
  std::ostringstream diff;
  switch (s.kind) {
    case Kind::Set: {
      Ptr item = Item::make(key, s.value);
      const bool expected = model.set(key, Item::of(item)->serial(), s.value, now);
      const bool got = store.set(item, s.value % 7);
      if (got != expected) diff << "set returned " << got << ", expected " << expected;
      break;
    }
    case Kind::SetNull:
      model.setNull(now);
      if (store.set(Ptr(), 0)) diff << "set of a null object returned true";
      break;
    case Kind::Get: {
      const uint64_t madeBefore = Item::made();
      const std::optional<Expected> expected = model.get(key, now);
      const Ptr got = store.get(key, nullptr);
      const bool same =
          expected ? got && Item::of(got)->payload() == expected->payload &&
                         (expected->serial != 0 ? Item::of(got)->serial() == expected->serial
                                                : Item::of(got)->serial() > madeBefore)
                   : !got;
      if (!same) {
        diff << "get returned " << describe(got) << ", expected " << describe(expected);
      } else {
        if (expected && expected->serial == 0) adopt(key, Item::of(got)->serial());
        if (got && s.value != 0) kept.push_back(got);
      }
      break;
    }
    case Kind::Del: {
      const bool expected = model.del(key);
      if (store.del(key) != expected) diff << "del did not return " << expected;
      break;
    }
    case Kind::DelAll: {
      const bool expected = model.delAll();
      if (store.delAll() != expected) diff << "delAll did not return " << expected;
      break;
    }
    case Kind::Cleanup:
      store.cleanup();
      model.cleanup(now);
      break;
    case Kind::BackingCleanup:
      backingCleanup();
      break;
    case Kind::Iterate:
      break;  // the targets that iterate handle it
    case Kind::Release:
      if (!kept.empty()) kept.erase(kept.begin() + static_cast<long>(s.key % kept.size()));
      break;
    case Kind::Tick:
      FakeClock::advance(static_cast<long>(s.value));
      break;
  }
  if (!diff.str().empty()) return diff.str();

  // After every step: the count and every key's presence.
  if (store.getNumElements() != model.count()) {
    diff << "getNumElements " << store.getNumElements() << ", expected " << model.count() << "; ";
  }
  for (const std::string& each : keys) {
    if (store.isInStorage(each) != model.isInStorage(each)) {
      diff << "isInStorage('" << each << "') is " << !model.isInStorage(each) << "; ";
    }
  }
  return diff.str();
}

class MemTarget : public Target {
 public:
  explicit MemTarget(const Config& c)
      : m_store(c.lifetime, c.threshold), m_model(c.lifetime, c.threshold, kStart) {}
  const std::vector<std::string>& keys() const override { return m_keys; }
  std::string step(const Step& s) override {
    std::string diff = commonStep(
        m_store, m_model, m_keys, s, [] {}, [](const std::string&, uint64_t) {}, m_kept);
    std::set<uint64_t> held;
    m_model.addSerials(held);
    return diff.empty() ? liveObjects(held) : diff;
  }

 private:
  std::vector<std::string> m_keys{"a", "b", "c", "d", "e", ""};
  MemStorage m_store;
  MemModel m_model;
};

class CachedMemTarget : public Target {
 public:
  explicit CachedMemTarget(const Config& c)
      : m_backing(new MemStorage(c.backingLifetime, c.backingThreshold)),
        m_store(m_backing, c.lifetime, c.threshold),
        m_model(c.lifetime, c.threshold, kStart,
                MemModel(c.backingLifetime, c.backingThreshold, kStart)) {}
  const std::vector<std::string>& keys() const override { return m_keys; }
  std::string step(const Step& s) override {
    std::string diff = commonStep(
        m_store, m_model, m_keys, s,
        [this] {
          m_backing->cleanup();
          m_model.backing.cleanup(static_cast<long>(FakeClock::now()));
        },
        [](const std::string&, uint64_t) {}, m_kept);
    std::set<uint64_t> held;
    m_model.addSerials(held);
    m_model.backing.addSerials(held);
    return diff.empty() ? liveObjects(held) : diff;
  }

 private:
  std::vector<std::string> m_keys{"a", "b", "c", "d", "e", ""};
  MemStorage* m_backing;  // owned by m_store
  CacheStorage m_store;
  CacheModel<MemModel> m_model;
};

class CachedFolderTarget : public Target {
 public:
  explicit CachedFolderTarget(const Config& c)
      : m_store(new ObjectStorage(new FileSystemStorage(m_tmp.path(), 0, false, false, 0),
                                  &Item::fromBytes),
                c.lifetime, c.threshold),
        m_model(c.lifetime, c.threshold, kStart, DiskModel()) {}
  const std::vector<std::string>& keys() const override { return m_keys; }
  std::string step(const Step& s) override {
    std::string diff;
    if (s.kind == Kind::Iterate) {
      diff = iterate();
    } else {
      diff = commonStep(
          m_store, m_model, m_keys, s, [] {},
          [this](const std::string& key, uint64_t serial) { m_model.adopt(key, serial); }, m_kept);
    }
    std::set<uint64_t> held;
    m_model.addSerials(held);
    if (diff.empty()) diff = liveObjects(held);
    // The folder holds exactly the model's files, each its object's image.
    if (diff.empty()) {
      std::vector<std::string> names;
      for (const auto& file : m_model.backing.files) names.push_back(file.first);
      if (testsupport::listFolder(m_tmp.path()) != names) diff = "the folder lists other files";
    }
    if (diff.empty() && s.kind == Kind::Set) {
      const std::string& key = m_keys[s.key % m_keys.size()];
      auto it = m_model.backing.files.find(key);
      if (it != m_model.backing.files.end()) {
        const std::string bytes = testsupport::readFileBytes(m_tmp / key);
        const Ptr onDisk = Item::fromBytes(bytes.data(), static_cast<unsigned>(bytes.size()));
        if (!onDisk || Item::of(onDisk)->payload() != it->second ||
            Item::of(onDisk)->getKey() != key) {
          diff = "the file of '" + key + "' does not hold its object's image";
        }
      }
    }
    return diff;
  }

 private:
  // The iteration bypasses the cache: it yields every file's object once.
  std::string iterate() {
    std::multiset<uint32_t> expected;
    for (const auto& file : m_model.backing.files) expected.insert(file.second);
    std::multiset<uint32_t> got;
    if (!m_store.startGetAll()) return "startGetAll failed";
    while (Ptr item = m_store.getNext()) got.insert(Item::of(item)->payload());
    m_store.endGetAll();
    return got == expected ? "" : "the iteration yielded other objects";
  }

  testsupport::TempFolder m_tmp;
  std::vector<std::string> m_keys{"k0", "k1", "k2", "k3", "", "no/such"};
  CacheStorage m_store;
  CacheModel<DiskModel> m_model;
};

using Factory = std::function<std::unique_ptr<Target>(const Config&)>;

Config randomConfig(Random& random) {
  static const long lifetimes[] = {-1, 0, 1, 2, 5, 30, LONG_MAX};
  static const unsigned thresholds[] = {0, 1, 2, 4, 100};
  return Config{lifetimes[random.below(7)], thresholds[random.below(5)], lifetimes[random.below(7)],
                thresholds[random.below(5)]};
}

Step randomStep(Random& random, bool iterates) {
  const unsigned roll = random.below(100);
  Step s{Kind::Get, random.below(6), 0};
  if (roll < 25) {
    s.kind = Kind::Set;
    s.value = random.chance(10) ? 0 : 1 + random.below(1000);
  } else if (roll < 27) {
    s.kind = Kind::SetNull;
  } else if (roll < 57) {
    s.kind = Kind::Get;
    s.value = random.chance(20) ? 1 : 0;
  } else if (roll < 65) {
    s.kind = Kind::Del;
  } else if (roll < 67) {
    s.kind = Kind::DelAll;
  } else if (roll < 74) {
    s.kind = Kind::Cleanup;
  } else if (roll < 78) {
    s.kind = Kind::BackingCleanup;
  } else if (roll < 80) {
    s.kind = iterates ? Kind::Iterate : Kind::Get;
  } else if (roll < 83) {
    s.kind = Kind::Release;
  } else {
    s.kind = Kind::Tick;
    const unsigned size = random.below(10);
    s.value = size < 3 ? 0 : size < 7 ? 1 : 2 + random.below(60);
  }
  return s;
}

std::string show(const Step& s, const std::vector<std::string>& keys) {
  const std::string key = "'" + keys[s.key % keys.size()] + "'";
  switch (s.kind) {
    case Kind::Set:
      return "set " + key + " payload " + std::to_string(s.value);
    case Kind::SetNull:
      return "set null";
    case Kind::Get:
      return "get " + key + (s.value != 0 ? ", kept by the caller" : "");
    case Kind::Del:
      return "del " + key;
    case Kind::DelAll:
      return "delAll";
    case Kind::Cleanup:
      return "cleanup";
    case Kind::BackingCleanup:
      return "backing cleanup";
    case Kind::Iterate:
      return "iterate";
    case Kind::Release:
      return "the caller drops kept object " + std::to_string(s.key);
    case Kind::Tick:
      return "clock +" + std::to_string(s.value);
  }
  return "?";
}

// Replays steps on a fresh target from the start time: the index of the
// first step that differs from the model (steps.size() when none), and why.
size_t replay(const Factory& make, const Config& config, const std::vector<Step>& steps,
              std::string* why) {
  FakeClock::set(kStart);
  std::unique_ptr<Target> target = make(config);
  for (size_t i = 0; i < steps.size(); ++i) {
    std::string diff = target->step(steps[i]);
    if (!diff.empty()) {
      if (why != nullptr) *why = diff;
      return i;
    }
  }
  return steps.size();
}

// Removes ever smaller runs of steps while the sequence still fails.
std::vector<Step> shrink(const Factory& make, const Config& config, std::vector<Step> steps) {
  unsigned budget = 3000;
  for (size_t chunk = steps.size() / 2; chunk >= 1 && budget > 0; chunk /= 2) {
    for (size_t at = 0; at + chunk <= steps.size() && budget > 0; --budget) {
      std::vector<Step> candidate(steps.begin(), steps.begin() + static_cast<long>(at));
      candidate.insert(candidate.end(), steps.begin() + static_cast<long>(at + chunk), steps.end());
      const size_t failed = replay(make, config, candidate, nullptr);
      if (failed < candidate.size()) {
        candidate.resize(failed + 1);
        steps = candidate;
      } else {
        at += chunk;
      }
    }
  }
  return steps;
}

// Runs random sequences of random length until total steps were checked.
// Returns the number of operations checked.
uint64_t explore(const char* name, uint64_t seed, unsigned total, bool iterates,
                 const Factory& make) {
  Random random(seed);
  uint64_t checked = 0;
  unsigned runs = 0;
  while (checked < total) {
    const Config config = randomConfig(random);
    std::vector<Step> steps(50 + random.below(250));
    for (Step& s : steps) s = randomStep(random, iterates);
    std::string why;
    const size_t failed = replay(make, config, steps, &why);
    checked += failed < steps.size() ? failed + 1 : steps.size();
    ++runs;
    if (failed < steps.size()) {
      steps.resize(failed + 1);
      const std::vector<Step> shortest = shrink(make, config, steps);
      replay(make, config, shortest, &why);
      std::ostringstream report;
      report << name << " differs from its model (seed " << seed << ", LOGINSTORAGE_SEED=" << seed
             << " replays it; run " << runs << "): " << why << "\nstore lifetime "
             << config.lifetime << " threshold " << config.threshold << ", backing lifetime "
             << config.backingLifetime << " threshold " << config.backingThreshold
             << "\nshortest failing sequence (" << shortest.size() << " steps):\n";
      const std::vector<std::string> keys = make(config)->keys();
      for (const Step& s : shortest) report << "  " << show(s, keys) << "\n";
      ADD_FAILURE() << report.str();
      break;
    }
  }
  std::cout << "[ figures  ] " << name << ": " << checked << " random operations checked in "
            << runs << " sequences, seed " << seed << std::endl;
  return checked;
}

class ModelTest : public ::testing::Test {
 protected:
  void TearDown() override {
    FakeClock::useRealTime();
    EXPECT_EQ(Item::live(), 0) << "objects outlived every store and caller";
  }
};

TEST_F(ModelTest, MemStorageFollowsItsModel) {
  explore("MemStorage", reliability::seed(20240611), reliability::scaled(3000000), false,
          [](const Config& c) { return std::unique_ptr<Target>(new MemTarget(c)); });
}

TEST_F(ModelTest, CacheOverMemStorageFollowsItsModel) {
  explore("CacheStorage over MemStorage", reliability::seed(20240612), reliability::scaled(3000000),
          false, [](const Config& c) { return std::unique_ptr<Target>(new CachedMemTarget(c)); });
}

TEST_F(ModelTest, CacheOverFolderFollowsItsModel) {
  explore("CacheStorage over ObjectStorage over FileSystemStorage", reliability::seed(20240613),
          reliability::scaled(30000), true,
          [](const Config& c) { return std::unique_ptr<Target>(new CachedFolderTarget(c)); });
}

}  // namespace
