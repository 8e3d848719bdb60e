#include "foundation/error.h"

#include <gtest/gtest.h>

using KOLT::QUILLON_SERVER::Error;
using KOLT::QUILLON_SERVER::ErrorString;

TEST(ErrorTest, EveryCodeHasTheSameKindOfTextAndIsCaughtAsRuntimeError) {
  EXPECT_EQ(ErrorString(static_cast<Error::ErrorCode>(12345)), "Mail Server error [12345]");
  EXPECT_EQ(ErrorString(static_cast<Error::ErrorCode>(0)), "Mail Server error [0]");
  EXPECT_EQ(ErrorString(static_cast<Error::ErrorCode>(-7)), "Mail Server error [-7]");
  EXPECT_EQ(ErrorString(static_cast<Error::ErrorCode>(INT32_MIN)),
            "Mail Server error [-2147483648]");
  try {
    throw Error(static_cast<Error::ErrorCode>(4100));
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "Mail Server error [4100]");
    EXPECT_EQ(dynamic_cast<const Error &>(e).code(), 4100);
    return;
  }
  FAIL() << "Error was not caught as std::runtime_error";
}
