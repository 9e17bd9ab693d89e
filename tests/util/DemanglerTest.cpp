#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "util/Demangler.h"
#include "util/TraceSink.h"

namespace VelLogin {
struct Outer {
  struct Inner {};
};
}  // namespace VelLogin

namespace elsewhere {
struct Thing {};
}  // namespace elsewhere

template <int N>
struct AVeryLongTemplateNameThatKeepsGoingAndGoingAndGoingAndGoingAndGoingAndGoingAndGoing {};
template <int N>
using LongName =
    AVeryLongTemplateNameThatKeepsGoingAndGoingAndGoingAndGoingAndGoingAndGoingAndGoing<N>;

namespace {

std::string label(const std::type_info& type, const char* method) {
  char buffer[Demangler::kLabelSize];
  std::memset(buffer, 'z', sizeof buffer);
  const char* result = Demangler::demangle(type.name(), method, buffer);
  EXPECT_EQ(result, buffer);
  return buffer;
}

// The library's namespace is dropped, any other kept; a long label is cut
// and terminated within the buffer.
TEST(DemanglerTest, LabelIsClassAndMethod) {
  EXPECT_EQ(label(typeid(VelLogin::Outer), "get"), "Outer::get");
  EXPECT_EQ(label(typeid(VelLogin::Outer::Inner), "expired"), "Outer::Inner::expired");
  EXPECT_EQ(label(typeid(elsewhere::Thing), "set"), "elsewhere::Thing::set");
  const std::string cut = label(typeid(LongName<1>), "aMethodNameThatIsLongToo");
  EXPECT_EQ(cut.size(), Demangler::kLabelSize - 1);
  EXPECT_EQ(cut.substr(0, 20), "AVeryLongTemplateNam");
}

// In a thread of its own, so that the formatter's buffer starts unused; a
// conversion that fails (a wide character the C locale cannot write) gives an
// empty text, not the part before it.
TEST(TellPrintfTest, FormatsAnyLengthAndAFailedConversionAsEmpty) {
  const std::string exact(256, 'e'), longText(3000, 'q');
  const wchar_t unconvertible[] = {0x20AC, 0};
  std::vector<std::string> texts;
  std::thread([&] {
    texts.push_back(tellu_printf("cut %ls", unconvertible));
    texts.push_back(tellu_printf("%s", exact.c_str()));
    texts.push_back(tellu_printf("%s-%d", "a", 5));
    texts.push_back(tellu_printf("cut %ls", unconvertible));
    texts.push_back(tellu_printf("%s!", longText.c_str()));
  }).join();
  EXPECT_EQ(texts, (std::vector<std::string>{"", exact, "a-5", "", longText + "!"}));
}

}  // namespace
