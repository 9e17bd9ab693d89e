#include <gtest/gtest.h>

#include "LoginStorage/LoginStorage.h"

TEST(ExceptionTest, KeepsMessageAndLocationApart) {
  const VelLogin::Exception error("cannot read", "/var/lib/sessions/alice");
  EXPECT_EQ(error.getMessage(), "cannot read");
  EXPECT_EQ(error.getLocation(), "/var/lib/sessions/alice");
}
