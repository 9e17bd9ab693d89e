// The stores on failing disks and among hostile folder entries and keys:
// every case ends in the result the store's rules imply or a clean false,
// never a hang, a crash, a lost record or a write outside the folder that the
// caller did not ask for. The tests run as root, so they fail writes with
// mechanisms that stop root too: a removed folder, immutable files and
// folders.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "support/Records.h"
#include "support/TempFolder.h"
#include "support/TestItem.h"
#include "support/TraceCapture.h"
#include "util/TemporaryFileName.h"

using testsupport::drain;
using testsupport::listFolder;
using testsupport::makeItem;
using testsupport::readFileBytes;
using testsupport::readRecord;
using testsupport::TempFolder;
using testsupport::TraceCapture;
using testsupport::writeFileBytes;
using testsupport::writeRecord;
using VelLogin::AbstractObjectStorage;
using VelLogin::CacheStorage;
using VelLogin::FileSystemStorage;
using VelLogin::ObjectStorage;
using Lines = std::vector<std::string>;

namespace {

// A trace line of the folder store at folder (given without its "/").
std::string folderLine(const char* method, const std::string& folder, const std::string& text) {
  return "[ERROR] FileSystemStorage::" + std::string(method) + ": folder <" + folder +
         "/>: " + text;
}

// The words of text, split at spaces.
Lines words(const std::string& text) {
  std::istringstream in(text);
  return Lines(std::istream_iterator<std::string>(in), std::istream_iterator<std::string>());
}

// Sets or clears the immutable flag of a file or folder: even root can then
// neither write nor rename into, nor remove from, it.
bool setImmutable(const std::string& path, bool on) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  int flags = 0;
  bool done = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
  flags = on ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
  done = done && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
  ::close(fd);
  return done;
}

// Declared after the folder it names: makes it and its record "rec" mutable
// again before the folder goes.
struct Thaw {
  std::string folder;
  ~Thaw() {
    setImmutable(folder, false);
    setImmutable(folder + "/rec", false);
  }
};

// What a table row does to a store's folder before the operation under test;
// other is a folder outside that links point into. False when this file
// system cannot do it.
using Arrange = bool (*)(const std::string& folder, const std::string& other);

bool records(const std::string& folder, const std::string&) {
  for (const char* key : {"a", ".hidden", "..."}) writeFileBytes(folder + "/" + key, "x");
  return true;
}
bool frozenRecords(const std::string& folder, const std::string& other) {
  return records(folder, other) && setImmutable(folder, true);
}
bool removeFolder(const std::string& folder, const std::string&) {
  EXPECT_EQ(::rmdir(folder.c_str()), 0);
  return true;
}
// Beside the records: a fifo, a folder with a file, and links to a
// file outside, to the outside folder and to nothing.
bool entriesOfEveryKind(const std::string& folder, const std::string& other) {
  EXPECT_EQ(::mkfifo((folder + "/fifo").c_str(), 0600), 0);
  EXPECT_EQ(::mkdir((folder + "/sub").c_str(), 0700), 0);
  writeFileBytes(folder + "/sub/inner", "inner");
  writeFileBytes(other + "/target", "outside");
  EXPECT_EQ(::symlink((other + "/target").c_str(), (folder + "/outlink").c_str()), 0);
  EXPECT_EQ(::symlink(other.c_str(), (folder + "/dirlink").c_str()), 0);
  EXPECT_EQ(::symlink((other + "/gone").c_str(), (folder + "/dangling").c_str()), 0);
  return records(folder, other);
}

// A write that the disk refuses, whether at the temporary file (an immutable
// folder) or at the rename over the record (an immutable record), keeps the
// old record, leaves no part of the new one and traces its line; other keys
// go on. Even root cannot write past the immutable flag.
TEST(FailingDiskTest, RefusedWritesKeepTheOldRecordAndLeaveNoTrace) {
  const std::string big(10000, 'n');
  for (const char* frozen : {"", "/rec"}) {
    SCOPED_TRACE(*frozen ? "an immutable record" : "an immutable folder");
    TempFolder tmp;
    const Thaw thaw{tmp.path()};
    FileSystemStorage store(tmp.path(), 0, false, false, 0);
    ASSERT_TRUE(writeRecord(store, "rec", "old"));
    if (!setImmutable(tmp.path() + frozen, true)) GTEST_SKIP() << "no immutable flag here";
    TraceCapture trace(2);
    EXPECT_FALSE(writeRecord(store, "rec", big));
    EXPECT_EQ(writeRecord(store, "new", big), *frozen != 0);
    const std::string line =
        "[ERROR] FileSystemStorage::setRaw: VelLogin::writeFile failed to write data with len "
        "10000 to file: ";
    EXPECT_EQ(trace.messages(),
              (*frozen ? Lines{line + "rec"} : Lines{line + "rec", line + "new"}));
    EXPECT_EQ(readRecord(store, "rec"), "old");
    EXPECT_EQ(listFolder(tmp.path()), words(*frozen ? "new rec" : "rec"));
  }
}

