// One Redis server shared: by stores with different prefixes, by two
// processes, by the cached object stack, and by the loginstorage tool.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "support/TestItem.h"
#include "LoginStorage/LoginStorage.h"
#include "LoginStorage/redis/RedisStorage.h"
#include "RedisServer.h"

using testsupport::readRecord;
using Records = std::map<std::string, std::string>;
using VelLogin::IStorable;
using VelLogin::RedisStorage;
using VelLogin::RefCountPtr;

namespace {

class RedisSharingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!server.started()) GTEST_SKIP() << "redis-server could not be started";
  }
  RedisStorage* open(const std::string& prefix) {
    return new RedisStorage("127.0.0.1", server.port(), prefix, 1000);
  }

  testsupport::RedisServer server;
};

TEST_F(RedisSharingTest, PrefixesKeepStoresApartEvenWithPatternCharacters) {
  std::unique_ptr<RedisStorage> alpha(open("alpha:")), glob(open("g*[x]?\\")), all(open(""));
  ASSERT_TRUE(alpha->setRaw("k", "A", 1, 0));
  ASSERT_TRUE(glob->setRaw("k", "G", 1, 0));
  ASSERT_TRUE(glob->setRaw("j", "J", 1, 0));
  EXPECT_EQ(server.command({"SET", "gyyx?\\k", "decoy"}), "+OK");

  EXPECT_EQ(readRecord(*alpha, "k"), "A");
  EXPECT_EQ(alpha->getNumElements(), 1u);
  EXPECT_EQ(glob->getNumElements(), 2u);
  EXPECT_EQ(all->getNumElements(), 4u);
  EXPECT_EQ(testsupport::drain(*glob), (Records{{"j", "J"}, {"k", "G"}}));
  EXPECT_TRUE(glob->delAll());
  EXPECT_EQ(testsupport::drain(*all), (Records{{"alpha:k", "A"}, {"gyyx?\\k", "decoy"}}));
}

TEST_F(RedisSharingTest, TwoProcessesShareRecords) {
  // The child writes through its own store; its exit status counts failures.
  pid_t child = fork();
  if (child == 0) {
    RedisStorage store("127.0.0.1", server.port(), "shared:", 1000);
    int failed = 0;
    for (int i = 0; i < 100; ++i) {
      const std::string value = "from child " + std::to_string(i);
      if (!store.setRaw("r" + std::to_string(i), value.data(), static_cast<unsigned>(value.size()),
                        i == 0 ? 600 : 0)) {
        ++failed;
      }
    }
    _exit(failed);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

  std::unique_ptr<RedisStorage> store(open("shared:"));
  EXPECT_EQ(store->getNumElements(), 100u);
  EXPECT_EQ(readRecord(*store, "r42"), "from child 42");
  EXPECT_EQ(server.command({"TTL", "shared:r0"}), ":600");
}

RefCountPtr<IStorable> itemFromBytes(const char* data, unsigned len) {
  return testsupport::makeItem(std::string(data, len));
}

TEST_F(RedisSharingTest, TheCachedObjectStackWorksUnchanged) {
  auto stack = [this] {
    return std::unique_ptr<VelLogin::CacheStorage>(new VelLogin::CacheStorage(
        new VelLogin::ObjectStorage(open("sessions:"), &itemFromBytes), 60, 1000));
  };
  std::unique_ptr<VelLogin::CacheStorage> writer = stack(), reader = stack();
  for (const char* name : {"alice", "bob", "carol"}) {
    ASSERT_TRUE(writer->set(testsupport::makeItem(name), 30));
  }
  EXPECT_EQ(server.command({"GET", "sessions:bob"}), "bob");
  EXPECT_EQ(server.command({"TTL", "sessions:bob"}), ":30");

  RefCountPtr<IStorable> bob = reader->get("bob", nullptr);
  ASSERT_TRUE(bob);
  EXPECT_EQ(bob->getKey(), "bob");
  EXPECT_FALSE(reader->get("dave", nullptr));
  std::vector<std::string> seen;
  ASSERT_TRUE(reader->startGetAll());
  while (RefCountPtr<IStorable> item = reader->getNext()) seen.push_back(item->getKey());
  reader->endGetAll();
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (std::vector<std::string>{"alice", "bob", "carol"}));
  EXPECT_TRUE(writer->del("alice"));
  EXPECT_EQ(server.command({"EXISTS", "sessions:alice"}), ":0");
}

}  // namespace
