// Record bytes and keys through the folder store: whatever the key and the
// bytes, a write either succeeds and reads back exactly, lists under its key
// and deletes, or fails cleanly and leaves the folder as it was.
//
// Input: one byte giving the key's length, the key, then the record.
#include <cstddef>
#include <cstdint>
#include <string>

#include "LoginStorage/LoginStorage.h"
#include "Require.h"
#include "util/TemporaryFileName.h"
#include "support/TempFolder.h"

using fuzzsupport::require;
using VelLogin::FileSystemStorage;

namespace {

// A key may name any path, "../" included. The fuzzer writes and deletes
// only through keys that stay inside its folder; the others it only reads.
bool staysInside(const std::string& key) {
  size_t start = 0;
  while (start <= key.size()) {
    size_t end = key.find('/', start);
    if (end == std::string::npos) end = key.size();
    if (key.compare(start, end - start, "..") == 0) return false;
    start = end + 1;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
  static testsupport::TempFolder folder;
  static FileSystemStorage store(folder.path(), 0, false, false, 0);
  if (size == 0) return 0;
  const size_t keyLength = input[0] < size - 1 ? input[0] : size - 1;
  const std::string key(reinterpret_cast<const char*>(input) + 1, keyLength);
  const std::string bytes(reinterpret_cast<const char*>(input) + 1 + keyLength,
                          size - 1 - keyLength);

  char* data = nullptr;
  unsigned len = store.getMaxRecordLen();
  if (!staysInside(key)) {
    if (store.getRaw(key, data, len)) delete[] data;
    store.isInStorage(key);
    return 0;
  }
  const bool written = store.setRaw(key, bytes.data(), static_cast<unsigned>(bytes.size()), 0);
  const bool plain = FileSystemStorage::isPlainKey(key);
  const bool reserved = VelLogin::temporary_file_name::matches(key.c_str());
  require(!written || !bytes.empty(), "an empty record is refused");
  require(!written || !reserved, "a key of the temporary files' form is refused");
  // Other keys are paths that may or may not lead to a file of the folder.
  require(written || !plain || reserved || bytes.empty() || key.size() > 255,
          "a record under a plain key that fits a file name is written");
  if (!written) {
    require(testsupport::listFolder(folder.path()).empty(), "a refused write leaves nothing");
    require(!store.getRaw(key, data, len) && data == nullptr, "a refused record reads as none");
    return 0;
  }

  require(store.getRaw(key, data, len) && len == bytes.size() && std::string(data, len) == bytes,
          "a record reads back exactly");
  delete[] data;
  data = nullptr;
  len = static_cast<unsigned>(bytes.size()) - 1;
  require(len == 0 || (!store.getRaw(key, data, len) && len == bytes.size() && data == nullptr),
          "a buffer one byte short is refused with the needed length");
  require(store.isInStorage(key), "a written record is in storage");

  // Only a plain key is a name of the folder's own listing.
  if (plain) {
    require(store.startGetAll(), "the folder can be listed");
    std::string listed;
    len = store.getMaxRecordLen();
    require(store.getNextRaw(listed, data, len) && listed == key && std::string(data, len) == bytes,
            "the iteration yields the record under its key");
    delete[] data;
    data = nullptr;
    len = store.getMaxRecordLen();
    require(!store.getNextRaw(listed, data, len), "and nothing else");
    store.endGetAll();
  }

  require(store.del(key) && !store.isInStorage(key), "a record deletes");
  require(testsupport::listFolder(folder.path()).empty(), "nothing is left behind");
  return 0;
}
