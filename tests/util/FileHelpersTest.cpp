// What the folder store cannot show of the file helpers: how a record is
// replaced (with and without durability), and that a reader in
// another process, or a writer killed at any instant, never meets a mixture.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "LoginStorage/platform/Durability.h"
#include "util/FileSystem.h"
#include "util/WholeFile.h"
#include "LoginStorage/storage/Exception.h"
#include "support/TempFolder.h"

using testsupport::listFolder;
using testsupport::readFileBytes;
using testsupport::TempFolder;
using Lines = std::vector<std::string>;

namespace {

// false: plain writes; true: durable writes, with their flushes.
class WriteFileTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { VelLogin::setDurableWrites(GetParam()); }
  void TearDown() override { VelLogin::setDurableWrites(false); }
  mode_t mode(const std::string& name) const {
    struct stat info;
    EXPECT_EQ(::stat((tmp / name).c_str(), &info), 0) << name;
    return info.st_mode & 07777;
  }
  TempFolder tmp;
};

INSTANTIATE_TEST_SUITE_P(Durability, WriteFileTest, ::testing::Bool());

TEST_P(WriteFileTest, ReplacesWithAnOwnerOnlyFileAndLeavesNoTemporaryFile) {
  const std::string bytes("\0\x01\xff rec\0", 8);
  VelLogin::writeFile(tmp / "rec", std::string(5000, 'o'));
  VelLogin::writeFile(tmp / "rec", bytes.data(), bytes.size());
  EXPECT_EQ(readFileBytes(tmp / "rec"), bytes);
  EXPECT_EQ(VelLogin::readFile(tmp / "rec"), bytes);
  EXPECT_EQ(mode("rec"), 0600u);

  ASSERT_EQ(::mkdir((tmp / "sub").c_str(), 0700), 0);
  for (const std::string& path :
       {tmp / "sub", tmp.path() + "/", tmp / "no/rec", tmp / std::string("rec\0x", 5)}) {
    EXPECT_THROW(VelLogin::writeFile(path, "x"), VelLogin::Exception) << path;
  }
  EXPECT_EQ(listFolder(tmp.path()), (Lines{"rec", "sub"}));
  EXPECT_EQ(readFileBytes(tmp / "rec"), bytes);
}

// A record prepared for a reader in its group, or by another user, must not
// lock that reader out when it is replaced.
TEST_P(WriteFileTest, ReplacingKeepsTheRecordsPermissionBitsAndOwner) {
  VelLogin::writeFile(tmp / "rec", "old");
  for (mode_t prepared : {0640u, 0400u, 0604u}) {
    ASSERT_EQ(::chmod((tmp / "rec").c_str(), prepared | S_ISUID), 0);
    VelLogin::writeFile(tmp / "rec", "new");
    EXPECT_EQ(mode("rec"), prepared) << "no set-id bit is carried over";
  }
  ASSERT_EQ(::symlink("rec", (tmp / "link").c_str()), 0);
  VelLogin::writeFile(tmp / "link", "replaces the link, not its target");
  EXPECT_EQ(mode("link"), 0600u);
  EXPECT_EQ(readFileBytes(tmp / "rec"), "new");

  if (::geteuid() != 0) GTEST_SKIP() << "owners can be given away only as root";
  ASSERT_EQ(::chown((tmp / "rec").c_str(), 4321, 8765), 0);
  VelLogin::writeFile(tmp / "rec", "by root");
  struct stat info;
  ASSERT_EQ(::stat((tmp / "rec").c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, 4321u);
  EXPECT_EQ(info.st_gid, 8765u);
}

// The two-step read must refuse exactly what readFile refuses, and read the
// bytes in place, binary included, up to the size it reported, also for
// files beyond 4 GiB (sparse, so they cost no disk).
TEST(WholeFileReaderTest, ReportsTheSizeReadsInPlaceAndRefusesNonFiles) {
  TempFolder tmp;
  const std::string bytes("\0\x01\xff rec\0", 8);
  VelLogin::writeFile(tmp / "rec", bytes);
  VelLogin::writeFile(tmp / "empty", "");
  size_t got = 99;
  {
    VelLogin::WholeFileReader file(tmp / "rec");
    ASSERT_TRUE(file.ok());
    ASSERT_EQ(file.size(), bytes.size());
    std::string buffer(12, '#');
    EXPECT_TRUE(file.readInto(&buffer[0], &got));
    EXPECT_EQ(got, bytes.size());
    EXPECT_EQ(buffer, bytes + "####");
  }
  VelLogin::WholeFileReader empty(tmp / "empty");
  EXPECT_EQ(empty.size(), 0u);
  char untouched = '#';
  EXPECT_TRUE(empty.readInto(&untouched, &got));
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(untouched, '#');

  const unsigned long long huge = (1ull << 32) + 10;
  ASSERT_TRUE(testsupport::makeSparseFile(tmp / "huge", huge));
  EXPECT_EQ(VelLogin::WholeFileReader(tmp / "huge").size(), huge);

  ASSERT_EQ(::mkdir((tmp / "sub").c_str(), 0700), 0);
  ASSERT_EQ(::mkfifo((tmp / "fifo").c_str(), 0600), 0);
  for (const std::string& path :
       {tmp / "sub", tmp / "fifo", tmp / "missing", tmp / std::string("rec\0x", 5)}) {
    EXPECT_FALSE(VelLogin::WholeFileReader(path).ok()) << path;
    EXPECT_THROW(VelLogin::readFile(path), VelLogin::Exception) << path;
  }
}

TEST(WriteFileProcessesTest, ReadersAndKillsNeverSeeAMixedRecord) {
  TempFolder tmp;
  const std::string path = tmp / "rec";
  const std::string small(100, 's');
  const std::string large(64 * 1024, 'L');
  VelLogin::writeFile(path, small);

  pid_t writer = ::fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    for (unsigned i = 0;; ++i) {
      try {
        VelLogin::writeFile(path, i % 2 == 0 ? large : small);
      } catch (...) {
        ::_exit(1);
      }
    }
  }
  unsigned seen[2] = {0, 0};
  unsigned mixed = 0;
  for (unsigned reads = 0; reads < 200000 && (seen[0] < 50 || seen[1] < 50); ++reads) {
    const std::string content = VelLogin::readFile(path);
    if (content == small || content == large) {
      ++seen[content == large];
    } else {
      ++mixed;
    }
  }
  ::kill(writer, SIGKILL);
  int status = 0;
  ::waitpid(writer, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status)) << "the writer failed on its own";
  EXPECT_EQ(mixed, 0u);
  const std::string last = readFileBytes(path);
  EXPECT_TRUE(last == small || last == large) << "size " << last.size();
  // A kill between naming the new file and the rename may leave that name.
  for (const std::string& name : listFolder(tmp.path())) {
    if (name != "rec") {
      EXPECT_EQ(name.rfind(".lstmp-", 0), 0u) << name;
    }
  }
}

}  // namespace
