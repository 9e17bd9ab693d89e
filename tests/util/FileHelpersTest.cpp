// What the folder store cannot show of the file helpers: how a record is
// replaced (with and without durability), how temporary names are chosen and
// judged, and how folders are made and flushed.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "LoginStorage/platform/Durability.h"
#include "LoginStorage/storage/Exception.h"
#include "support/TempFolder.h"
#include "util/FileSystem.h"
#include "util/TemporaryFileName.h"
#include "util/WholeFile.h"

using namespace testsupport;
using Lines = std::vector<std::string>;

namespace {

// How body, run in a child process, ended: its result as exit status, or 128
// plus the signal that ended it.
int inChild(const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(body());
  int status = 0;
  if (::waitpid(child, &status, 0) != child) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// false: plain writes; true: durable writes, with their flushes.
class FileHelpersTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    VelLogin::setDurableWrites(GetParam());
    ASSERT_EQ(VelLogin::durableWrites(), GetParam());
  }
  void TearDown() override { VelLogin::setDurableWrites(false); }
  mode_t mode(const std::string& name) const {
    struct stat info;
    EXPECT_EQ(::stat((tmp / name).c_str(), &info), 0) << name;
    return info.st_mode & 07777;
  }
  TempFolder tmp;
};

INSTANTIATE_TEST_SUITE_P(Durability, FileHelpersTest, ::testing::Bool());

// A record is replaced by an owner-only file and no temporary file is left,
// failed writes included. A record prepared for a reader in its group, or by
// another user, must not lock that reader out when it is replaced.
TEST_P(FileHelpersTest, ReplacesTheRecordKeepingItsPermissionBitsAndOwner) {
  const std::string bytes("\0\x01\xff rec\0", 8);
  VelLogin::writeFile(tmp / "rec", std::string(5000, 'o'));
  VelLogin::writeFile(tmp / "rec", bytes.data(), bytes.size());
  EXPECT_EQ(readFileBytes(tmp / "rec"), bytes);
  EXPECT_EQ(mode("rec"), 0600u);
  ASSERT_EQ(::mkdir((tmp / "sub").c_str(), 0700), 0);
  for (const std::string& path :
       {tmp / "sub", tmp.path() + "/", tmp / "no/rec", tmp / std::string("rec\0x", 5)}) {
    EXPECT_THROW(VelLogin::writeFile(path, "x"), VelLogin::Exception) << path;
  }
  EXPECT_EQ(listFolder(tmp.path()), (Lines{"rec", "sub"}));
  EXPECT_EQ(readFileBytes(tmp / "rec"), bytes);

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
  EXPECT_EQ(std::make_pair(info.st_uid, info.st_gid), std::make_pair(4321u, 8765u));
}

// The reader must refuse what is not a regular file, and read the
// bytes in place, binary included, up to the size it reported (sizes beyond
// 4 GiB are the folder suite's).
TEST_P(FileHelpersTest, WholeFileReaderReportsTheSizeReadsInPlaceAndRefusesNonFiles) {
  for (const std::string& bytes : {std::string("\0\x01\xff rec\0", 8), std::string()}) {
    VelLogin::writeFile(tmp / "rec", bytes);
    VelLogin::WholeFileReader file(tmp / "rec");
    ASSERT_TRUE(file.ok());
    ASSERT_EQ(file.size(), bytes.size());
    std::string buffer(bytes.size() + 4, '#');
    size_t got = 99;
    EXPECT_TRUE(file.readInto(&buffer[0], &got));
    EXPECT_EQ(got, bytes.size());
    EXPECT_EQ(buffer, bytes + "####");
  }
  ASSERT_EQ(::mkdir((tmp / "sub").c_str(), 0700), 0);
  ASSERT_EQ(::mkfifo((tmp / "fifo").c_str(), 0600), 0);
  for (const std::string& path :
       {tmp / "sub", tmp / "fifo", tmp / "missing", tmp / std::string("rec\0x", 5)}) {
    EXPECT_FALSE(VelLogin::WholeFileReader(path).ok()) << path;
  }
  const VelLogin::WholeFileReader missing(tmp / "missing");
  EXPECT_EQ(missing.failure() + std::to_string(missing.error()),
            "cannot open file" + std::to_string(ENOENT));
}

// A name left by an earlier process of the same id is stepped over, and its
// file left alone (this process has made fewer writes than that). A writer
// that exists but belongs to another user (pid 1, asked by nobody) is alive:
// its file is not abandoned.
TEST_P(FileHelpersTest, TakenTemporaryNamesAreSteppedOverAndOtherUsersWritersAlive) {
  for (unsigned n = 0; n < 100; ++n)
    writeFileBytes(tmp / VelLogin::temporary_file_name::make(::getpid(), n), "");
  VelLogin::writeFile(tmp / "rec", "x");
  EXPECT_EQ(readFileBytes(tmp / "rec"), "x");
  EXPECT_EQ(listFolder(tmp.path()).size(), 101u);
  const std::string writer = VelLogin::temporary_file_name::make(1, 1);
  EXPECT_EQ(inChild([&] {
              if (::geteuid() == 0 && ::setuid(65534) != 0) return 2;
              return VelLogin::temporary_file_name::isAbandoned(writer.c_str()) ? 1 : 0;
            }),
            0);
}

TEST_P(FileHelpersTest, FoldersAreMadeTestedAndFlushed) {
  for (const char* path : {"a/b/", "c//d", "e"}) {
    EXPECT_EQ(velDirCreate(tmp / path), 1) << path;
    EXPECT_EQ(velIsDir(tmp / path), 1) << path;
  }
  writeFileBytes(tmp / "file", "x");
  EXPECT_EQ(velIsDir(tmp / "file"), 0);
  EXPECT_EQ(velIsDir(tmp / std::string("e\0x", 3)), 0);
  EXPECT_EQ(velDirCreate("") + velDirCreate(tmp / std::string("f\0x", 3)), 0);
  EXPECT_FALSE(testsupport::pathExists(tmp / "f"));  // nor made by a path cut at the NUL
  EXPECT_TRUE(FsDirSync(tmp / "e"));
  EXPECT_FALSE(FsDirSync(tmp / std::string("e\0x", 3)));

  // A folder at the top of the tree is flushed into "/" itself.
  if (::geteuid() != 0) GTEST_SKIP() << "chroot needs root";
  EXPECT_EQ(
      inChild([&] { return ::chroot(tmp.path().c_str()) == 0 && velDirCreate("/x") == 1 ? 0 : 1; }),
      0);
  EXPECT_EQ(velIsDir(tmp / "x"), 1);
}

}  // namespace
