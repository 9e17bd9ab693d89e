// The Redis store against a redis-server that this program starts itself on
// a free loopback port, with its own folder and no persistence, and stops
// when it exits. Every figure is paired: blocks of the store's operation
// alternate with blocks of the same command sent through bare hiredis on a
// connection of its own, on the same records, so that the ratio shows what
// the store adds to the round trip. A cache miss through the whole object
// stack is set beside the same stack over the folder store. Reads and writes
// are measured again on a server that requires a password (the store and the
// floor both authenticated) and with the store finding its server through a
// sentinel.
//
// When redis-server is not on the PATH the benchmarks are not registered; a
// note on stderr says so. (Without hiredis this file is not built at all.)
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "LoginStorage/cache/CacheStorage.h"
#include "LoginStorage/fs/FileSystemStorage.h"
#include "LoginStorage/object/ObjectStorage.h"
#include "LoginStorage/redis/RedisStorage.h"
#include "Blob.h"

namespace {

using namespace VelLogin;

constexpr size_t kRecords = 256;
constexpr unsigned kTimeoutMs = 1000;
const char kPrefix[] = "lsbench:";

bool onPath(const char* program) {
  const char* path = std::getenv("PATH");
  std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
  size_t start = 0;
  while (start <= dirs.size()) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    const std::string candidate = dirs.substr(start, end - start) + "/" + program;
    if (end > start && ::access(candidate.c_str(), X_OK) == 0) return true;
    start = end + 1;
  }
  return false;
}

unsigned freeLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("no free loopback port");
  }
  ::close(fd);
  return ntohs(address.sin_port);
}

struct ReplyDeleter {
  void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using Reply = std::unique_ptr<redisReply, ReplyDeleter>;

struct ContextDeleter {
  void operator()(redisContext* context) const { redisFree(context); }
};
using Context = std::unique_ptr<redisContext, ContextDeleter>;

Context connectTo(unsigned port) {
  Context context(redisConnect("127.0.0.1", static_cast<int>(port)));
  if (!context || context->err != 0) return nullptr;
  return context;
}

// The server for the whole program, started on first use. Started with
// PR_SET_PDEATHSIG so that it goes when this program goes, even when it is
// killed.
class Server {
 public:
  // A server with these extra arguments, or with sentinelOf non-zero a
  // sentinel monitoring the server on that port as "bench".
  explicit Server(std::vector<std::string> extra = {}, unsigned sentinelOf = 0)
      : m_folder(bench::freshFolder()), m_port(freeLoopbackPort()) {
    const std::string port = std::to_string(m_port);
    const std::string log = m_folder + "server.log";
    std::vector<std::string> arguments{"redis-server"};
    if (sentinelOf != 0) {
      const std::string config = m_folder + "sentinel.conf";
      std::FILE* file = std::fopen(config.c_str(), "w");
      if (file == nullptr) throw std::runtime_error("cannot write " + config);
      std::fprintf(file, "port %s\nbind 127.0.0.1\ndir %s\nsentinel monitor bench 127.0.0.1 %u 1\n",
                   port.c_str(), m_folder.c_str(), sentinelOf);
      std::fclose(file);
      arguments.insert(arguments.end(), {config, "--sentinel"});
    } else {
      arguments.insert(arguments.end(), {"--port", port, "--bind", "127.0.0.1", "--save", "",
                                         "--appendonly", "no", "--dir", m_folder});
      arguments.insert(arguments.end(), extra.begin(), extra.end());
    }
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    const pid_t parent = ::getpid();
    m_pid = ::fork();
    if (m_pid < 0) throw std::runtime_error("cannot fork");
    if (m_pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGTERM);
      if (::getppid() != parent) ::_exit(1);
      std::freopen(log.c_str(), "ab", stdout);
      std::freopen(log.c_str(), "ab", stderr);
      ::execvp("redis-server", argv.data());
      ::_exit(127);
    }
    // Up to ten seconds until it answers; it usually takes a few milliseconds.
    for (int attempt = 0; attempt < 1000; ++attempt) {
      if (::waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
        m_pid = 0;
        throw std::runtime_error("redis-server exited at once; see " + log);
      }
      if (Context context = connectTo(m_port)) {
        // Up when it answers, if only that a password is wanted.
        Reply pong(static_cast<redisReply*>(redisCommand(context.get(), "PING")));
        if (pong) return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    stop();
    throw std::runtime_error("redis-server did not answer; see " + log);
  }
  ~Server() { stop(); }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  unsigned port() const { return m_port; }

 private:
  void stop() {
    if (m_pid <= 0) return;
    ::kill(m_pid, SIGTERM);
    ::waitpid(m_pid, nullptr, 0);
    m_pid = 0;
  }

  std::string m_folder;
  unsigned m_port;
  pid_t m_pid = 0;
};

Server& server() {
  static Server instance;
  return instance;
}

const char kPassword[] = "bench-password";

Server& authServer() {
  static Server instance({"--requirepass", kPassword});
  return instance;
}

Server& sentinel() {
  static Server instance({}, server().port());
  return instance;
}

// How the store reaches its server: directly, with AUTH, through a sentinel.
enum class Setup { Plain, Auth, Sentinel };

// kRecords records of size bytes under kPrefix, a store over them and a bare
// connection beside it.
struct Records {
  std::vector<std::string> keys = bench::fileKeys(kRecords);
  std::vector<std::string> fullKeys;
  Context bare;

