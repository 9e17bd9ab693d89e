#include "Commands.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "LoginStorage/LoginStorage.h"
#include "VersionText.h"

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

// Opens the folder store of an existing folder: the store would create a
// missing folder, which a command that only reads or removes must not do.
std::unique_ptr<AbstractStorage> openExisting(const std::string& folder, std::string& error) {
  if (!folderExists(folder)) {
    error = "no such folder: " + folder;
    return nullptr;
  }
  return std::unique_ptr<AbstractStorage>(new FileSystemStorage(folder, 0, false, false, 0));
}

bool keyAllowed(const CommandLine& line, const std::string& key, std::string& error) {
  if (line.rawKey || FileSystemStorage::isPlainKey(key)) return true;
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
    if (::lstat(path.c_str(), &info) == 0) {
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

  FileSystemStorage store(line.operands[0], 0, false, false, 0);
  if (!store.setRaw(key, bytes.data(), static_cast<unsigned>(bytes.size()), 0)) {
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
