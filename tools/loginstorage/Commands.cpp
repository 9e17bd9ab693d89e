#include "Commands.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "FolderScan.h"
#include "KeyText.h"
#include "LoginStorage/LoginStorage.h"
#include "LoginStorage/version/VersionInfo.h"
#include "Output.h"
#include "Progress.h"
#include "VersionText.h"
#include "util/TemporaryFileName.h"
#ifdef LOGINSTORAGE_TOOL_HAS_REDIS
#include "LoginStorage/redis/RedisStorage.h"
#endif
#include "RedisLocation.h"

using VelLogin::AbstractStorage;
using VelLogin::FileSystemStorage;

namespace tool {

namespace {

// Owns a record buffer that a store allocated with new[].
struct RecordBuffer {
  char* data = nullptr;
  ~RecordBuffer() { delete[] data; }
};

std::string systemError(int error) { return std::strerror(error); }

std::string quoted(const std::string& key) { return "'" + escapeKey(key) + "'"; }

// The store a command works on: a folder, or the records on a Redis server.
struct Location {
  std::unique_ptr<AbstractStorage> store;
  std::string name;    // for messages: escaped, any password masked
  std::string folder;  // empty for Redis
#ifdef LOGINSTORAGE_TOOL_HAS_REDIS
  VelLogin::RedisStorage* redis = nullptr;
#endif

  bool isFolder() const { return !folder.empty(); }

  // Why the last Redis operation failed; empty for a real miss or for a
  // folder, whose causes the commands find out from the file system.
  std::string lastError() const {
#ifdef LOGINSTORAGE_TOOL_HAS_REDIS
    if (redis != nullptr) return redis->lastError();
#endif
    return std::string();
  }

