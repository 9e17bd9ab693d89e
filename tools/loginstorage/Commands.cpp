#include "Commands.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "VersionText.h"
#ifdef LOGINSTORAGE_TOOL_HAS_REDIS
#include "LoginStorage/redis/RedisStorage.h"
#endif

using VelLogin::AbstractStorage;
using VelLogin::FileSystemStorage;

namespace tool {

namespace {

// Owns a record buffer that a store allocated with new[].
struct RecordBuffer {
  char* data = nullptr;
  ~RecordBuffer() { delete[] data; }
};

bool folderExists(const std::string& folder) {
  struct stat info;
  return ::stat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

constexpr char kRedisScheme[] = "redis://";
constexpr unsigned kRedisTimeoutMs = 2000;

bool isRedisLocation(const std::string& location) {
  return location.compare(0, sizeof kRedisScheme - 1, kRedisScheme) == 0;
}

// Opens redis://HOST[:PORT]/PREFIX (port 6379 when left out; the prefix is
// everything after the first "/" and may be empty).
std::unique_ptr<AbstractStorage> openRedis(const std::string& location, std::string& error) {
#ifdef LOGINSTORAGE_TOOL_HAS_REDIS
  const std::string rest = location.substr(sizeof kRedisScheme - 1);
  const size_t slash = rest.find('/');
  const std::string hostPort = rest.substr(0, slash);
  const std::string prefix = slash == std::string::npos ? "" : rest.substr(slash + 1);
  const size_t colon = hostPort.rfind(':');
  std::string host = hostPort.substr(0, colon);
  unsigned long port = 6379;
  if (colon != std::string::npos) {
    const std::string digits = hostPort.substr(colon + 1);
    char* end = nullptr;
    port = std::strtoul(digits.c_str(), &end, 10);
    if (digits.empty() || *end != '\0' || port == 0 || port > 65535) host.clear();
  }
  if (host.empty()) {
    error = "bad location '" + location + "' (expected redis://HOST:PORT/PREFIX)";
    return nullptr;
  }
  return std::unique_ptr<AbstractStorage>(new VelLogin::RedisStorage(
      host, static_cast<unsigned>(port), prefix, kRedisTimeoutMs));
#else
  error = "cannot open " + location + ": this build has no Redis support";
  return nullptr;
#endif
}

// Opens the store at location: a Redis location, or a folder. Only a command
// that writes may create a missing folder (the folder store would create
// it), so reading and removing commands ask for an existing one.
std::unique_ptr<AbstractStorage> openStore(const std::string& location, bool createFolder,
                                           std::string& error) {
  if (isRedisLocation(location)) return openRedis(location, error);
  if (!createFolder && !folderExists(location)) {
    error = "no such folder: " + location;
    return nullptr;
  }
  return std::unique_ptr<AbstractStorage>(new FileSystemStorage(location, 0, false, false, 0));
}

std::unique_ptr<AbstractStorage> openExisting(const std::string& location, std::string& error) {
  return openStore(location, false, error);
}

// Any key names a plain record on a Redis server; in a folder, only the keys
// that name a file directly inside it do, unless --raw-key is given.
bool keyAllowed(const CommandLine& line, const std::string& key, std::string& error) {
  if (line.rawKey || FileSystemStorage::isPlainKey(key)) return true;
  if (isRedisLocation(line.operands[0]) && !key.empty()) return true;
  error = "key '" + key +
          "' does not name a file directly inside the folder (use --raw-key to allow it)";
  return false;
}

void printHex(const char* data, unsigned len) {
  for (unsigned offset = 0; offset < len; offset += 16) {
    std::printf("%08x ", offset);
    for (unsigned i = offset; i < offset + 16; ++i) {
      if (i < len) {
        std::printf(" %02x", static_cast<unsigned char>(data[i]));
      } else {
        std::printf("   ");
      }
    }
    std::printf("  |");
    for (unsigned i = offset; i < offset + 16 && i < len; ++i) {
      unsigned char c = static_cast<unsigned char>(data[i]);
      std::putchar(c >= 0x20 && c < 0x7f ? c : '.');
    }
    std::printf("|\n");
  }
}

bool readStream(std::FILE* in, std::string& bytes) {
  char chunk[65536];
  size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, in)) > 0) bytes.append(chunk, got);
  return std::ferror(in) == 0;
}

struct Listed {
  std::string key;
  unsigned size;
};

}  // namespace

int fail(int status, const std::string& message) {
  std::fprintf(stderr, "loginstorage: %s\n", message.c_str());
  return status;
}

