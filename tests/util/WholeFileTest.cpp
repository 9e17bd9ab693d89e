// Whole-file read and atomic replace, on real folders and with real
// processes for the concurrent cases.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/Durability.h"
#include "platform/FileSystem.h"
#include "storage/Exception.h"
#include "support/TempFolder.h"

using testsupport::TempFolder;
using testsupport::listFolder;
using testsupport::pathExists;
using testsupport::readFileBytes;
using testsupport::writeFileBytes;

namespace {

std::string allByteValues() {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<char>(i));
  return bytes + std::string("\0\0tail\0", 7);
}

// The location of the Exception that readFile throws for path, or "" when it
// throws none.
std::string readFailureLocation(const std::string& path) {
  try {
    VelLogin::readFile(path);
  } catch (const VelLogin::Exception& e) {
    return e.getLocation();
  }
  return "";
}

bool writeThrows(const std::string& path, const std::string& content) {
  try {
    VelLogin::writeFile(path, content);
  } catch (const VelLogin::Exception&) {
    return true;
  }
  return false;
}

// Runs each test with unnamed temporary files (the usual path) and with the
// named fallback of file systems that have none.
class WholeFileTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { VelLogin::filesystem_testing::forceNamedTemporaryFiles(GetParam()); }
  void TearDown() override {
    VelLogin::filesystem_testing::forceNamedTemporaryFiles(false);
    VelLogin::setDurableWrites(false);
  }
  TempFolder tmp;
};

INSTANTIATE_TEST_SUITE_P(TemporaryFiles, WholeFileTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& param) {
                           return param.param ? "Named" : "Unnamed";
                         });

TEST_P(WholeFileTest, BinaryContentRoundTripsInAnOwnerOnlyFile) {
  const std::string bytes = allByteValues();
  VelLogin::writeFile(tmp / "rec", bytes);
  EXPECT_EQ(readFileBytes(tmp / "rec"), bytes);
  EXPECT_EQ(VelLogin::readFile(tmp / "rec"), bytes);
  struct stat info;
  ASSERT_EQ(::stat((tmp / "rec").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);

  VelLogin::writeFile(tmp / "empty", "");
  EXPECT_TRUE(pathExists(tmp / "empty"));
  EXPECT_EQ(VelLogin::readFile(tmp / "empty"), "");
}

TEST_P(WholeFileTest, ReplacingLeavesOnlyTheNewContentAndNoTemporaryFile) {
  VelLogin::writeFile(tmp / "rec", std::string(5000, 'o'));
  VelLogin::writeFile(tmp / "rec", "new");
  EXPECT_EQ(readFileBytes(tmp / "rec"), "new");
  EXPECT_EQ(listFolder(tmp.path()), (std::vector<std::string>{"rec"}));

  VelLogin::setDurableWrites(true);
  EXPECT_TRUE(VelLogin::durableWrites());
  VelLogin::writeFile(tmp / "rec", "durable");
  EXPECT_EQ(readFileBytes(tmp / "rec"), "durable");
  EXPECT_EQ(listFolder(tmp.path()), (std::vector<std::string>{"rec"}));
}

TEST_P(WholeFileTest, FailedWritesThrowAndLeaveNothingBehind) {
  ASSERT_EQ(::mkdir((tmp / "sub").c_str(), 0700), 0);
  EXPECT_TRUE(writeThrows(tmp / "sub", "x"));
  EXPECT_TRUE(writeThrows(tmp.path() + "/", "x"));
  EXPECT_TRUE(writeThrows(tmp / ".", "x"));
  EXPECT_TRUE(writeThrows(tmp / "missing/rec", "x"));
  EXPECT_TRUE(writeThrows(tmp / std::string("a\0b", 3), "x")) << "never cut at the NUL";
  EXPECT_EQ(listFolder(tmp.path()), (std::vector<std::string>{"sub"}));
  EXPECT_TRUE(listFolder(tmp / "sub").empty());
}

TEST(ReadFileTest, RefusesWhatIsNotARegularFileWithoutBlocking) {
  TempFolder tmp;
  ASSERT_EQ(::mkfifo((tmp / "fifo").c_str(), 0600), 0);
  ASSERT_EQ(::mkdir((tmp / "sub").c_str(), 0700), 0);
  int server = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string socketPath = tmp / "sock";
  ASSERT_LT(socketPath.size(), sizeof address.sun_path) << "test folder path too long";
  std::strcpy(address.sun_path, socketPath.c_str());
  ASSERT_EQ(::bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

  for (const char* name : {"fifo", "sub", "sock", "missing"}) {
    EXPECT_EQ(readFailureLocation(tmp / name), tmp / name) << name;
  }
  EXPECT_EQ(readFailureLocation("/dev/null"), "/dev/null");
  ::close(server);

  writeFileBytes(tmp / "a", "x");
  EXPECT_EQ(readFailureLocation(tmp / std::string("a\0b", 3)), tmp / "a");
}

// A writer process replaces one record over and over with two contents of
// different sizes; this process reads it meanwhile, then kills the writer
// at an arbitrary instant. Every read and the final file must be one whole
// content; the only other entry a kill may leave is a temporary file.
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
  unsigned largeSeen = 0;
  unsigned smallSeen = 0;
  unsigned torn = 0;
  for (unsigned reads = 0; reads < 200000 && (largeSeen < 50 || smallSeen < 50); ++reads) {
    const std::string content = VelLogin::readFile(path);
    if (content == large) {
      ++largeSeen;
    } else if (content == small) {
      ++smallSeen;
    } else {
      ++torn;
    }
  }
  ::kill(writer, SIGKILL);
  int status = 0;
  ::waitpid(writer, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status)) << "the writer failed on its own";

  EXPECT_EQ(torn, 0u);
  EXPECT_GT(largeSeen + smallSeen, 0u);
  const std::string last = readFileBytes(path);
  EXPECT_TRUE(last == small || last == large) << "size " << last.size();
  for (const std::string& name : listFolder(tmp.path())) {
    if (name != "rec") {
      EXPECT_EQ(name.rfind(".lstmp-", 0), 0u) << name;
    }
  }
}

}  // namespace