  std::string recordPath(const std::string& key) const { return folder + "/" + key; }
};

// The cause of a Redis failure, for the rare failure the store gave none.
std::string failureCause(const Location& location) {
  const std::string cause = location.lastError();
  return cause.empty() ? "the store refused (see --trace 2)" : cause;
}

// The nearest folder of path that exists, so that a failed creation can be
// explained by what that folder refuses.
std::string existingAncestor(std::string path) {
  struct stat info;
  while (!path.empty() && ::stat(path.c_str(), &info) != 0) {
    const size_t slash = path.find_last_of('/', path.find_last_not_of('/'));
    path = slash == std::string::npos ? std::string(".") : path.substr(0, slash == 0 ? 1 : slash);
  }
  return path.empty() ? std::string(".") : path;
}

// Opens text as a location. A missing folder is an error unless the command
// writes (the folder store then creates it, as it would for any caller).
// Returns kSuccess, or the status to exit with after printing the error.
int openLocation(const std::string& text, bool createFolder, Location& location) {
  if (RedisLocation::isRedis(text)) {
    RedisLocation parsed;
    std::string error;
    if (!parsed.parse(text, error)) return fail(kUsage, "bad location: " + error);
#ifdef LOGINSTORAGE_TOOL_HAS_REDIS
    location.name = escapeKey(parsed.display());
    location.redis = new VelLogin::RedisStorage(parsed.options());
    location.store.reset(location.redis);
    return kSuccess;
#else
    return fail(kUsage,
                "cannot open " + escapeKey(parsed.display()) + ": this build has no Redis support");
#endif
  }
  location.folder = text.empty() ? std::string(".") : text;
  location.name = escapeKey(location.folder);
  struct stat info;
  if (::stat(location.folder.c_str(), &info) != 0 && errno == ENOENT && createFolder) {
    location.store.reset(new FileSystemStorage(location.folder, 0, false, false, 0));
    if (::stat(location.folder.c_str(), &info) != 0) {
      const std::string parent = existingAncestor(location.folder);
      const int error = ::access(parent.c_str(), W_OK | X_OK) != 0 ? errno : ENOENT;
      return fail(kFailure, "cannot create folder " + location.name + ": " + systemError(error));
    }
  }
  // Reading a record needs only the right to pass through the folder; the
  // listing commands find out themselves whether they may read it.
  const int error = ::stat(location.folder.c_str(), &info) != 0 ? errno
                    : S_ISDIR(info.st_mode)                     ? 0
                                                                : ENOTDIR;
  if (error != 0) {
    return fail(kFailure, "cannot open folder " + location.name + ": " + systemError(error));
  }
  if (!location.store) {
    location.store.reset(new FileSystemStorage(location.folder, 0, false, false, 0));
  }
  return kSuccess;
}

// Any key names a record on a Redis server; in a folder, only the keys that
// name a file directly inside it do, unless --raw-key is given.
bool keyAllowed(const CommandLine& line, const std::string& key, std::string& error) {
  if (line.rawKey || FileSystemStorage::isPlainKey(key)) return true;
  if (RedisLocation::isRedis(line.operands[0]) && !key.empty()) return true;
  error = "key " + quoted(key) +
          " does not name a file directly inside the folder (use --raw-key to allow it)";
  return false;
}

// The folder store keeps its temporary files under names of one form
// (".lstmp-PID-N") and refuses records under such names, which its listing
// would skip and gc or clear would remove.
bool keyReserved(const CommandLine& line, const std::string& key, std::string& error) {
  if (RedisLocation::isRedis(line.operands[0]) ||
      !VelLogin::temporary_file_name::matches(key.c_str())) {
    return false;
  }
  error = "key " + quoted(key) + " is reserved for the temporary files of folder writes";
  return true;
}

// Explains a failed read of key: missing (1) or failed (3), with the cause.
int readFailure(const Location& location, const std::string& key) {
  const std::string what = quoted(key) + " in " + location.name;
  if (!location.isFolder()) {
    const std::string cause = location.lastError();
    if (cause.empty()) return fail(kMissing, "no record " + what);
    return fail(kFailure, "cannot read record " + what + ": " + cause);
  }
  const int fd =
      ::open(location.recordPath(key).c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT || errno == ENOTDIR) return fail(kMissing, "no record " + what);
    return fail(kFailure, "cannot read record " + what + ": " + systemError(errno));
  }
  struct stat info {};
  const bool regular = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
  ::close(fd);
  if (!regular) return fail(kMissing, "no record " + what + " (not a regular file)");
  if (static_cast<unsigned long long>(info.st_size) > location.store->getMaxRecordLen()) {
    return fail(kFailure, "cannot read record " + what + ": too large for this tool");
  }
  return fail(kFailure, "cannot read record " + what + " (it changed while it was read)");
}

// True for the errors by which a file system says it cannot answer a probe
// (no O_TMPFILE, no space reservation): they say nothing about the write.
bool probeUnsupported(int error) {
  return error == EOPNOTSUPP || error == EINVAL || error == EISDIR;
}

// Finds why the folder refused a write of size bytes under key, by asking
// the file system the questions the write asked.
std::string writeFailureCause(const Location& location, const std::string& key, size_t size) {
  const std::string unknown = "the write failed (see --trace 2)";
  struct stat info;
  if (::stat(location.recordPath(key).c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    return systemError(EISDIR);
  }
  if (::access(location.folder.c_str(), W_OK | X_OK) != 0) return systemError(errno);
  const int fd = ::open(location.folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
  if (fd < 0) return probeUnsupported(errno) ? unknown : systemError(errno);
  // posix_fallocate returns its error rather than setting errno. Beyond the
  // file size limit it fails with EFBIG (SIGXFSZ is ignored, see main).
  const int error = ::posix_fallocate(fd, 0, static_cast<off_t>(size));
  ::close(fd);  // the file had no name: it is gone
  return error == 0 || probeUnsupported(error) ? unknown : systemError(error);
}

// Explains a failed removal of key: missing (1) or failed (3).
int removeFailure(const Location& location, const std::string& key) {
  const std::string what = quoted(key) + " in " + location.name;
  if (!location.isFolder()) {
    const std::string cause = location.lastError();
    if (cause.empty()) return fail(kMissing, "no record " + what);
    return fail(kFailure, "cannot remove record " + what + ": " + cause);
  }
  struct stat info;
  if (::lstat(location.recordPath(key).c_str(), &info) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return fail(kMissing, "no record " + what);
    return fail(kFailure, "cannot remove record " + what + ": " + systemError(errno));
  }
  if (S_ISDIR(info.st_mode)) return fail(kMissing, "no record " + what + " (a folder)");
  const int error = ::access(location.folder.c_str(), W_OK | X_OK) != 0 ? errno : 0;
  return fail(kFailure, "cannot remove record " + what + ": " +
                            (error != 0 ? systemError(error) : std::string("the removal failed")));
}

int outputFailure(const Output& out) {
  return fail(kFailure, "cannot write to standard output: " + out.error());
}

// A record as listed: key, size and, for folders, the file's stat.
struct Listed {
  std::string key;
  unsigned long long size = 0;
  const struct stat* info = nullptr;  // null on Redis
};

// Walks every record of a Redis store through the iteration (which reads each
// value: Redis has no cheaper way to the size through this interface).
int walkStore(const Location& location, std::vector<Listed>& records, Progress& progress) {
  AbstractStorage& store = *location.store;
  if (!store.startGetAll()) {
    return fail(kFailure, "cannot list " + location.name + ": " + failureCause(location));
  }
  for (;;) {
    Listed record;
    RecordBuffer buffer;
    unsigned len = store.getMaxRecordLen();
    if (!store.getNextRaw(record.key, buffer.data, len)) break;
    record.size = len;
    records.push_back(std::move(record));
    progress.step();
  }
  const std::string cause = location.lastError();
  store.endGetAll();
  if (!cause.empty()) return fail(kFailure, "cannot list " + location.name + ": " + cause);
  std::sort(records.begin(), records.end(),
            [](const Listed& a, const Listed& b) { return a.key < b.key; });
  return kSuccess;
}

// Lists location's records into records (and, for a folder, scan).
int collectRecords(const Location& location, bool withStat, FolderScan& scan,
                   std::vector<Listed>& records) {
  Progress progress("listed");
  if (!location.isFolder()) return walkStore(location, records, progress);
  std::string error;
  if (!scan.scan(location.folder, withStat, &progress, error)) return fail(kFailure, error);
  records.reserve(scan.records().size());
  for (const FolderScan::Entry& entry : scan.records()) {
    records.push_back({entry.name, static_cast<unsigned long long>(entry.info.st_size),
                       withStat ? &entry.info : nullptr});
  }
  return kSuccess;
}

class OwnerNames {
 public:
  const std::string& operator()(uid_t uid) {
    auto known = m_names.find(uid);
    if (known != m_names.end()) return known->second;
    const struct passwd* entry = ::getpwuid(uid);
    return m_names[uid] = entry != nullptr ? escapeKey(entry->pw_name) : std::to_string(uid);
  }

 private:
  std::map<uid_t, std::string> m_names;
};

std::string modeText(mode_t mode) {
  std::string text = "-";
  const char letters[] = "rwxrwxrwx";
  for (int bit = 0; bit < 9; ++bit) text += (mode & (0400u >> bit)) != 0 ? letters[bit] : '-';
  return text;
}

std::string timeText(time_t when) {
  struct tm local {};
  char text[32] = "-";
  if (localtime_r(&when, &local) != nullptr) {
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  }
  return text;
}

// One listing line: the long fields when asked for, then the key, escaped,
// raw or as JSON, ended by "\n" (NUL with -0).
std::string listingLine(const CommandLine& line, const Listed& record, OwnerNames& owners) {
  std::string text;
  if (line.json) {
    const bool utf8 = isValidUtf8(record.key);
    text = "{\"key\":" + (utf8 ? jsonString(record.key) : "\"" + base64(record.key) + "\"") +
           ",\"key_encoding\":\"" + (utf8 ? "utf-8" : "base64") + "\"";
    if (line.longListing) {
      text += ",\"size\":" + std::to_string(record.size);
      if (record.info != nullptr) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o",
                      static_cast<unsigned>(record.info->st_mode & 07777));
        text += ",\"mode\":\"" + std::string(mode) +
                "\",\"uid\":" + std::to_string(record.info->st_uid) +
                ",\"owner\":" + jsonString(owners(record.info->st_uid)) +
                ",\"mtime\":" + std::to_string(static_cast<long long>(record.info->st_mtime));
      }
    }
    return text + "}\n";
  }
  if (line.longListing) {
    char fields[128];
    if (record.info != nullptr) {
      std::snprintf(fields, sizeof fields, "%s %-8s %12llu %s  ",
                    modeText(record.info->st_mode).c_str(), owners(record.info->st_uid).c_str(),
                    record.size, timeText(record.info->st_mtime).c_str());
    } else {
      std::snprintf(fields, sizeof fields, "%-10s %-8s %12llu %-19s  ", "-", "-", record.size, "-");
    }
    text = fields;
  }
  if (line.nulSeparated) return text + record.key + '\0';
  return text + escapeKey(record.key) + "\n";
}

bool readStream(std::FILE* in, std::string& bytes) {
  char chunk[65536];
  size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, in)) > 0) bytes.append(chunk, got);
  return std::ferror(in) == 0;
}

