#include "common/iostreams/streamexceptions.h"

#include <string>

#include <gtest/gtest.h>

namespace {

TEST(StreamExceptions, MessagesAreCopiedAndAddressIsNull) {
  std::string text = "zlib said no";
  StreamError error(text.c_str());
  OutputBufferFull full(&text, text.c_str());
  text.assign("overwritten");
  StreamError errorCopy(error);
  EXPECT_STREQ("zlib said no", error.what());
  EXPECT_STREQ("zlib said no", errorCopy.what());
  EXPECT_STREQ("zlib said no", full.what());
  EXPECT_EQ(nullptr, full.addr());
  EXPECT_EQ(nullptr, OutputBufferFull(full).addr());

  EXPECT_STREQ("", StreamError(nullptr).what());
  EXPECT_STREQ("", NoEndOfStreamMarker().what());

  // Every one of them is caught as a std::exception.
  try {
    throw OutputBufferFull(nullptr, "Allocation Failed!");
  } catch (const std::exception& e) {
    EXPECT_STREQ("Allocation Failed!", e.what());
  }
}

}  // namespace