  Setup setup;

  explicit Records(size_t size, Setup how = Setup::Plain)
      : bare(connectTo(how == Setup::Auth ? authServer().port() : server().port())), setup(how) {
    if (!bare) throw std::runtime_error("cannot connect to redis-server");
    if (setup == Setup::Auth) {
      Reply ok(static_cast<redisReply*>(redisCommand(bare.get(), "AUTH %s", kPassword)));
      if (!ok || ok->type != REDIS_REPLY_STATUS) throw std::runtime_error("AUTH failed");
    }
    const std::string bytes = bench::recordBytes(size, 1);
    for (const std::string& key : keys) {
      fullKeys.push_back(kPrefix + key);
      const std::string& full = fullKeys.back();
      Reply ok(static_cast<redisReply*>(redisCommand(bare.get(), "SET %b %b", full.data(),
                                                     full.size(), bytes.data(), bytes.size())));
      if (!ok || ok->type != REDIS_REPLY_STATUS) throw std::runtime_error("cannot fill records");
    }
  }

  RedisStorage* store() const {
    RedisOptions options;
    options.prefix = kPrefix;
    options.timeoutMs = kTimeoutMs;
    if (setup == Setup::Auth) {
      options.port = authServer().port();
      options.password = kPassword;
    } else if (setup == Setup::Sentinel) {
      options.sentinels = {{"127.0.0.1", sentinel().port()}};
      options.masterName = "bench";
    } else {
      options.port = server().port();
    }
    return new RedisStorage(options);
  }