int listRecords(const CommandLine& line) {
  if (line.operands.size() != 1) return fail(kUsage, "ls takes one FOLDER (see ls --help)");
  const std::string& folder = line.operands[0];
  std::string error;
  std::unique_ptr<AbstractStorage> store = openExisting(folder, error);
  if (!store) return fail(kFailed, error);
  if (!store->startGetAll()) return fail(kFailed, "cannot list " + folder);

  std::vector<Listed> records;
  for (;;) {
    std::string key;
    RecordBuffer buffer;
    unsigned len = store->getMaxRecordLen();
    if (!store->getNextRaw(key, buffer.data, len)) break;
    records.push_back({key, len});
  }
  store->endGetAll();
  std::sort(records.begin(), records.end(),
            [](const Listed& a, const Listed& b) { return a.key < b.key; });

  for (const Listed& record : records) {
    if (!line.longListing) {
      std::printf("%10u  %s\n", record.size, record.key.c_str());
      continue;
    }
    struct stat info {};
    char when[32] = "-";
    std::string path = folder + "/" + record.key;
    if (!isRedisLocation(folder) && ::lstat(path.c_str(), &info) == 0) {
      struct tm local {};
      time_t modified = info.st_mtime;
      std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", localtime_r(&modified, &local));
    }
    std::printf("%04o  %10u  %s  %s\n", static_cast<unsigned>(info.st_mode & 07777), record.size,
                when, record.key.c_str());
  }
  return kSuccess;
}

int getRecord(const CommandLine& line) {
  if (line.operands.size() != 2) return fail(kUsage, "get takes FOLDER and KEY (see get --help)");
  const std::string& key = line.operands[1];
  std::string error;
  if (!keyAllowed(line, key, error)) return fail(kUsage, error);
  std::unique_ptr<AbstractStorage> store = openExisting(line.operands[0], error);
  if (!store) return fail(kFailed, error);

  RecordBuffer buffer;
  unsigned len = store->getMaxRecordLen();
  if (!store->getRaw(key, buffer.data, len)) {
    return fail(kFailed, "no record '" + key + "' in " + line.operands[0]);
  }
  if (line.hex) {
    printHex(buffer.data, len);
  } else if (len > 0 && std::fwrite(buffer.data, 1, len, stdout) != len) {
    return fail(kFailed, std::string("cannot write to standard output: ") + std::strerror(errno));
  }
  return std::fflush(stdout) == 0 ? kSuccess : fail(kFailed, "cannot write to standard output");
}

int putRecord(const CommandLine& line) {
  if (line.operands.size() != 2 && line.operands.size() != 3) {
    return fail(kUsage, "put takes FOLDER, KEY and an optional FILE (see put --help)");
  }
  const std::string& key = line.operands[1];
  std::string error;
  if (!keyAllowed(line, key, error)) return fail(kUsage, error);

  std::string bytes;
  bool fromFile = line.operands.size() == 3 && line.operands[2] != "-";
  std::FILE* in = fromFile ? std::fopen(line.operands[2].c_str(), "rb") : stdin;
  if (in == nullptr) {
    return fail(kFailed, "cannot open " + line.operands[2] + ": " + std::strerror(errno));
  }
  bool readOk = readStream(in, bytes);
  if (fromFile) std::fclose(in);
  if (!readOk) return fail(kFailed, "cannot read the record's bytes");
  if (bytes.empty()) return fail(kFailed, "an empty record cannot be stored");
  if (bytes.size() > 0xFFFFFFFEu) return fail(kFailed, "the record is too large");

  std::unique_ptr<AbstractStorage> store = openStore(line.operands[0], true, error);
  if (!store) return fail(kFailed, error);
  if (!store->setRaw(key, bytes.data(), static_cast<unsigned>(bytes.size()), 0)) {
    return fail(kFailed, "cannot store '" + key + "' in " + line.operands[0]);
  }
  return kSuccess;
}

int removeRecords(const CommandLine& line) {
  if (line.operands.size() < 2) return fail(kUsage, "rm takes FOLDER and KEY... (see rm --help)");
  std::string error;
  for (size_t i = 1; i < line.operands.size(); ++i) {
    if (!keyAllowed(line, line.operands[i], error)) return fail(kUsage, error);
  }
  std::unique_ptr<AbstractStorage> store = openExisting(line.operands[0], error);
  if (!store) return fail(kFailed, error);
  int status = kSuccess;
  for (size_t i = 1; i < line.operands.size(); ++i) {
    if (!store->del(line.operands[i])) {
      status = fail(kFailed, "no record '" + line.operands[i] + "' in " + line.operands[0]);
    }
  }
  return status;
}

int clearFolder(const CommandLine& line) {
  if (line.operands.size() != 1) return fail(kUsage, "clear takes one FOLDER (see clear --help)");
  if (!line.yes) return fail(kUsage, "clear removes every record: confirm with --yes");
  std::string error;
  std::unique_ptr<AbstractStorage> store = openExisting(line.operands[0], error);
  if (!store) return fail(kFailed, error);
  if (!store->delAll()) return fail(kFailed, "some records of " + line.operands[0] + " remain");
  return kSuccess;
}

int showVersion(const CommandLine& line) {
  if (line.operands.size() > 1) return fail(kUsage, "version takes at most one LIBRARY-FILE");
  std::string path = line.operands.empty() ? loadedLibraryPath() : line.operands[0];
  if (path.empty()) return fail(kFailed, "cannot tell which library file is loaded");
  VersionFields fields;
  std::string error;
  if (!readVersionText(path, fields, error)) return fail(kFailed, error);
  std::printf("%s\n", path.c_str());
  for (const auto& field : fields) {
    if (field.first.empty()) {
      std::printf("  %s\n", field.second.c_str());
    } else {
      std::printf("%-22s %s\n", (field.first + ":").c_str(), field.second.c_str());
    }
  }
  return kSuccess;
}

}  // namespace tool
