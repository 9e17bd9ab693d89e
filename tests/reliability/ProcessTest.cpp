// Records under real processes: a writer killed with SIGKILL at random
// moments, and several processes writing, reading and iterating one folder
// at once. Every record read must be exactly one image its writers wrote
// (images carry their key, generation and length and are checked whole),
// never a torn, empty or foreign one, and the store's temporary files must
// never be listed as records.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "reliability/Reliability.h"
#include "platform/TemporaryFileName.h"
#include "support/Records.h"
#include "support/TempFolder.h"

using reliability::image;
using reliability::isImage;
using reliability::Random;
using testsupport::drain;
using testsupport::listFolder;
using testsupport::readRecord;
using testsupport::writeRecord;
using testsupport::TempFolder;
using VelLogin::FileSystemStorage;

namespace {

const std::vector<std::string> kKeys{"k0", "k1", "k2", "k3", "k4", "k5", "k6", "k7"};

bool write(FileSystemStorage& store, const std::string& key, uint32_t gen) {
  return writeRecord(store, key, image(key, gen));
}

bool isTemporary(const std::string& name) {
  unsigned long long pid = 0;
  return VelLogin::temporary_file_name::parse(name.c_str(), &pid);
}

TEST(CrashTest, KilledWriterLeavesEachRecordOldOrNewAndNoTemporaryRecord) {
  const uint64_t seed = reliability::seed(77001);
  SCOPED_TRACE("seed " + std::to_string(seed) + " (LOGINSTORAGE_SEED replays it)");
  Random random(seed);
  TempFolder tmp;
  std::map<std::string, uint32_t> last;
  {
    FileSystemStorage store(tmp.path(), 0, false, false, 0);
    for (const std::string& key : kKeys) ASSERT_TRUE(write(store, key, last[key] = 1));
  }
  const unsigned kills = reliability::scaled(400);
  unsigned advanced = 0;
  unsigned leftovers = 0;
  for (unsigned kill = 0; kill < kills; ++kill) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      // Generations grow from one child to the next, so that a record that
      // went back to an older image would show.
      FileSystemStorage store(tmp.path(), 0, false, false, 0);
      uint32_t gen = (kill + 2) << 16;
      for (unsigned i = 0;; ++i) {
        if (!write(store, kKeys[i % kKeys.size()], ++gen)) ::_exit(3);
        if (i == 0 && ::write(ready[1], "r", 1) != 1) ::_exit(4);
      }
    }
    ::close(ready[1]);
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1) << "the writer did not start";
    ::close(ready[0]);
    ::usleep(random.below(4000));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped on its own, status " << status;

    FileSystemStorage store(tmp.path(), 0, false, false, 0);
    for (const std::string& key : kKeys) {
      const std::string bytes = readRecord(store, key);
      uint32_t gen = 0;
      ASSERT_TRUE(isImage(key, bytes, &gen))
          << "kill " << kill << ": '" << key << "' holds " << bytes.size() << " other bytes";
      ASSERT_GE(gen, last[key]) << "kill " << kill << ": '" << key << "' went back";
      advanced += gen > last[key];
      last[key] = gen;
    }
    for (const std::string& name : listFolder(tmp.path())) leftovers += isTemporary(name);
    std::set<std::string> listed;
    for (const auto& record : drain(store)) listed.insert(record.first);
    ASSERT_EQ(listed, std::set<std::string>(kKeys.begin(), kKeys.end())) << "kill " << kill;
    // The iteration took away what the killed writer left.
    const std::vector<std::string> names = listFolder(tmp.path());
    ASSERT_EQ(std::count_if(names.begin(), names.end(), isTemporary), 0) << "kill " << kill;
  }
  EXPECT_GT(advanced, kills / 2) << "the kills came before most writes";
  FileSystemStorage store(tmp.path(), 0, false, false, 0);
  EXPECT_TRUE(store.delAll());
  EXPECT_EQ(listFolder(tmp.path()), std::vector<std::string>{});
  std::cout << "[ figures  ] " << kills << " kills survived, " << advanced
            << " record replacements seen, " << leftovers
            << " temporary files of killed writers removed, seed " << seed << std::endl;
}

// Counts what one reader process checked, sent back through a pipe.
struct ReaderCounts {
  uint64_t reads = 0;
  uint64_t iterated = 0;
  uint64_t bad = 0;
  char firstBad[200] = {0};
};