void appendHexDump(Output& out, const char* data, unsigned len) {
  for (unsigned offset = 0; offset < len; offset += 16) {
    char text[96];
    int used = std::snprintf(text, sizeof text, "%08x ", offset);
    for (unsigned i = offset; i < offset + 16; ++i) {
      used += i < len ? std::snprintf(text + used, sizeof text - used, " %02x",
                                      static_cast<unsigned char>(data[i]))
                      : std::snprintf(text + used, sizeof text - used, "   ");
    }
    std::string lineText(text, static_cast<size_t>(used));
    lineText += "  |";
    for (unsigned i = offset; i < offset + 16 && i < len; ++i) {
      const unsigned char c = static_cast<unsigned char>(data[i]);
      lineText += c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '.';
    }
    out.write(lineText + "|\n");
  }
}

}  // namespace

int fail(int status, const std::string& message) {
  std::fprintf(stderr, "loginstorage: %s\n", message.c_str());
  return status;
}

int writeOut(const std::string& text) {
  Output out;
  out.write(text);
  return out.flush() ? kSuccess : outputFailure(out);
}

int listRecords(const CommandLine& line) {
  if (line.operands.size() != 1) return fail(kUsage, "ls takes one LOCATION (see ls --help)");
  if (line.json && line.nulSeparated) return fail(kUsage, "ls takes -0 or --json, not both");
  Location location;
  if (int status = openLocation(line.operands[0], false, location)) return status;
  FolderScan scan;
  std::vector<Listed> records;
  if (int status = collectRecords(location, line.longListing, scan, records)) return status;

  Output out;
  OwnerNames owners;
  for (const Listed& record : records) {
    if (!out.write(listingLine(line, record, owners))) break;
  }
  return out.flush() ? kSuccess : outputFailure(out);
}

