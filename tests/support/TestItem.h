// A storable for the store suites: an object that knows its key, counts how
// often it was asked for it, notes its own destruction in an event log and
// may run a call-back as it goes.
#ifndef LOGINSTORAGE_TESTS_SUPPORT_TESTITEM_H
#define LOGINSTORAGE_TESTS_SUPPORT_TESTITEM_H

#include <functional>
#include <string>
#include <vector>

#include "LoginStorage/storage/IStorable.h"
#include "LoginStorage/storage/RefCountPtr.h"

namespace testsupport {

using Events = std::vector<std::string>;

class TestItem : public VelLogin::IStorable {
 public:
  explicit TestItem(std::string key, Events* events = nullptr)
      : m_key(std::move(key)), m_events(events) {}
  ~TestItem() override {
    if (m_events != nullptr) m_events->push_back("~" + m_key);
    if (onDestroy) onDestroy();
  }
  std::string getKey() const override {
    ++keyCalls;
    return m_key;
  }
  bool serialize(char*& data, unsigned& len) override {
    data = &m_key[0];
    len = static_cast<unsigned>(m_key.size());
    return true;
  }
  std::string toString() const override { return "item " + m_key; }

  mutable int keyCalls = 0;
  std::function<void()> onDestroy;

 private:
  std::string m_key;
  Events* m_events;
};

inline VelLogin::RefCountPtr<VelLogin::IStorable> makeItem(const std::string& key,
                                                           Events* events = nullptr) {
  return VelLogin::RefCountPtr<VelLogin::IStorable>(new TestItem(key, events));
}

}  // namespace testsupport

#endif