  // The floor: one command on the bare connection, its reply freed.
  template <typename... Args>
  void command(benchmark::State& state, const char* format, Args... args) {
    Reply reply(static_cast<redisReply*>(redisCommand(bare.get(), format, args...)));
    if (!reply || reply->type == REDIS_REPLY_ERROR) state.SkipWithError("hiredis command failed");
  }
};

RefCountPtr<IStorable> blobFromBytes(const char* data, unsigned len) {
  return RefCountPtr<IStorable>(new Blob(std::string(), std::string(data, len)));
}

// Blocks of each contender in turn, the first of the turn moving on by one
// each iteration, so that all meet the same state of a shared machine.
// Reports per call: op_ns and floor_ns (the first and last contender), their
// ratio, and for a middle contender other_ns and its ratio to the floor.
template <typename... Fns>
void paired(benchmark::State& state, size_t block, Fns... fns) {
  std::vector<std::function<void()>> contenders{fns...};
  std::vector<double> ns(contenders.size(), 0.0);
  size_t first = 0;
  for (auto _ : state) {
    for (size_t k = 0; k < contenders.size(); ++k) {
      const size_t c = (first + k) % contenders.size();
      const auto start = std::chrono::steady_clock::now();
      for (size_t b = 0; b < block; ++b) contenders[c]();
      ns[c] += std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
                   .count();
    }
    first = (first + 1) % contenders.size();
  }
  const double calls = double(state.iterations()) * double(block);
  state.counters["op_ns"] = ns.front() / calls;
  state.counters["floor_ns"] = ns.back() / calls;
  state.counters["ratio"] = ns.front() / ns.back();
  if (contenders.size() == 3) {
    state.counters["other_ns"] = ns[1] / calls;
    state.counters["other_ratio"] = ns[1] / ns.back();
  }
}

constexpr size_t kBlock = 16;

template <Setup How>
void redisGet(benchmark::State& state) {
  Records records(static_cast<size_t>(state.range(0)), How);
  std::unique_ptr<RedisStorage> store(records.store());
  const unsigned maxLen = store->getMaxRecordLen();
  size_t i = 0;
  size_t j = 0;
  paired(state, kBlock,
         [&] {
           char* data = nullptr;
           unsigned len = maxLen;
           if (!store->getRaw(records.keys[i], data, len)) state.SkipWithError("getRaw failed");
           benchmark::DoNotOptimize(data);
           delete[] data;
           if (++i == kRecords) i = 0;
         },
         [&] {
           const std::string& key = records.fullKeys[j];
           records.command(state, "GET %b", key.data(), key.size());
           if (++j == kRecords) j = 0;
         });
}

// SET, with a time to live of expiration seconds when it is not 0.
void redisSet(benchmark::State& state, unsigned expiration, Setup how = Setup::Plain) {
  const size_t size = static_cast<size_t>(state.range(0));
  Records records(size, how);
  std::unique_ptr<RedisStorage> store(records.store());
  const std::string bytes = bench::recordBytes(size, 2);
  size_t i = 0;
  size_t j = 0;
  paired(state, kBlock,
         [&] {
           if (!store->setRaw(records.keys[i], bytes.data(), static_cast<unsigned>(size),
                              expiration)) {
             state.SkipWithError("setRaw failed");
           }
           if (++i == kRecords) i = 0;
         },
         [&] {
           const std::string& key = records.fullKeys[j];
           if (expiration == 0) {
             records.command(state, "SET %b %b", key.data(), key.size(), bytes.data(), size);
           } else {
             records.command(state, "SET %b %b EX %u", key.data(), key.size(), bytes.data(), size,
                             expiration);
           }
           if (++j == kRecords) j = 0;
         });
}

void redisSetPersistent(benchmark::State& state) { redisSet(state, 0); }
void redisSetExpiring(benchmark::State& state) { redisSet(state, 60); }
void redisSetAuth(benchmark::State& state) { redisSet(state, 0, Setup::Auth); }
void redisSetSentinel(benchmark::State& state) { redisSet(state, 0, Setup::Sentinel); }

// A cache miss through CacheStorage -> ObjectStorage -> raw store: a lifetime
// of -1 makes every cached record stale, so each get goes down to the store
// and refreshes the cached record. The same stack over the folder store runs
// as the middle contender.
void redisStackGetCold(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  Records records(size);
  CacheStorage overRedis(new ObjectStorage(records.store(), &blobFromBytes), -1, 0xFFFFFFFFu);
  const std::string folder = bench::freshFolder();
  const std::string bytes = bench::recordBytes(size, 1);
  for (const std::string& key : records.keys) bench::writeRecordFile(folder, key, bytes);
  CacheStorage overFolder(
      new ObjectStorage(new FileSystemStorage(folder, 0, false, false, 0), &blobFromBytes), -1,
      0xFFFFFFFFu);
  for (const std::string& key : records.keys) {
    overRedis.get(key, nullptr);
    overFolder.get(key, nullptr);
  }
  size_t i = 0;
  size_t j = 0;
  size_t k = 0;
  paired(state, kBlock,
         [&] {
           if (!overRedis.get(records.keys[i], nullptr)) state.SkipWithError("get failed");
           if (++i == kRecords) i = 0;
         },
         [&] {
           if (!overFolder.get(records.keys[j], nullptr)) state.SkipWithError("get failed");
           if (++j == kRecords) j = 0;
         },
         [&] {
           const std::string& key = records.fullKeys[k];
           records.command(state, "GET %b", key.data(), key.size());
           if (++k == kRecords) k = 0;
         });
}

// A server or records that cannot be set up fail the benchmark, and so the
// run, instead of ending the program.
template <void (*Body)(benchmark::State&)>
void guarded(benchmark::State& state) {
  try {
    Body(state);
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
  }
}

[[maybe_unused]] const bool registered = [] {
  if (!onPath("redis-server")) {
    std::fprintf(stderr, "redis-server not found on the PATH: the Redis benchmarks are skipped\n");
    return false;
  }
  for (int64_t size : {100, 4096}) {
    benchmark::RegisterBenchmark("paired:redis_get", guarded<redisGet<Setup::Plain>>)
        ->Arg(size)
        ->UseRealTime();
    benchmark::RegisterBenchmark("paired:redis_set", guarded<redisSetPersistent>)
        ->Arg(size)
        ->UseRealTime();
    benchmark::RegisterBenchmark("paired:redis_set_ex", guarded<redisSetExpiring>)
        ->Arg(size)
        ->UseRealTime();
    benchmark::RegisterBenchmark("paired:redis_stack_get_cold", guarded<redisStackGetCold>)
        ->Arg(size)
        ->UseRealTime();
    benchmark::RegisterBenchmark("paired:redis_get_auth", guarded<redisGet<Setup::Auth>>)
        ->Arg(size)
        ->UseRealTime();
    benchmark::RegisterBenchmark("paired:redis_set_auth", guarded<redisSetAuth>)
        ->Arg(size)
        ->UseRealTime();
    benchmark::RegisterBenchmark("paired:redis_get_sentinel", guarded<redisGet<Setup::Sentinel>>)
        ->Arg(size)
        ->UseRealTime();
    benchmark::RegisterBenchmark("paired:redis_set_sentinel", guarded<redisSetSentinel>)
        ->Arg(size)
        ->UseRealTime();
  }
  return true;
}();

}  // namespace