// Each test gets a store folder "store" in outer, the folder that keys with
// ".." reach, and a folder elsewhere that links point into.
class HostileInputTest : public ::testing::Test {
 protected:
  TempFolder outer;
  TempFolder elsewhere;
  const std::string path = outer / "store";
};

// ObjectStorage over FileSystemStorage at path, cached or not.
std::unique_ptr<AbstractObjectStorage> makeStack(bool cached, const std::string& path) {
  AbstractObjectStorage* const objects = new ObjectStorage(
      new FileSystemStorage(path, 0, false, false, 0),
      [](const char* data, unsigned len) { return makeItem(std::string(data, len)); });
  return std::unique_ptr<AbstractObjectStorage>(cached ? new CacheStorage(objects, 60, 0)
                                                       : objects);
}

TEST_F(HostileInputTest, FolderEntriesOfEveryKindNeitherHangNorLeakWritesOutside) {
  FileSystemStorage store(path, 0, false, false, 0);
  entriesOfEveryKind(path, elsewhere.path());
  // Only what reads as a regular file is a record; a link is followed.
  EXPECT_EQ(drain(store), (testsupport::Records{
                              {"...", "x"}, {".hidden", "x"}, {"a", "x"}, {"outlink", "outside"}}));
  for (const char* key : {"fifo", "sub", "dangling", "dirlink"}) {
    EXPECT_EQ(readRecord(store, key), "missing") << key;
    EXPECT_FALSE(store.isInStorage(key)) << key;
  }
  EXPECT_TRUE(store.isInStorage("outlink"));
  // A write replaces the entry itself, never what a link points at.
  EXPECT_TRUE(writeRecord(store, "dangling", "new"));
  EXPECT_TRUE(writeRecord(store, "outlink", "new"));
  EXPECT_FALSE(writeRecord(store, "sub", "new")) << "a folder is not replaced";
  EXPECT_EQ(listFolder(elsewhere.path()), Lines{"target"});
  EXPECT_EQ(readFileBytes(elsewhere / "target"), "outside");
  EXPECT_EQ(readFileBytes(path + "/sub/inner"), "inner");
  // A key with "/" is a path and goes where it leads, through a linked
  // folder too: the hazard that isPlainKey() lets callers refuse.
  EXPECT_TRUE(writeRecord(store, "dirlink/target", "through the link"));
  EXPECT_EQ(readFileBytes(elsewhere / "target"), "through the link");
}

