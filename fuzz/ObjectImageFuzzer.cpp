// Byte images through an object store with a factory of our own: records of
// any bytes in a folder are rebuilt into objects or refused, read directly,
// through a cache and by iteration, and a rebuilt object's image is exactly
// the bytes it came from. Records the factory refuses are skipped by the
// iteration, which yields every other record once.
//
// Input: up to four records, separated by the byte 0xFF.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>

#include "LoginStorage/LoginStorage.h"
#include "Require.h"
#include "util/TemporaryFileName.h"
#include "support/TempFolder.h"

using fuzzsupport::require;
using VelLogin::CacheStorage;
using VelLogin::FileSystemStorage;
using VelLogin::IStorable;
using VelLogin::ObjectStorage;
using Ptr = VelLogin::RefCountPtr<IStorable>;

namespace {

// A login session's image: "LS1", a one-byte field count, then per field a
// tag byte, a two-byte length (little-endian) and that many bytes. Tag 'k'
// is the key and must come first and once; nothing may follow the fields.
// A session keeps the image it was built from, so that the bytes the store
// handed over are what it writes back.
class Session : public IStorable {
 public:
  Session(std::string key, std::string image) : m_key(std::move(key)), m_image(std::move(image)) {}
  std::string getKey() const override { return m_key; }
  bool serialize(char*& data, unsigned& len) override {
    if (m_image.size() > len) return false;
    data = &m_image[0];
    len = static_cast<unsigned>(m_image.size());
    return true;
  }
  std::string toString() const override { return "session " + m_key; }

  static Ptr fromBytes(const char* data, unsigned len) {
    if (len < 4 || std::memcmp(data, "LS1", 3) != 0) return Ptr();
    const unsigned count = static_cast<unsigned char>(data[3]);
    std::string key;
    unsigned at = 4;
    for (unsigned i = 0; i < count; ++i) {
      if (len - at < 3) return Ptr();
      const char tag = data[at];
      const unsigned size = static_cast<unsigned char>(data[at + 1]) |
                            static_cast<unsigned>(static_cast<unsigned char>(data[at + 2])) << 8;
      at += 3;
      if (len - at < size || (tag == 'k') != (i == 0)) return Ptr();
      if (i == 0) key.assign(data + at, size);
      at += size;
    }
    if (at != len || count == 0) return Ptr();
    return Ptr(new Session(key, std::string(data, len)));
  }

 private:
  std::string m_key;
  std::string m_image;
};

std::string imageOf(const Ptr& object) {
  char* data = nullptr;
  unsigned len = 0xFFFFFFFFu;
  require(object->serialize(data, len), "a rebuilt object has an image");
  return std::string(data, len);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
  static testsupport::TempFolder folder;
  static CacheStorage store(
      new ObjectStorage(new FileSystemStorage(folder.path(), 0, false, false, 0),
                        &Session::fromBytes),
      60, 0);

  std::map<std::string, std::string> records;  // key to bytes
  const std::string text(reinterpret_cast<const char*>(input), size);
  size_t start = 0;
  for (unsigned i = 0; i < 4 && start <= text.size(); ++i) {
    size_t end = text.find('\xff', start);
    if (end == std::string::npos) end = text.size();
    const std::string bytes = text.substr(start, end - start);
    const std::string key = "r" + std::to_string(i);
    if (store.setRaw(key, bytes.data(), static_cast<unsigned>(bytes.size()), 0)) {
      records[key] = bytes;
    }
    start = end + 1;
  }

  std::map<std::string, std::string> rebuilt;  // the image of each rebuilt record
  for (const auto& record : records) {
    const Ptr object = store.get(record.first, nullptr);
    const Ptr expected =
        Session::fromBytes(record.second.data(), static_cast<unsigned>(record.second.size()));
    require(!object == !expected, "get rebuilds exactly what the factory accepts");
    if (!object) continue;
    require(imageOf(object) == record.second, "a rebuilt object's image is its record");
    require(store.get(record.first, nullptr) == object, "a second get answers from the cache");
    rebuilt[record.first] = record.second;
  }

  std::multiset<std::string> iterated;
  require(store.startGetAll(), "the folder can be listed");
  while (const Ptr object = store.getNext()) iterated.insert(imageOf(object));
  store.endGetAll();
  std::multiset<std::string> expected;
  for (const auto& record : rebuilt) expected.insert(record.second);
  require(iterated == expected, "the iteration yields each rebuildable record once");

  // A rebuilt object written back through the cache keeps its image.
  for (const auto& record : rebuilt) {
    const Ptr object = store.get(record.first, nullptr);
    // Names of the store's own temporary files are not for records.
    const std::string key = object->getKey();
    if (key.size() > 255 || !FileSystemStorage::isPlainKey(key) ||
        VelLogin::temporary_file_name::matches(key.c_str())) {
      continue;
    }
    require(store.set(object, 0), "a session under a plain key is written");
    require(store.get(key, nullptr) == object, "and cached");
  }
  require(store.delAll(), "every record deletes");
  require(testsupport::listFolder(folder.path()).empty(), "nothing is left behind");
  return 0;
}
