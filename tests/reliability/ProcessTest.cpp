// Records under real processes: two writers replace the same records in one
// folder as fast as they can, while this process reads and iterates
// the folder, until both are killed with SIGKILL at a random moment. Every
// record read, during the run or after the kill, must be exactly one image
// a writer wrote (images carry their key, generation and length and are
// checked whole), never a torn, empty, older or foreign one, and the writers'
// temporary files must never be listed as records.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "reliability/Reliability.h"
#include "support/Records.h"
#include "support/TempFolder.h"
#include "util/TemporaryFileName.h"

using reliability::image;
using reliability::isImage;
using testsupport::drain;
using testsupport::listFolder;
using testsupport::readRecord;
using testsupport::writeRecord;
using VelLogin::FileSystemStorage;

namespace {

const std::vector<std::string> kKeys{"k0", "k1", "k2", "k3", "k4", "k5", "k6", "k7"};
constexpr unsigned kWriters = 2;

// The writers of one round, killed and reaped on every way out of it.
struct Writers {
  pid_t pids[kWriters] = {};
  ~Writers() {
    for (pid_t pid : pids) {
      if (pid > 0 && ::kill(pid, SIGKILL) == 0) ::waitpid(pid, nullptr, 0);
    }
  }
};

long temporaryFiles(const std::string& folder) {
  const std::vector<std::string> names = listFolder(folder);
  return std::count_if(names.begin(), names.end(), [](const std::string& name) {
    return VelLogin::temporary_file_name::matches(name.c_str());
  });
}

// "" when bytes are one whole image of key; else what they are.
std::string whole(const std::string& key, const std::string& bytes) {
  return isImage(key, bytes, nullptr) ? ""
                                      : key + " held " + std::to_string(bytes.size()) + " bytes";
}

TEST(ProcessTest, KilledWritersAndConcurrentReadersSeeOnlyWholeRecords) {
  const uint64_t seed = reliability::seed(77001);
  SCOPED_TRACE("seed " + std::to_string(seed) + " (LOGINSTORAGE_SEED replays it)");
  reliability::Random random(seed);
  testsupport::TempFolder tmp;
  FileSystemStorage store(tmp.path(), 0, false, false, 0);
  std::map<std::string, uint32_t> last;
  for (const std::string& key : kKeys)
    ASSERT_TRUE(writeRecord(store, key, image(key, last[key] = 1)));
  const unsigned kills = reliability::scaled(300);
  unsigned advanced = 0;
  long leftovers = 0;
  uint64_t reads = 0;
  for (unsigned kill = 0; kill < kills; ++kill) {
    SCOPED_TRACE("kill " + std::to_string(kill));
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    Writers writers;
    for (unsigned w = 0; w < kWriters; ++w) {
      pid_t& pid = writers.pids[w];
      ASSERT_GE(pid = ::fork(), 0);
      if (pid == 0) {
        // Generations grow from one kill to the next, so that a record that
        // went back to an older image would show.
        FileSystemStorage own(tmp.path(), 0, false, false, 0);
        uint32_t gen = (kill + 2) << 16 | w << 15;
        for (unsigned i = 3 * w;; ++i) {
          const std::string& key = kKeys[i % kKeys.size()];
          if (!writeRecord(own, key, image(key, ++gen))) ::_exit(3);
          if (i == 3 * w && ::write(ready[1], "r", 1) != 1) ::_exit(4);
        }
      }
    }
    ::close(ready[1]);
    char started;  // one byte from each writer
    for (unsigned w = 0; w < kWriters; ++w) ASSERT_EQ(::read(ready[0], &started, 1), 1);
    ::close(ready[0]);
    for (unsigned round = random.below(200); round > 0; --round, ++reads) {
      const std::string& key = kKeys[random.below(static_cast<unsigned>(kKeys.size()))];
      ASSERT_EQ(whole(key, readRecord(store, key)), "");
    }
    if (kill % 8 == 0) {
      for (const auto& record : drain(store)) ASSERT_EQ(whole(record.first, record.second), "");
    }
    for (pid_t& writer : writers.pids) {
      int status = 0;
      ::kill(writer, SIGKILL);
      ASSERT_EQ(::waitpid(writer, &status, 0), writer);
      ASSERT_TRUE(WIFSIGNALED(status)) << "a writer stopped on its own, status " << status;
      writer = 0;
    }
    for (const std::string& key : kKeys) {
      const std::string bytes = readRecord(store, key);
      uint32_t gen = 0;
      ASSERT_TRUE(isImage(key, bytes, &gen)) << whole(key, bytes);
      ASSERT_GE(gen, last[key]) << key << " went back";
      advanced += gen > last[key];
      last[key] = gen;
    }
    leftovers += temporaryFiles(tmp.path());
    ASSERT_EQ(drain(store).size(), kKeys.size());
    ASSERT_EQ(temporaryFiles(tmp.path()), 0) << "the iteration takes away what killed writers left";
  }
  EXPECT_GT(advanced, kills) << "the kills came before most writes";
  std::cout << "[ figures  ] " << kills << " kills of " << kWriters << " writers survived, "
            << advanced << " record replacements seen, " << reads << " concurrent reads, "
            << leftovers << " temporary files of killed writers removed, seed " << seed
            << std::endl;
}

}  // namespace
