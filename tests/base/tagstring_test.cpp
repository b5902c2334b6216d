#include "common/base/tagstring.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(TagString, ValuesAccumulateInOrder) {
  struct Row {
    std::vector<const char*> set;
    std::vector<std::string> held;
  };
  const Row rows[] = {
      {{}, {}},
      {{"DOE^JOHN", "DOE^J"}, {"DOE^JOHN", "DOE^J"}},
      {{"A", "A", ""}, {"A", "A", ""}},  // repeats and empty values kept
      {{nullptr, "X"}, {"", "X"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.held.size());
    TagString s;
    TagValue& value = s;
    for (const char* text : row.set) value.setValue(text);
    ASSERT_EQ(row.held.size(), value.size());
    std::vector<std::string> held;
    for (auto it = s.begin(); it != s.end(); ++it) {
      held.push_back((*it)->c_str());
    }
    EXPECT_EQ(row.held, held);
    if (!row.held.empty()) {
      EXPECT_EQ(row.held[0], value.front().c_str());
    }
  }
}

TEST(TagString, OwnsCopiesOfTheText) {
  char text[] = "ORIGINAL";
  TagString s;
  s.setValue(text);
  text[0] = 'X';
  EXPECT_STREQ("ORIGINAL", s.front().c_str());
  EXPECT_EQ(0u, TagString().front().length());
}

TEST(TagString, DestructionReleasesOnlyItsShare) {
  TagString::StringPtr kept;
  {
    std::unique_ptr<TagValue> value(new TagString);
    value->setValue("first");
    value->setValue("second");
    const TagString& s = static_cast<const TagString&>(*value);
    kept = *s.begin();
    EXPECT_EQ(2, kept.use_count());
    EXPECT_EQ(1, std::next(s.begin())->use_count());
  }  // deleted through the base: every pointer in the list is released
  EXPECT_EQ(1, kept.use_count());
  EXPECT_STREQ("first", kept->c_str());
}

}  // namespace