int getRecord(const CommandLine& line) {
  if (line.operands.size() != 2) return fail(kUsage, "get takes LOCATION and KEY (see get --help)");
  const std::string& key = line.operands[1];
  std::string error;
  if (!keyAllowed(line, key, error)) return fail(kUsage, error);
  Location location;
  if (int status = openLocation(line.operands[0], false, location)) return status;

  RecordBuffer buffer;
  unsigned len = location.store->getMaxRecordLen();
  if (!location.store->getRaw(key, buffer.data, len)) return readFailure(location, key);
  Output out;
  if (line.hex) {
    appendHexDump(out, buffer.data, len);
  } else {
    out.write(buffer.data, len);
  }
  return out.flush() ? kSuccess : outputFailure(out);
}

int putRecord(const CommandLine& line) {
  if (line.operands.size() != 2 && line.operands.size() != 3) {
    return fail(kUsage, "put takes LOCATION, KEY and an optional FILE (see put --help)");
  }
  const std::string& key = line.operands[1];
  std::string error;
  if (!keyAllowed(line, key, error) || keyReserved(line, key, error)) {
    return fail(kUsage, error);
  }

  std::string bytes;
  const bool fromFile = line.operands.size() == 3 && line.operands[2] != "-";
  std::FILE* in = fromFile ? std::fopen(line.operands[2].c_str(), "rb") : stdin;
  if (in == nullptr) {
    return fail(kFailure, "cannot open " + escapeKey(line.operands[2]) + ": " + systemError(errno));
  }
  const bool readOk = readStream(in, bytes);
  const int readError = errno;
  if (fromFile) std::fclose(in);
  if (!readOk) return fail(kFailure, "cannot read the record's bytes: " + systemError(readError));
  if (bytes.empty()) return fail(kUsage, "an empty record cannot be stored");
  if (bytes.size() > 0xFFFFFFFEu) return fail(kFailure, "the record is too large (4 GiB or more)");

  Location location;
  if (int status = openLocation(line.operands[0], true, location)) return status;
  if (location.store->setRaw(key, bytes.data(), static_cast<unsigned>(bytes.size()), 0)) {
    return kSuccess;
  }
  const std::string cause =
      location.isFolder() ? writeFailureCause(location, key, bytes.size()) : failureCause(location);
  return fail(kFailure, "cannot store " + quoted(key) + " in " + location.name + ": " + cause);
}

