#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <typeinfo>

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

namespace {

std::string label(const std::type_info& type, const char* method) {
  char buffer[Demangler::kLabelSize];
  std::memset(buffer, 'z', sizeof buffer);
  const char* result = Demangler::demangle(type.name(), method, buffer);
  EXPECT_EQ(result, buffer);
  return buffer;
}

TEST(DemanglerTest, LabelIsClassAndMethodWithTheLibraryNamespaceDropped) {
  EXPECT_EQ(label(typeid(VelLogin::Outer), "get"), "Outer::get");
  EXPECT_EQ(label(typeid(VelLogin::Outer::Inner), "expired"), "Outer::Inner::expired");
  EXPECT_EQ(label(typeid(elsewhere::Thing), "set"), "elsewhere::Thing::set");
}

TEST(DemanglerTest, LongLabelIsCutAndTerminatedWithinTheBuffer) {
  const std::string result =
      label(typeid(AVeryLongTemplateNameThatKeepsGoingAndGoingAndGoingAndGoingAndGoingAndGoingAndGoing<1>),
            "aMethodNameThatIsLongToo");
  EXPECT_EQ(result.size(), Demangler::kLabelSize - 1);
  EXPECT_EQ(result.substr(0, 20), "AVeryLongTemplateNam");
}

TEST(TellPrintfTest, FormatsIntoABufferThatGrowsForLongTexts) {
  const std::string longText(3000, 'q');
  EXPECT_STREQ(tellu_printf("%s-%d", "a", 5), "a-5");
  EXPECT_EQ(std::string(tellu_printf("%s!", longText.c_str())), longText + "!");
}

}  // namespace
