#include "hlp/Base64.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class Base64Tests : public testing::Test {};

TEST_F(Base64Tests, RfcVectorsBothWays) {
  struct Case {
    const char* data;
    const char* text;
  };
  const Case cases[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.data);
    const std::string data = c.data;
    EXPECT_EQ(hlp::Base64::Encode(data.data(), data.size()), c.text);
    std::vector<uint8_t> decoded = {1, 2, 3};
    ASSERT_TRUE(hlp::Base64::Decode(c.text, decoded));
    EXPECT_EQ(std::string(decoded.begin(), decoded.end()), data);
  }
}

TEST_F(Base64Tests, EveryByteValueRoundTrips) {
  std::vector<uint8_t> bytes;
  for (int i = 0; i < 256 * 3 + 1; ++i) {
    bytes.push_back(static_cast<uint8_t>(i * 7));
  }
  const std::string text = hlp::Base64::Encode(bytes.data(), bytes.size());
  EXPECT_EQ(text.size(), (bytes.size() + 2) / 3 * 4);
  EXPECT_EQ(
      text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="),
      std::string::npos);
  std::vector<uint8_t> decoded;
  ASSERT_TRUE(hlp::Base64::Decode(text, decoded));
  EXPECT_EQ(decoded, bytes);
}

TEST_F(Base64Tests, NonCanonicalTextIsRefusedAndOutputKept) {
  const char* const cases[] = {
      "Zg",   "Zg=",  "Zm9vY", "Zh==", "Zm9=", "Zg==Zg==", "Zm9v====", "Zm9v\n",       " Zm9v",
      "Zm 9", "Zm$v", "Zm-_",  "====", "Z===", "=Zm9",     "Zm9vYg=a", "Zm9vYmFy\r\n",
  };
  for (const char* text : cases) {
    SCOPED_TRACE(testing::PrintToString(std::string(text)));
    std::vector<uint8_t> out = {42};
    EXPECT_FALSE(hlp::Base64::Decode(text, out));
    EXPECT_EQ(out, std::vector<uint8_t>{42});
  }
  std::vector<uint8_t> out = {42};
  EXPECT_FALSE(hlp::Base64::Decode(std::string("Zm9\0", 4), out));
}

}  // namespace