int removeRecords(const CommandLine& line) {
  if (line.operands.size() < 2) return fail(kUsage, "rm takes LOCATION and KEY... (see rm --help)");
  std::string error;
  for (size_t i = 1; i < line.operands.size(); ++i) {
    if (!keyAllowed(line, line.operands[i], error)) return fail(kUsage, error);
  }
  Location location;
  if (int status = openLocation(line.operands[0], false, location)) return status;
  // A failure outranks a missing record: exit 3 when any removal failed.
  int status = kSuccess;
  for (size_t i = 1; i < line.operands.size(); ++i) {
    if (location.store->del(line.operands[i])) continue;
    const int failure = removeFailure(location, line.operands[i]);
    if (status != kFailure) status = failure;
  }
  return status;
}

int clearRecords(const CommandLine& line) {
  if (line.operands.size() != 1) return fail(kUsage, "clear takes one LOCATION (see clear --help)");
  if (!line.yes) return fail(kUsage, "clear removes every record: confirm with --yes");
  Location location;
  if (int status = openLocation(line.operands[0], false, location)) return status;
  if (!location.isFolder()) {
    if (location.store->delAll()) return kSuccess;
    return fail(kFailure, "cannot clear " + location.name + ": " + failureCause(location));
  }

  FolderScan scan;
  std::string error;
  {
    Progress listing("listed");
    if (!scan.scan(location.folder, false, &listing, error)) return fail(kFailure, error);
  }
  unsigned long failed = 0;
  Progress progress("removed", scan.records().size());
  for (const FolderScan::Entry& record : scan.records()) {
    progress.step();
    if (location.store->del(record.name)) continue;
    struct stat info;
    const std::string path = location.recordPath(record.name);
    if (::lstat(path.c_str(), &info) != 0 && errno == ENOENT) continue;  // removed meanwhile
    if (failed++ == 0) removeFailure(location, record.name);
  }
  unsigned long removed = 0;
  unsigned long long bytes = 0;
  const bool temporariesRemoved =
      scan.removeAbandoned(location.folder, nullptr, removed, bytes, error);
  if (failed > 0) {
    return fail(kFailure, std::to_string(failed) + " of " + std::to_string(scan.records().size()) +
                              " records of " + location.name + " remain");
  }
  return temporariesRemoved ? kSuccess : fail(kFailure, error);
}