// Keys name files byte for byte in the folder stacks, so an odd key is
// stored, refused with a clean false, or, with "../", reaches exactly the
// path it names (isPlainKey() is how a caller refuses such keys beforehand);
// MemStorage keeps every key as it is.
TEST_F(HostileInputTest, OddKeysGiveTheirOwnResultOrACleanFalse) {
  writeFileBytes(outer / "neighbour", "kept");
  const Lines untouched{"neighbour", "store"};
  const Lines escaped{"escaped", "neighbour", "store"};
  // What the folder stacks do with a key: refuse it (a path, or not plain),
  // refuse it though it is plain (too long for a file name, or the form of a
  // writer's temporary file), store it in the folder, or store it outside.
  enum Fate { kRefused, kRefusedPlain, kStored, kOutside };
  const std::pair<Fate, std::vector<std::string>> groups[] = {
      {kRefused, {"", ".", "..", "/", "//", "no/such", std::string("nul\0b", 6), {'\0'}}},
      {kRefusedPlain,
       {std::string(256, 'n'), std::string(5000, 'p'),
        VelLogin::temporary_file_name::kPrefix + std::string("1-2")}},
      {kStored, {"line\nbreak", "tab\t", " ", "-", "...", "\xff\xfe\x80", std::string(255, 'n')}},
      {kOutside, {"../escaped", "../store/../escaped", "./../escaped"}},
  };
  VelLogin::MemStorage mem(60, 0);
  for (const auto& group : groups) {
    const bool stored = group.first >= kStored;
    const bool listed = group.first == kStored;
    for (const std::string& key : group.second) {
      SCOPED_TRACE("key of " + std::to_string(key.size()) + " bytes: " + key.substr(0, 20));
      EXPECT_EQ(FileSystemStorage::isPlainKey(key), group.first == kRefusedPlain || listed);
      for (const bool cached : {false, true}) {
        SCOPED_TRACE(cached ? "cached" : "uncached");
        std::unique_ptr<AbstractObjectStorage> store = makeStack(cached, path);
        EXPECT_EQ(store->set(makeItem(key), 0), stored);
        const auto got = store->get(key, nullptr);
        EXPECT_EQ(got ? got->getKey() : "null", stored ? key : "null");
        EXPECT_EQ(store->isInStorage(key), stored);
        const testsupport::Records iterated = drain(*store);
        EXPECT_EQ(iterated.size() + iterated.count(key), listed ? 2u : 0u);
        EXPECT_EQ(listFolder(outer.path()), stored && !listed ? escaped : untouched);
        EXPECT_EQ(store->del(key), stored);
        EXPECT_EQ(listFolder(path), Lines{});
        EXPECT_EQ(listFolder(outer.path()), untouched);
      }
      EXPECT_TRUE(mem.set(makeItem(key), 0));
      const auto kept = mem.get(key, nullptr);
      EXPECT_EQ(kept ? kept->getKey() : "no object", key);
    }
  }
  EXPECT_EQ(mem.getNumElements(), 21u);
  EXPECT_EQ(readFileBytes(outer / "neighbour"), "kept");
}

// delAll() removes every entry it can, links as links, keeps the folder and
// answers true only when nothing was left, with a line per entry and one for
// the outcome, and the cache passes the folder's answer on.
TEST_F(HostileInputTest, DelAllRemovesWhatItCanAndReportsWhatItCouldNot) {
  const char* const success = "SUCCESS in deleting all content";
  const char* const failure = "FAILURE in deleting all content";
  struct Row {
    const char* what;
    Arrange arrange;
    bool result;
    const char* left;     // in the folder afterwards
    const char* deleted;  // keys of the del lines that say SUCCESS
    const char* refused;  // ... and FAILURE
    const char* outcome;
  };
  const Row rows[] = {
      {"records", records, true, "", "... .hidden a", "", success},
      {"entries of every kind", entriesOfEveryKind, false, "sub",
       "... .hidden a dangling dirlink fifo outlink", "sub", failure},
      {"an immutable folder", frozenRecords, false, "... .hidden a", "", "... .hidden a", failure},
      {"a removed folder", removeFolder, false, "", "", "", "FsDirOpen failed"},
  };
  for (const Row& row : rows) {
    for (const bool cached : {false, true}) {
      // The cached stack flushes the folder, which changes nothing here.
      SCOPED_TRACE(std::string(row.what) + (cached ? ", cached and durable" : ""));
      TempFolder folder;
      TempFolder other;
      const Thaw thaw{folder.path()};
      std::unique_ptr<AbstractObjectStorage> store = makeStack(cached, folder.path());
      if (!row.arrange(folder.path(), other.path())) GTEST_SKIP() << "no immutable flag here";
      const Lines outside = listFolder(other.path());
      VelLogin::setDurableWrites(cached);
      TraceCapture trace(2);
      EXPECT_EQ(store->delAll(), row.result);
      VelLogin::setDurableWrites(false);
      Lines expected;
      for (const auto& [keys, verdict] :
           {std::pair(row.deleted, "SUCCESS"), std::pair(row.refused, "FAILURE")}) {
        for (const std::string& key : words(keys)) {
          expected.push_back(
              folderLine("del", folder.path(),
                         std::string(verdict) + " in deleting record with key <" + key + ">"));
        }
      }
      std::sort(expected.begin(), expected.end());
      // The outcome comes last.
      expected.push_back(folderLine("delAll", folder.path(), row.outcome));
      Lines lines = trace.messages();
      if (!lines.empty()) std::sort(lines.begin(), lines.end() - 1);
      EXPECT_EQ(lines, expected);
      EXPECT_EQ(listFolder(folder.path()), words(row.left));
      EXPECT_EQ(listFolder(other.path()), outside) << "links are removed as links";
      EXPECT_EQ(outside.empty() ? "outside" : readFileBytes(other / "target"), "outside");
    }
  }
}

}  // namespace