// Reads random records and iterates the folder until the parent closes
// stop; every record read must be one of the writers' images.
ReaderCounts readUntilStopped(const std::string& folder, int stop, uint64_t seed) {
  ReaderCounts counts;
  FileSystemStorage store(folder, 0, false, false, 0);
  Random random(seed);
  auto bad = [&counts](const std::string& what) {
    if (counts.bad++ == 0) what.copy(counts.firstBad, sizeof counts.firstBad - 1);
  };
  for (unsigned round = 0;; ++round) {
    if (round % 64 == 0) {
      char byte;
      if (::read(stop, &byte, 1) == 0) break;  // closed: the writers are done
    }
    if (round % 16 == 15) {
      for (const auto& record : drain(store)) {
        ++counts.iterated;
        if (!isImage(record.first, record.second, nullptr)) {
          bad("iteration gave '" + record.first + "' with " + std::to_string(record.second.size()) +
              " other bytes");
        }
      }
    } else {
      const std::string& key = kKeys[random.below(static_cast<unsigned>(kKeys.size()))];
      ++counts.reads;
      const std::string bytes = readRecord(store, key);
      if (!isImage(key, bytes, nullptr)) {
        bad("'" + key + "' read as " + std::to_string(bytes.size()) + " other bytes");
      }
    }
  }
  return counts;
}

TEST(ConcurrencyTest, ReadersAndIterationsAmongWritersSeeOnlyWholeRecords) {
  const uint64_t seed = reliability::seed(77002);
  SCOPED_TRACE("seed " + std::to_string(seed) + " (LOGINSTORAGE_SEED replays it)");
  TempFolder tmp;
  {
    FileSystemStorage store(tmp.path(), 0, false, false, 0);
    for (const std::string& key : kKeys) ASSERT_TRUE(write(store, key, 1));
  }
  constexpr unsigned kWriters = 2;
  constexpr unsigned kReaders = 2;
  const unsigned writes = reliability::scaled(2000);
  // Writers also stop after this long: a file system slowed by earlier mass
  // deletes (ext4 can be for minutes) must not push the test past its limit.
  const auto writeDeadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);

  int stop[2];
  int results[2];
  ASSERT_EQ(::pipe(stop), 0);
  ASSERT_EQ(::pipe(results), 0);
  ASSERT_EQ(::fcntl(stop[0], F_SETFL, O_NONBLOCK), 0);
  std::vector<pid_t> readers;
  for (unsigned r = 0; r < kReaders; ++r) {
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::close(stop[1]);
      const ReaderCounts counts = readUntilStopped(tmp.path(), stop[0], seed + r);
      ::_exit(::write(results[1], &counts, sizeof counts) == sizeof counts ? 0 : 2);
    }
    readers.push_back(pid);
  }
  std::vector<pid_t> writers;
  for (unsigned w = 0; w < kWriters; ++w) {
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      FileSystemStorage store(tmp.path(), 0, false, false, 0);
      Random random(seed + 100 + w);
      for (unsigned i = 0; i < writes && std::chrono::steady_clock::now() < writeDeadline; ++i) {
        const std::string& key = kKeys[random.below(static_cast<unsigned>(kKeys.size()))];
        if (!write(store, key, 2 + w + kWriters * i)) ::_exit(3);
      }
      ::_exit(0);
    }
    writers.push_back(pid);
  }
  for (pid_t pid : writers) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "writer status " << status;
  }
  ::close(stop[1]);
  ::close(stop[0]);
  ReaderCounts total;
  for (pid_t pid : readers) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "reader status " << status;
    ReaderCounts counts;
    ASSERT_EQ(::read(results[0], &counts, sizeof counts), static_cast<ssize_t>(sizeof counts));
    EXPECT_EQ(counts.bad, 0u) << "first: " << counts.firstBad;
    total.reads += counts.reads;
    total.iterated += counts.iterated;
  }
  ::close(results[0]);
  ::close(results[1]);
  EXPECT_GT(total.reads, 0u);
  std::cout << "[ figures  ] " << total.reads << " concurrent reads and " << total.iterated
            << " iterated records checked among at most " << kWriters * writes << " writes, seed "
            << seed
            << std::endl;
}

}  // namespace
