#include <gtest/gtest.h>

#include "LoginStorage/LoginStorage.h"

namespace {

TEST(ExceptionTest, CarriesMessageAndLocationThroughAThrow) {
  try {
    throw VelLogin::Exception("cannot read", "/var/lib/sessions/alice");
  } catch (const VelLogin::Exception& caught) {
    EXPECT_EQ(caught.getMessage(), "cannot read");
    EXPECT_EQ(caught.getLocation(), "/var/lib/sessions/alice");
  }
}

}  // namespace
