#include "hlp/Base64.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

TEST(Base64Tests, EncodesRfcVectorsAndTheLastTwoLetters) {
  const std::pair<std::string, std::string> cases[] = {{"", ""},
                                                       {"f", "Zg=="},
                                                       {"fo", "Zm8="},
                                                       {"foo", "Zm9v"},
                                                       {"foob", "Zm9vYg=="},
                                                       {"fooba", "Zm9vYmE="},
                                                       {"foobar", "Zm9vYmFy"},
                                                       {std::string("\xfb\xff\xbf", 3), "+/+/"}};
  for (const auto& [data, text] : cases) {
    EXPECT_EQ(hlp::Base64::Encode(data.data(), data.size()), text) << text;
  }
}

}  // namespace
