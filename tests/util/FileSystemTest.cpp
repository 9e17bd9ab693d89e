// The folder helpers, on real folders.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/FileSystem.h"
#include "support/TempFolder.h"

using testsupport::TempFolder;
using testsupport::pathExists;
using testsupport::writeFileBytes;

namespace {

mode_t permissions(const std::string& path) {
  struct stat info;
  EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

const std::string kNul("\0", 1);

TEST(FolderHelpersTest, DirCreateMakesMissingParentsOwnerOnly) {
  TempFolder tmp;
  EXPECT_NE(velDirCreate(tmp / "a/b/c/"), 0);
  EXPECT_NE(velIsDir(tmp / "a/b/c"), 0);
  EXPECT_EQ(permissions(tmp / "a"), 0700u);
  EXPECT_EQ(permissions(tmp / "a/b/c"), 0700u);
  EXPECT_NE(velDirCreate(tmp / "a/b/c"), 0) << "an existing folder counts as created";

  writeFileBytes(tmp / "file", "x");
  EXPECT_EQ(velDirCreate(tmp / "file/sub/"), 0);
  EXPECT_EQ(velDirCreate(tmp / "file"), 0);
}

TEST(FolderHelpersTest, ExistenceTestsTellFilesFromFoldersAndFifos) {
  TempFolder tmp;
  writeFileBytes(tmp / "file", "");
  ASSERT_EQ(::mkfifo((tmp / "fifo").c_str(), 0600), 0);

  EXPECT_NE(velFileExist(tmp / "file"), 0);
  EXPECT_EQ(velFileExist(tmp / "missing"), 0);
  EXPECT_EQ(velFileExist(tmp.path()), 0);
  EXPECT_EQ(velFileExist(tmp / "fifo"), 0);
  EXPECT_NE(velIsDir(tmp.path()), 0);
  EXPECT_NE(velIsDir(tmp.path() + "/"), 0);
  EXPECT_EQ(velIsDir(tmp / "file"), 0);
  EXPECT_EQ(velIsDir(tmp / "missing"), 0);
}

TEST(FolderHelpersTest, FileRemoveRemovesFilesButNeverFolders) {
  TempFolder tmp;
  writeFileBytes(tmp / "file", "x");
  ASSERT_EQ(::mkdir((tmp / "empty").c_str(), 0700), 0);

  EXPECT_EQ(velFileRemove(tmp / "file"), 1);
  EXPECT_FALSE(pathExists(tmp / "file"));
  EXPECT_EQ(velFileRemove(tmp / "file"), 0);
  EXPECT_EQ(velFileRemove(tmp / "empty"), 0);
  EXPECT_EQ(velFileRemove(tmp / "empty/"), 0);
  EXPECT_TRUE(pathExists(tmp / "empty"));
}

TEST(FolderHelpersTest, PathsWithANulByteAreRefusedNotCut) {
  TempFolder tmp;
  writeFileBytes(tmp / "a", "x");
  const std::string cutToA = tmp / ("a" + kNul + "b");

  EXPECT_EQ(velFileExist(cutToA), 0);
  EXPECT_EQ(velFileRemove(cutToA), 0);
  EXPECT_TRUE(pathExists(tmp / "a"));
  EXPECT_EQ(velIsDir(tmp.path() + kNul + "x"), 0);
  EXPECT_EQ(velDirCreate(tmp / ("new" + kNul + "x")), 0);
  EXPECT_FALSE(pathExists(tmp / "new"));
  EXPECT_EQ(FsDirOpen(tmp.path() + kNul), nullptr);
}

TEST(FolderHelpersTest, ListingGivesEveryEntryWithDotEntriesThenEnds) {
  TempFolder tmp;
  writeFileBytes(tmp / ".hidden", "");
  writeFileBytes(tmp / "plain", "");
  ASSERT_EQ(::mkdir((tmp / "sub").c_str(), 0700), 0);

  FsDirHandle listing = FsDirOpen(tmp.path() + "/");
  ASSERT_NE(listing, nullptr);
  std::vector<std::string> names;
  while (const char* name = FsDirRead(listing)) names.emplace_back(name);
  EXPECT_EQ(FsDirRead(listing), nullptr) << "stays exhausted";
  FsDirClose(listing);

  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{".", "..", ".hidden", "plain", "sub"}));
  EXPECT_EQ(FsDirOpen(tmp / "missing"), nullptr);
  EXPECT_EQ(FsDirRead(nullptr), nullptr);
  FsDirClose(nullptr);
}

}  // namespace
