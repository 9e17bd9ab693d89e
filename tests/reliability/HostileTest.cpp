// The stores on failing disks and among hostile folder entries and keys:
// every case ends in the result the store's rules imply or a clean false,
// never a hang, a crash, a lost record or a write outside the folder that the
// caller did not ask for. The tests run as root, so they fail writes with
// mechanisms that stop root too: a file-size limit, a removed folder,
// immutable files and folders.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "util/TemporaryFileName.h"
#include "reliability/Reliability.h"
#include "support/Records.h"
#include "support/TempFolder.h"
#include "support/TraceCapture.h"

using reliability::Item;
using testsupport::drain;
using testsupport::listFolder;
using testsupport::readFileBytes;
using testsupport::readRecord;
using testsupport::Records;
using testsupport::TempFolder;
using testsupport::TraceCapture;
using testsupport::writeFileBytes;
using testsupport::writeRecord;
using VelLogin::AbstractObjectStorage;
using VelLogin::CacheStorage;
using VelLogin::FileSystemStorage;
using VelLogin::ObjectStorage;
using VelLogin::temporary_file_name::kPrefix;
using Lines = std::vector<std::string>;

namespace {

// A trace line of the folder store at folder (given without its "/").
std::string folderLine(const char* method, const std::string& folder, const std::string& text) {
  return "[ERROR] FileSystemStorage::" + std::string(method) + ": folder <" + folder +
         "/>: " + text;
}
std::string writeFailure(const std::string& key, size_t size) {
  return "[ERROR] FileSystemStorage::setRaw: VelLogin::writeFile failed to write data with len " +
         std::to_string(size) + " to file: " + key;
}

// The words of text, split at spaces.
Lines words(const std::string& text) {
  std::istringstream in(text);
  return Lines(std::istream_iterator<std::string>(in), std::istream_iterator<std::string>());
}

// Runs its action when the last copy goes; a null one means nothing was done.
struct UndoAction {
  std::function<void()> action;
  ~UndoAction() { action(); }
};
using Undo = std::shared_ptr<UndoAction>;
Undo undo(std::function<void()> action) { return Undo(new UndoAction{std::move(action)}); }

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

// What a table row does to a store's folder before the operation under test,
// undone when the result goes; other is a folder outside that links point
// into. Null when this file system cannot do it.
using Arrange = std::function<Undo(const std::string& folder, const std::string& other)>;

Undo nothing(const std::string&, const std::string&) {
  return undo([] {});
}
Undo freeze(const std::string& path, const std::string&) {
  return setImmutable(path, true) ? undo([path] { setImmutable(path, false); }) : nullptr;
}
Undo records(const std::string& folder, const std::string&) {
  for (const char* key : {"a", ".hidden", "..."}) writeFileBytes(folder + "/" + key, "x");
  return undo([] {});
}
Undo removeFolder(const std::string& folder, const std::string&) {
  ::unlink((folder + "/rec").c_str());
  EXPECT_EQ(::rmdir(folder.c_str()), 0);
  return undo([] {});
}
// Beside the records: a fifo, a socket, a folder with a file, and links to a
// file outside, to the outside folder and to nothing.
Undo entriesOfEveryKind(const std::string& folder, const std::string& other) {
  EXPECT_EQ(::mkfifo((folder + "/fifo").c_str(), 0600), 0);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s/sock", folder.c_str());
  EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(fd);
  EXPECT_EQ(::mkdir((folder + "/sub").c_str(), 0700), 0);
  writeFileBytes(folder + "/sub/inner", "inner");
  writeFileBytes(other + "/target", "outside");
  EXPECT_EQ(::symlink((other + "/target").c_str(), (folder + "/outlink").c_str()), 0);
  EXPECT_EQ(::symlink(other.c_str(), (folder + "/dirlink").c_str()), 0);
  EXPECT_EQ(::symlink((other + "/gone").c_str(), (folder + "/dangling").c_str()), 0);
  return records(folder, other);
}

// Writes that a failing disk refuses leave the old record and no part of
// the new one, each with its line; others go on. The tests run as root, so
// the disk fails by means that stop root too.
TEST(FailingDiskTest, RefusedWritesKeepTheOldRecordAndLeaveNoTrace) {
  const Arrange sizeLimit = [](const std::string&, const std::string&) {
    // SIGXFSZ ignored: an oversized write fails instead of killing.
    const auto handler = ::signal(SIGXFSZ, SIG_IGN);
    rlimit previous;
    ::getrlimit(RLIMIT_FSIZE, &previous);
    const rlimit limit{4096, previous.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    return undo([previous, handler] {
      ::setrlimit(RLIMIT_FSIZE, &previous);
      ::signal(SIGXFSZ, handler);
    });
  };
  const Arrange frozenRecord = [](const std::string& folder, const std::string& other) {
    return freeze(folder + "/rec", other);
  };
  const std::string old(100, 'o');
  const std::string big(10000, 'n');
  struct Row {
    const char* what;
    Arrange arrange;
    const char* refused;   // keys whose write of big fails
    const char* accepted;  // ... and succeeds
    const char* rec;       // what "rec" reads afterwards
  };
  const Row rows[] = {
      {"a file-size limit", sizeLimit, "rec new", "", "old"},
      {"an immutable folder", freeze, "rec new", "", "old"},
      {"an immutable record", frozenRecord, "rec", "new", "old"},
      {"a removed folder", removeFolder, "rec", "", "missing"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    TempFolder tmp;
    FileSystemStorage store(tmp.path(), 0, false, false, 0);
    ASSERT_TRUE(writeRecord(store, "rec", old));
    Lines expected;
    {
      const Undo change = row.arrange(tmp.path(), "");
      if (!change) GTEST_SKIP() << "no immutable flag here: " << std::strerror(errno);
      TraceCapture trace(2);
      for (const std::string& key : words(row.refused)) {
        EXPECT_FALSE(writeRecord(store, key, big)) << key;
        expected.push_back(writeFailure(key, big.size()));
      }
      for (const std::string& key : words(row.accepted)) EXPECT_TRUE(writeRecord(store, key, big));
      EXPECT_EQ(trace.messages(), expected);
    }
    const bool kept = row.rec == std::string("old");
    EXPECT_EQ(readRecord(store, "rec"), kept ? old : row.rec);
    Lines left = words(row.accepted);
    if (kept) left.insert(left.end(), "rec");
    EXPECT_EQ(listFolder(tmp.path()), left);
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

// The object stores over a folder.
struct FolderStack {
  const char* name;
  std::function<AbstractObjectStorage*(AbstractObjectStorage* objects)> wrap;
};
const FolderStack kFolderStacks[] = {
    {"ObjectStorage over FileSystemStorage", [](AbstractObjectStorage* s) { return s; }},
    {"CacheStorage over that", [](AbstractObjectStorage* s) { return new CacheStorage(s, 60, 0); }},
};

std::unique_ptr<AbstractObjectStorage> makeStack(const FolderStack& stack,
                                                 const std::string& path) {
  return std::unique_ptr<AbstractObjectStorage>(stack.wrap(
      new ObjectStorage(new FileSystemStorage(path, 0, false, false, 0), &Item::fromBytes)));
}

TEST_F(HostileInputTest, FolderEntriesOfEveryKindNeitherHangNorLeakWritesOutside) {
  FileSystemStorage store(path, 0, false, false, 0);
  entriesOfEveryKind(path, elsewhere.path());
  // Only what reads as a regular file is a record; a link is followed.
  EXPECT_EQ(drain(store),
            (Records{{"...", "x"}, {".hidden", "x"}, {"a", "x"}, {"outlink", "outside"}}));
  for (const char* key : {"fifo", "sock", "sub", "dangling", "dirlink"}) {
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
       {std::string(256, 'n'), std::string(5000, 'p'), kPrefix + std::string("1-2")}},
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
      for (const FolderStack& stack : kFolderStacks) {
        SCOPED_TRACE(stack.name);
        std::unique_ptr<AbstractObjectStorage> store = makeStack(stack, path);
        EXPECT_EQ(store->set(Item::make(key, 7), 0), stored);
        const auto got = store->get(key, nullptr);
        EXPECT_EQ(got ? got->toString() : "null", stored ? key + "=7" : "null");
        EXPECT_EQ(store->isInStorage(key), stored);
        const Records iterated = drain(*store);
        EXPECT_EQ(iterated.size() + iterated.count(key), listed ? 2u : 0u);
        EXPECT_EQ(listFolder(outer.path()), stored && !listed ? escaped : untouched);
        EXPECT_EQ(store->del(key), stored);
        EXPECT_EQ(listFolder(path), Lines{});
        EXPECT_EQ(listFolder(outer.path()), untouched);
      }
      EXPECT_TRUE(mem.set(Item::make(key, 7), 0));
      const auto kept = mem.get(key, nullptr);
      EXPECT_EQ(kept ? kept->getKey() : "no object", key);
    }
  }
  EXPECT_EQ(mem.getNumElements(), 21u);
  EXPECT_EQ(readFileBytes(outer / "neighbour"), "kept");
}

// delAll() removes every entry it can, links as links, keeps the folder and
// answers true only when nothing was left, with a line per entry and one for
// the outcome; flushing the folder changes nothing of that, and the cache
// passes the folder's answer on.
TEST_F(HostileInputTest, DelAllRemovesWhatItCanAndReportsWhatItCouldNot) {
  const Arrange frozenRecords = [](const std::string& folder, const std::string& other) {
    records(folder, other);
    return freeze(folder, other);
  };
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
      {"an empty folder", nothing, true, "", "", "", success},
      {"records", records, true, "", "... .hidden a", "", success},
      {"entries of every kind", entriesOfEveryKind, false, "sub",
       "... .hidden a dangling dirlink fifo outlink sock", "sub", failure},
      {"an immutable folder", frozenRecords, false, "... .hidden a", "", "... .hidden a", failure},
      {"a removed folder", removeFolder, false, "", "", "", "FsDirOpen failed"},
  };
  for (const Row& row : rows) {
    for (const FolderStack& stack : kFolderStacks) {
      for (const bool durable : {false, true}) {
        SCOPED_TRACE(std::string(row.what) + ", " + stack.name + (durable ? ", durable" : ""));
        TempFolder folder;
        TempFolder other;
        std::unique_ptr<AbstractObjectStorage> store = makeStack(stack, folder.path());
        const Undo change = row.arrange(folder.path(), other.path());
        if (!change) GTEST_SKIP() << "no immutable flag here";
        const Lines outside = listFolder(other.path());
        VelLogin::setDurableWrites(durable);
        TraceCapture trace(2);
        EXPECT_EQ(store->delAll(), row.result);
        VelLogin::setDurableWrites(false);
        Lines expected{folderLine("delAll", folder.path(), row.outcome)};
        for (const std::string& key : words(row.deleted)) {
          expected.push_back(folderLine("del", folder.path(),
                                        "SUCCESS in deleting record with key <" + key + ">"));
        }
        for (const std::string& key : words(row.refused)) {
          expected.push_back(folderLine("del", folder.path(),
                                        "FAILURE in deleting record with key <" + key + ">"));
        }
        Lines lines = trace.messages();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back(), expected.front()) << "the outcome comes last";
        std::sort(lines.begin(), lines.end());
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(lines, expected);
        EXPECT_EQ(listFolder(folder.path()), words(row.left));
        EXPECT_EQ(listFolder(other.path()), outside) << "links are removed as links";
        EXPECT_EQ(outside.empty() ? "outside" : readFileBytes(other / "target"), "outside");
      }
    }
  }
}

}  // namespace
