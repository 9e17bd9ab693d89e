// The loginstorage tool, run as a real process on real folders.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/TempFolder.h"

using testsupport::TempFolder;

namespace {

struct ToolRun {
  int status;
  std::string out;
  std::string err;
};

// Runs the tool with args, feeding input to its standard input.
ToolRun runTool(const std::vector<std::string>& args, const std::string& input = "") {
  TempFolder scratch;
  const std::string inPath = scratch / "in", outPath = scratch / "out", errPath = scratch / "err";
  testsupport::writeFileBytes(inPath, input);
  pid_t child = fork();
  if (child == 0) {
    std::freopen(inPath.c_str(), "rb", stdin);
    std::freopen(outPath.c_str(), "wb", stdout);
    std::freopen(errPath.c_str(), "wb", stderr);
    std::vector<char*> argv{const_cast<char*>(LOGINSTORAGE_TOOL)};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(LOGINSTORAGE_TOOL, argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, testsupport::readFileBytes(outPath),
          testsupport::readFileBytes(errPath)};
}

TEST(LoginStorageToolTest, BinaryRecordRoundTripsThroughPutGetLsRm) {
  TempFolder folder;
  const std::string record("\x00\x01\xff\nbinary\x00tail", 15);
  ASSERT_EQ(runTool({"put", folder.path(), "alice"}, record).status, 0);
  EXPECT_EQ(testsupport::readFileBytes(folder / "alice"), record);

  ToolRun got = runTool({"get", folder.path(), "alice"});
  EXPECT_EQ(got.status, 0);
  EXPECT_EQ(got.out, record);

  ToolRun listed = runTool({"ls", folder.path()});
  EXPECT_EQ(listed.status, 0);
  EXPECT_EQ(listed.out, "        15  alice\n");

  EXPECT_EQ(runTool({"rm", folder.path(), "alice"}).status, 0);
  EXPECT_FALSE(testsupport::pathExists(folder / "alice"));
  EXPECT_EQ(runTool({"ls", folder.path()}).out, "");
}

TEST(LoginStorageToolTest, PutFromAFileAndHexDump) {
  TempFolder folder;
  testsupport::writeFileBytes(folder / "source", "AB\x01");
  ASSERT_EQ(runTool({"put", folder.path() + "/store", "k", folder / "source"}).status, 0);
  ToolRun dump = runTool({"get", "--hex", folder.path() + "/store", "k"});
  EXPECT_EQ(dump.status, 0);
  EXPECT_EQ(dump.out,
            "00000000  41 42 01                                         |AB.|\n");
}

TEST(LoginStorageToolTest, MissingRecordsAndFoldersExitWithOne) {
  TempFolder folder;
  ToolRun missing = runTool({"get", folder.path(), "nobody"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.out, "");
  EXPECT_EQ(missing.err, "loginstorage: no record 'nobody' in " + folder.path() + "\n");

  EXPECT_EQ(runTool({"rm", folder.path(), "nobody"}).status, 1);
  ToolRun noFolder = runTool({"ls", folder / "absent"});
  EXPECT_EQ(noFolder.status, 1);
  EXPECT_FALSE(testsupport::pathExists(folder / "absent"));  // reading never creates it
}

TEST(LoginStorageToolTest, UsageErrorsExitWithTwo) {
  TempFolder folder;
  EXPECT_EQ(runTool({}).status, 2);
  EXPECT_EQ(runTool({"frobnicate"}).status, 2);
  EXPECT_EQ(runTool({"get", folder.path()}).status, 2);
  EXPECT_EQ(runTool({"--trace", "x", "ls", folder.path()}).status, 2);

  ToolRun clear = runTool({"clear", folder.path()});
  EXPECT_EQ(clear.status, 2);
  EXPECT_EQ(clear.err, "loginstorage: clear removes every record: confirm with --yes\n");
  EXPECT_EQ(runTool({"ls", "--help"}).status, 0);
}

TEST(LoginStorageToolTest, KeysThatLeaveTheFolderNeedRawKey) {
  TempFolder folder;
  for (const char* key : {"../outside", ".", "..", "a/b"}) {
    ToolRun refused = runTool({"put", folder.path(), key}, "x");
    EXPECT_EQ(refused.status, 2) << key;
    EXPECT_NE(refused.err.find("--raw-key"), std::string::npos) << key;
  }
  EXPECT_FALSE(testsupport::pathExists(folder.path() + "/../outside"));

  ASSERT_EQ(::mkdir((folder / "sub").c_str(), 0700), 0);
  EXPECT_EQ(runTool({"--raw-key", "put", folder.path(), "sub/inner"}, "x").status, 0);
  EXPECT_EQ(testsupport::readFileBytes(folder / "sub/inner"), "x");
}

TEST(LoginStorageToolTest, ClearRemovesEveryRecord) {
  TempFolder folder;
  for (const char* key : {"a", "b", ".hidden"}) testsupport::writeFileBytes(folder / key, "x");
  EXPECT_EQ(runTool({"clear", "--yes", folder.path()}).status, 0);
  EXPECT_TRUE(testsupport::listFolder(folder.path()).empty());
}

TEST(LoginStorageToolTest, TraceLinesGoToStandardError) {
  TempFolder folder;
  ToolRun traced = runTool({"--trace", "2", "rm", folder.path(), "gone"});
  EXPECT_EQ(traced.status, 1);
  EXPECT_NE(traced.err.find("[ERROR] FileSystemStorage::del: folder <" + folder.path() +
                            "/>: FAILURE in deleting record with key <gone>"),
            std::string::npos)
      << traced.err;
}

TEST(LoginStorageToolTest, VersionReadsTheBlockFromTheLibraryFile) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"version"},
        std::vector<std::string>{"version", LOGINSTORAGE_LIBRARY_FILE}}) {
    ToolRun version = runTool(args);
    EXPECT_EQ(version.status, 0);
    EXPECT_NE(version.out.find("Name:                  LoginStorage\n"), std::string::npos)
        << version.out;
    EXPECT_NE(version.out.find("Build Number:          979000012\n"), std::string::npos);
  }
  TempFolder folder;
  testsupport::writeFileBytes(folder / "plain", "no block here");
  EXPECT_EQ(runTool({"version", folder / "plain"}).status, 1);
}

}  // namespace
