// Login sessions kept on disk, one file per user, with a cache in front:
//
//   CacheStorage -> ObjectStorage -> FileSystemStorage
//
//   session_cache [--trace] [FOLDER]
//
// Run it with a folder to keep the records in, or with none to use a fresh
// temporary folder that is removed at the end. With --trace, the library's
// trace lines go to stderr, explained first.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "LoginStorage/LoginStorage.h"

using VelLogin::CacheStorage;
using VelLogin::FileSystemStorage;
using VelLogin::IStorable;
using VelLogin::ObjectStorage;
using VelLogin::RefCountPtr;

// A login session: who logged in and the token they were given. Its byte
// image is "user\ntoken".
class Session : public IStorable {
 public:
  Session(std::string user, std::string token)
      : m_user(std::move(user)), m_token(std::move(token)) {}

  std::string getKey() const override { return m_user; }

  bool serialize(char*& data, unsigned& len) override {
    m_image = m_user + '\n' + m_token;
    if (m_image.size() > len) return false;  // larger than the store accepts
    data = &m_image[0];
    len = static_cast<unsigned>(m_image.size());
    return true;
  }

  std::string toString() const override { return "session of " + m_user + " (" + m_token + ")"; }

  // The factory: rebuilds a session from its image, or gives null for bytes
  // that are not one.
  static RefCountPtr<IStorable> fromBytes(const char* data, unsigned len) {
    std::string image(data, len);
    size_t newline = image.find('\n');
    if (newline == std::string::npos || newline == 0) return RefCountPtr<IStorable>();
    return RefCountPtr<IStorable>(new Session(image.substr(0, newline), image.substr(newline + 1)));
  }

 private:
  std::string m_user;
  std::string m_token;
  std::string m_image;  // owns the bytes handed out by serialize()
};

namespace {

// Sessions stay in memory for 60 seconds; a sweep of stale ones runs at most
// once a minute, and only while more than 1000 are cached.
CacheStorage* openSessions(const std::string& folder) {
  auto* files = new FileSystemStorage(folder, 0, false, false, 0);
  auto* objects = new ObjectStorage(files, &Session::fromBytes);
  return new CacheStorage(objects, 60, 1000);  // owns the whole chain
}

// What a reader of the trace should know; the two odd lines are kept as they
// are because existing log readers look for them.
const char kTraceGuide[] =
    "Trace (stderr), severity in brackets:\n"
    "  [INFO]    what each store did: cache hits and misses, reads from the folder.\n"
    "  [WARNING] \"failed to get entity\": a key with no record (carol, alice after del).\n"
    "            \"given len is too small for record - should NOT happen\" follows every\n"
    "            record an iteration delivers: normal, despite its wording.\n"
    "  [ERROR]   \"readFile failed to read file\": the folder has no such record.\n"
    "            \"SUCCESS in deleting record\": a successful delete, reported as an error.\n"
    "            \"SKIPPING A RECORD\": an iteration stepped past an entry it could\n"
    "            not deliver, and went on with the next.\n\n";

void show(const char* what, const RefCountPtr<IStorable>& session) {
  std::printf("%-34s %s\n", what, session ? session->toString().c_str() : "(none)");
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // keep our lines in order with the trace on stderr
  bool trace = argc > 1 && std::string(argv[1]) == "--trace";
  if (trace) {
    --argc;
    ++argv;
  }
  std::string folder;
  bool temporary = argc < 2;
  if (temporary) {
    char pattern[] = "/tmp/loginstorage-example-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
      std::perror("mkdtemp");
      return 1;
    }
    folder = pattern;
  } else {
    folder = argv[1];
  }
  std::printf("Keeping sessions in %s\n", folder.c_str());

  if (trace) {
    std::fputs(kTraceGuide, stdout);
    activate_tellu_debug_output = 4;  // every message; 2 would show errors only
  }

  CacheStorage* sessions = openSessions(folder);
  sessions->set(RefCountPtr<IStorable>(new Session("alice", "7f3a9c")), 0);
  sessions->set(RefCountPtr<IStorable>(new Session("bob", "e41b07")), 0);

  // Both were cached on the way to disk: this read never touches the folder.
  show("alice, from the cache:", sessions->get("alice", nullptr));

  // A second stack over the same folder starts with an empty cache: its first
  // read misses and comes from the file, the second is a hit.
  CacheStorage* other = openSessions(folder);
  show("bob, read from disk (miss):", other->get("bob", nullptr));
  show("bob again (hit):", other->get("bob", nullptr));
  show("carol, never stored:", other->get("carol", nullptr));
  delete other;

  // Every record in the folder, rebuilt by the factory.
  std::printf("All sessions:\n");
  sessions->startGetAll();
  while (RefCountPtr<IStorable> session = sessions->getNext()) {
    std::printf("  %s\n", session->toString().c_str());
  }
  sessions->endGetAll();

  sessions->del("alice");
  show("alice, after del:", sessions->get("alice", nullptr));
  sessions->delAll();

  delete sessions;  // deletes the adapter and the folder store too
  if (temporary) rmdir(folder.c_str());
  return 0;
}
