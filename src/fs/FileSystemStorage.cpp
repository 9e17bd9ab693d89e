#include "LoginStorage/fs/FileSystemStorage.h"

#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "LoginStorage/platform/Durability.h"
#include "LoginStorage/storage/Exception.h"
#include "trace/Trace.h"
#include "util/FileSystem.h"
#include "util/TemporaryFileName.h"
#include "util/WholeFile.h"

LS_TRACE_REGISTER_TOPICS()

namespace {

// The object whose delAll() is running on this thread: its del() calls leave
// the folder's flush to the end of delAll().
thread_local const VelLogin::FileSystemStorage* t_folderSyncDeferredFor = nullptr;

std::string normalisedFolder(const std::string& folder) {
  if (folder.empty()) return "./";
  if (folder.back() == '/') return folder;
  return folder + "/";
}

}  // namespace

namespace VelLogin {

FileSystemStorage::FileSystemStorage(const std::string& folder, unsigned, bool, bool deleteAfterSet,
                                     unsigned)
    : m_folder(normalisedFolder(folder)), m_dirHandle(nullptr), m_deleteAfterSet(deleteAfterSet) {
  LS_TRACE_ENTRY_AS(typeid(FileSystemStorage), "FileSystemStorage");
  if (velIsDir(m_folder) != 0) return;
  LS_TRACE_MSG(3, "<%s>: folder doesn't exist. Creating...", m_folder.c_str());
  const bool created = velDirCreate(m_folder) != 0;
  LS_TRACE_MSG(3, "<%s>: %s in folder creation", m_folder.c_str(), created ? "SUCCESS" : "FAIL");
}

FileSystemStorage::~FileSystemStorage() {
  LS_TRACE_ENTRY_AS(typeid(FileSystemStorage), "FileSystemStorage");
  FileSystemStorage::endGetAll();
}

bool FileSystemStorage::isPlainKey(const std::string& key) {
  return !key.empty() && key != "." && key != ".." &&
         key.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

bool FileSystemStorage::getRaw(const std::string& key, char*& data, unsigned& len) const {
  LS_TRACE_ENTRY("getRaw");
  const unsigned capacity = len;
  len = 0;
  if (capacity == 0) {
    LS_TRACE_MSG(1, "ERROR: wrong usage! len==0");
    return false;
  }
  // A missing key is an everyday answer: no exception on its way.
  WholeFileReader file(m_folder + key);
  // A record's length is an unsigned: a file of 4 GiB or more has none that
  // could be told truthfully, so it cannot be read as one.
  if (!file.ok() || file.size() > 0xFFFFFFFFull) {
    LS_TRACE_MSG(1, "Folder <%s> VelLogin::readFile failed to read file: %s", m_folder.c_str(),
                 key.c_str());
    return false;
  }
  const unsigned size = static_cast<unsigned>(file.size());
  if (size > capacity) {
    len = size;
    LS_TRACE_MSG(2, "WARNING: data was not written, because len <%d> is less then needed <%d>",
                 capacity, size);
    return false;
  }
  // Read straight into the buffer handed out: no intermediate copy.
  char* const given = data;
  if (data == nullptr) {
    data = new (std::nothrow) char[size];
    if (data == nullptr) {
      LS_TRACE_MSG(1, "new has failed to allocate %d chars", size);
      return false;
    }
  }
  size_t got = 0;
  if (!file.readInto(data, &got)) {
    if (data != given) delete[] data;
    data = given;
    LS_TRACE_MSG(1, "Folder <%s> VelLogin::readFile failed to read file: %s", m_folder.c_str(),
                 key.c_str());
    return false;
  }
  len = static_cast<unsigned>(got);
  return true;
}

bool FileSystemStorage::setRaw(const std::string& key, const char* data, unsigned len, unsigned) {
  LS_TRACE_ENTRY("setRaw");
  if (len == 0 || data == nullptr) return false;
  // Iteration and delAll() take such names for writers' temporary files: a
  // record under one would hide, and could be removed as debris.
  if (temporary_file_name::matches(key.c_str())) {
    LS_TRACE_MSG(1, "ERROR: key <%s> has the form of a temporary file", key.c_str());
    return false;
  }
  try {
    writeFile(m_folder + key, data, len);
  } catch (const Exception&) {
    LS_TRACE_MSG(1, "VelLogin::writeFile failed to write data with len %d to file: %s", len,
                 key.c_str());
    return false;
  }
  if (!m_deleteAfterSet) return true;
  return del(key);
}

bool FileSystemStorage::del(const std::string& key) {
  LS_TRACE_ENTRY("del");
  bool ok = velFileRemove(m_folder + key) == 1;
  if (ok && durableWrites() && t_folderSyncDeferredFor != this) ok = FsDirSync(m_folder);
  LS_TRACE_MSG(1, "folder <%s>: %s in deleting record with key <%s>", m_folder.c_str(),
               ok ? "SUCCESS" : "FAILURE", key.c_str());
  return ok;
}

bool FileSystemStorage::delAll() {
  LS_TRACE_ENTRY("delAll");
  FsDirHandle listing = FsDirOpen(m_folder);
  if (listing == nullptr) {
    LS_TRACE_MSG(1, "folder <%s>: FsDirOpen failed", m_folder.c_str());
    return false;
  }
  // List first, delete after: removing entries from a folder while reading
  // its listing may make the listing skip others.
  std::vector<std::string> names;
  std::vector<std::string> abandoned;
  while (const char* name = FsDirRead(listing)) {
    if (temporary_file_name::matches(name)) {
      // Another writer's file on its way is not ours to take; one whose
      // writer died will never be renamed.
      if (temporary_file_name::isAbandoned(name)) abandoned.emplace_back(name);
    } else if (!isDotEntry(name)) {
      names.emplace_back(name);
    }
  }
  const int listingError = FsDirError(listing);
  FsDirClose(listing);
  bool ok = listingError == 0;
  if (!ok) {
    LS_TRACE_MSG(1, "folder <%s>: FsDirRead failed: %s", m_folder.c_str(),
                 std::strerror(listingError));
  }

  {
    // One flush of the folder at the end instead of one per record.
    const FileSystemStorage* const outer = t_folderSyncDeferredFor;
    t_folderSyncDeferredFor = this;
    for (const std::string& name : names) {
      ok = del(name) && ok;
    }
    t_folderSyncDeferredFor = outer;
  }
  for (const std::string& name : abandoned) velFileRemove(m_folder + name);
  if (durableWrites() && !FsDirSync(m_folder)) ok = false;
  LS_TRACE_MSG(1, "folder <%s>: %s in deleting all content", m_folder.c_str(),
               ok ? "SUCCESS" : "FAILURE");
  return ok;
}

bool FileSystemStorage::startGetAll() {
  LS_TRACE_ENTRY("startGetAll");
  LS_TRACE_MSG(3, "<%s>: starting GetAll session", m_folder.c_str());
  if (m_dirHandle != nullptr) {
    LS_TRACE_MSG(1, "ERROR: previous GetAll session was not ended with endGetAll()");
    return false;
  }
  m_dirHandle = FsDirOpen(m_folder);
  return m_dirHandle != nullptr;
}

bool FileSystemStorage::getNextInternal(std::string& key, char*& data, unsigned& len,
                                        bool& endReached) {
  LS_TRACE_ENTRY("getNextInternal");
  // Temporary files are records on their way to their names, or debris of a
  // killed writer: never records. The debris goes here, so that it never
  // outlives the next iteration.
  const char* name;
  while ((name = FsDirRead(m_dirHandle)) != nullptr && temporary_file_name::matches(name)) {
    if (temporary_file_name::isAbandoned(name)) velFileRemove(m_folder + name);
  }
  endReached = false;
  if (name == nullptr) {
    // A listing that fails cannot go on: it ends here, but not silently.
    const int error = FsDirError(m_dirHandle);
    if (error != 0) {
      LS_TRACE_MSG(1, "folder <%s>: FsDirRead failed: %s", m_folder.c_str(),
                   std::strerror(error));
    }
    endReached = true;
    len = 0;
    return true;
  }
  // Reading on through getNextRaw keeps the skip rules of the iteration in
  // one place; the nesting is at most two deep, "." and "..".
  if (isDotEntry(name)) return getNextRaw(key, data, len);
  key = name;
  return getRaw(std::string(name), data, len);
}

void FileSystemStorage::endGetAll() {
  LS_TRACE_ENTRY("endGetAll");
  LS_TRACE_MSG(3, "<%s>: ending GetAll session", m_folder.c_str());
  if (m_dirHandle != nullptr) {
    FsDirClose(m_dirHandle);
    m_dirHandle = nullptr;
  }
}

unsigned FileSystemStorage::getNumElements() const {
  LS_TRACE_ENTRY("getNumElements");
  return 0;
}

bool FileSystemStorage::isInStorage(const std::string& key) const {
  LS_TRACE_ENTRY("isInStorage");
  return velFileExist(m_folder + key) != 0;
}

}  // namespace VelLogin
