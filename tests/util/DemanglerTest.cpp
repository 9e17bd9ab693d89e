#include <gtest/gtest.h>

#include <cstring>
#include <exception>
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

template <int N>
struct AVeryLongTemplateNameThatKeepsGoingAndGoingAndGoingAndGoingAndGoingAndGoingAndGoing {};

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
  EXPECT_EQ(label(typeid(std::exception), "set"), "std::exception::set");
  const std::string cut = label(
      typeid(
          AVeryLongTemplateNameThatKeepsGoingAndGoingAndGoingAndGoingAndGoingAndGoingAndGoing<1>),
      "aMethodNameThatIsLongToo");
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
  // A braced list evaluates its elements in order, each copied before the next.
  std::thread([&] {
    texts = {tellu_printf("cut %ls", unconvertible), tellu_printf("%s", exact.c_str()),
             tellu_printf("%s-%d", "a", 5), tellu_printf("cut %ls", unconvertible),
             tellu_printf("%s!", longText.c_str())};
  }).join();
  EXPECT_EQ(texts, (std::vector<std::string>{"", exact, "a-5", "", longText + "!"}));
}

}  // namespace
