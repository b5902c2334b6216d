#include "common/iostreams/streamexceptions.h"

#include <string>

#include <gtest/gtest.h>

namespace {

TEST(StreamExceptions, MessagesAreCopiedAndAddressIsNull) {
  std::string text = "zlib said no";
  StreamError error(text.c_str());
  OutputBufferFull full(&text, text.c_str());
  text.assign("overwritten");
  EXPECT_STREQ("zlib said no", StreamError(error).what());
  EXPECT_STREQ("zlib said no", full.what());
  EXPECT_EQ(nullptr, OutputBufferFull(full).addr());
  EXPECT_STREQ("", StreamError(nullptr).what());
}

}  // namespace
