// What the folder store cannot show of the file helpers: how a record is
// replaced (both temporary-file paths, durability on), and that a reader in
// another process, or a writer killed at any instant, never meets a mixture.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/Durability.h"
#include "platform/FileSystem.h"
#include "storage/Exception.h"
#include "support/TempFolder.h"

using testsupport::listFolder;
using testsupport::readFileBytes;
using testsupport::TempFolder;
using Lines = std::vector<std::string>;

namespace {

// false: unnamed temporary files; true: the named fallback, durability on.
class WriteFileTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    VelLogin::filesystem_testing::forceNamedTemporaryFiles(GetParam());
    VelLogin::setDurableWrites(GetParam());
  }
  void TearDown() override {
    VelLogin::filesystem_testing::forceNamedTemporaryFiles(false);
    VelLogin::setDurableWrites(false);
  }
  TempFolder tmp;
};

INSTANTIATE_TEST_SUITE_P(Paths, WriteFileTest, ::testing::Bool());

TEST_P(WriteFileTest, ReplacesWithAnOwnerOnlyFileAndLeavesNoTemporaryFile) {
  const std::string bytes("\0\x01\xff rec\0", 8);
  VelLogin::writeFile(tmp / "rec", std::string(5000, 'o'));
  VelLogin::writeFile(tmp / "rec", bytes);
  EXPECT_EQ(readFileBytes(tmp / "rec"), bytes);
  EXPECT_EQ(VelLogin::readFile(tmp / "rec"), bytes);
  struct stat info;
  ASSERT_EQ(::stat((tmp / "rec").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);

  ASSERT_EQ(::mkdir((tmp / "sub").c_str(), 0700), 0);
  for (const std::string& path :
       {tmp / "sub", tmp.path() + "/", tmp / "no/rec", tmp / std::string("rec\0x", 5)}) {
    EXPECT_THROW(VelLogin::writeFile(path, "x"), VelLogin::Exception) << path;
  }
  EXPECT_EQ(listFolder(tmp.path()), (Lines{"rec", "sub"}));
  EXPECT_EQ(readFileBytes(tmp / "rec"), bytes);
}

// The two-step read must refuse exactly what readFile refuses, and read the
// bytes in place, binary included, up to the size it reported.
TEST(WholeFileReaderTest, ReportsTheSizeReadsInPlaceAndRefusesNonFiles) {
  TempFolder tmp;
  const std::string bytes("\0\x01\xff rec\0", 8);
  VelLogin::writeFile(tmp / "rec", bytes);
  VelLogin::writeFile(tmp / "empty", "");
  {
    VelLogin::WholeFileReader file(tmp / "rec");
    ASSERT_EQ(file.size(), bytes.size());
    std::string buffer(12, '#');
    EXPECT_EQ(file.readInto(&buffer[0]), bytes.size());
    EXPECT_EQ(buffer, bytes + "####");
  }
  VelLogin::WholeFileReader empty(tmp / "empty");
  EXPECT_EQ(empty.size(), 0u);
  char untouched = '#';
  EXPECT_EQ(empty.readInto(&untouched), 0u);
  EXPECT_EQ(untouched, '#');

  ASSERT_EQ(::mkdir((tmp / "sub").c_str(), 0700), 0);
  ASSERT_EQ(::mkfifo((tmp / "fifo").c_str(), 0600), 0);
  for (const std::string& path :
       {tmp / "sub", tmp / "fifo", tmp / "missing", tmp / std::string("rec\0x", 5)}) {
    EXPECT_THROW(VelLogin::WholeFileReader{path}, VelLogin::Exception) << path;
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
