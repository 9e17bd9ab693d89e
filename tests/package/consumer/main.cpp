// Uses an installed LoginStorage: its headers, its code and its version
// record. Prints the library file it runs with; exits non-zero when the
// library is not the release the package described (EXPECTED_VERSION).
#include <LoginStorage/LoginStorage.h>
#include <LoginStorage/version/VersionInfo.h>
#include <dlfcn.h>
#ifdef CONSUMER_REDIS
#include <LoginStorage/redis/RedisStorage.h>
#endif

#include <cstdio>
#include <string>

int main() {
  const VelLogin::VersionRecord& record = *__LoginStorage_version_info;
  const std::string version = std::to_string(record.majorReleaseNumber) + "." +
                              std::to_string(record.minorReleaseNumber) + "." +
                              std::to_string(record.optionPackNumber);
  std::printf("%s %s (%s)\n", record.name, version.c_str(), record.versionString);
  if (version != EXPECTED_VERSION) {
    std::fprintf(stderr, "expected version %s\n", EXPECTED_VERSION);
    return 1;
  }

  // Code of the library, not only its data.
  VelLogin::Exception exception("consumer", "main");
  if (exception.getMessage() != "consumer") return 1;

#ifdef CONSUMER_REDIS
  // Nothing listens on port 1: the store reports the failure as a result.
  VelLogin::RedisStorage redis("127.0.0.1", 1, "consumer:", 100);
  if (redis.getNumElements() != 0) return 1;
  std::printf("redis store linked\n");
#endif

  Dl_info where{};
  // The record itself may be copied into this program; its texts stay in the
  // library.
  if (dladdr(record.name, &where) == 0 || where.dli_fname == nullptr) return 1;
  std::printf("library=%s\n", where.dli_fname);
  return 0;
}