int showStatistics(const CommandLine& line) {
  if (line.operands.size() != 1) return fail(kUsage, "stat takes one LOCATION (see stat --help)");
  Location location;
  if (int status = openLocation(line.operands[0], false, location)) return status;
  FolderScan scan;
  std::vector<Listed> records;
  if (int status = collectRecords(location, true, scan, records)) return status;

  unsigned long long bytes = 0, abandonedBytes = 0;
  const Listed* largest = nullptr;
  for (const Listed& record : records) {
    bytes += record.size;
    if (largest == nullptr || record.size > largest->size) largest = &record;
  }
  for (const FolderScan::Entry& file : scan.abandoned()) {
    abandonedBytes += static_cast<unsigned long long>(file.info.st_size);
  }
  std::string text;
  if (line.json) {
    text = "{\"records\":" + std::to_string(records.size()) + ",\"bytes\":" + std::to_string(bytes);
    if (largest != nullptr) {
      const bool utf8 = isValidUtf8(largest->key);
      text += ",\"largest\":{\"key\":" +
              (utf8 ? jsonString(largest->key) : "\"" + base64(largest->key) + "\"") +
              ",\"key_encoding\":\"" + (utf8 ? "utf-8" : "base64") +
              "\",\"size\":" + std::to_string(largest->size) + "}";
    }
    if (location.isFolder()) {
      text += ",\"abandoned_temporary_files\":" + std::to_string(scan.abandoned().size()) +
              ",\"abandoned_bytes\":" + std::to_string(abandonedBytes) +
              ",\"temporary_files_in_progress\":" + std::to_string(scan.inProgress());
    }
    text += "}\n";
  } else {
    text = "records: " + std::to_string(records.size()) + "\nbytes: " + std::to_string(bytes) +
           "\nlargest: " +
           (largest != nullptr ? std::to_string(largest->size) + " " + escapeKey(largest->key)
                               : std::string("-")) +
           "\n";
    if (location.isFolder()) {
      text += "abandoned temporary files: " + std::to_string(scan.abandoned().size()) + " (" +
              std::to_string(abandonedBytes) +
              " bytes)\ntemporary files in progress: " + std::to_string(scan.inProgress()) + "\n";
    }
  }
  return writeOut(text);
}

int collectGarbage(const CommandLine& line) {
  if (line.operands.size() != 1) return fail(kUsage, "gc takes one FOLDER (see gc --help)");
  if (RedisLocation::isRedis(line.operands[0])) {
    return fail(kUsage, "gc works on folders: Redis keeps no temporary files");
  }
  Location location;
  if (int status = openLocation(line.operands[0], false, location)) return status;
  FolderScan scan;
  std::string error;
  unsigned long removed = 0;
  unsigned long long bytes = 0;
  {
    Progress listing("examined");
    if (!scan.scan(location.folder, false, &listing, error)) return fail(kFailure, error);
  }
  Progress progress("removed", scan.abandoned().size());
  const bool ok = scan.removeAbandoned(location.folder, &progress, removed, bytes, error);
  Output out;
  out.write("removed " + std::to_string(removed) + " abandoned temporary files (" +
            std::to_string(bytes) + " bytes)\n");
  if (!ok) return fail(kFailure, error);
  return out.flush() ? kSuccess : outputFailure(out);
}

int showVersion(const CommandLine& line) {
  if (line.operands.size() > 1) return fail(kUsage, "version takes at most one LIBRARY-FILE");
  const std::string path = line.operands.empty() ? loadedLibraryPath() : line.operands[0];
  if (path.empty()) return fail(kFailure, "cannot tell which library file is loaded");
  VersionFields fields;
  std::string error;
  if (!readVersionText(path, fields, error)) return fail(kFailure, error);
  Output out;
  out.write(escapeKey(path) + "\n");
  for (const auto& field : fields) {
    char text[64];
    std::snprintf(text, sizeof text, "%-22s ", (escapeKey(field.first) + ":").c_str());
    out.write(field.first.empty() ? "  " + escapeKey(field.second) + "\n"
                                  : text + escapeKey(field.second) + "\n");
  }
  return out.flush() ? kSuccess : outputFailure(out);
}

int showToolVersion() {
  const VelLogin::VersionRecord& library = LoginStorage_version_info;
  // The library's folder without the "bin/.." of the tool's relative run path.
  std::string path = loadedLibraryPath();
  const size_t slash = path.rfind('/');
  if (slash != std::string::npos) {
    char* folder = ::realpath(path.substr(0, slash).c_str(), nullptr);
    if (folder != nullptr) path = folder + path.substr(slash);
    std::free(folder);
  }
  char text[512];
  std::snprintf(text, sizeof text,
                "loginstorage %s\n"
                "LoginStorage library %d.%d.%d (%s, %s) in %s\n"
                "Redis support: %s\n",
                LOGINSTORAGE_TOOL_VERSION, library.majorReleaseNumber, library.minorReleaseNumber,
                library.optionPackNumber, library.majorRelease, library.minorRelease,
                escapeKey(path).c_str(),
#ifdef LOGINSTORAGE_TOOL_HAS_REDIS
                "built in"
#else
                "not built in"
#endif
  );
  return writeOut(text);
}

}  // namespace tool
