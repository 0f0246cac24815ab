#include "platform/base64.h"

#include <gtest/gtest.h>

#include <numeric>

namespace lumo::test {
namespace {

std::vector<std::uint8_t> bytes(std::size_t n) {
  std::vector<std::uint8_t> data(n);
  std::iota(data.begin(), data.end(), std::uint8_t{7});
  return data;
}

TEST(Base64, EncodesWithPaddingLikeTheStandard) {
  for (const auto& [text, encoded] :
       {std::pair<std::string, std::string>{"f", "Zg=="}, {"foo", "Zm9v"}, {"\xfb\xff", "+/8="}}) {
    EXPECT_EQ(base64Encode(std::vector<std::uint8_t>(text.begin(), text.end())), encoded);
  }
}

// Lines of exactly 64 characters joined by CRLF, with no break after the last one.
TEST(Base64, BreaksAfterEveryFullLineOfSixtyFourButNotAtTheEnd) {
  EXPECT_EQ(base64Encode(bytes(48)).size(), 64u);
  const std::string encoded = base64Encode(bytes(1000));
  std::string plain = encoded;
  std::erase(plain, '\r');
  std::erase(plain, '\n');
  ASSERT_EQ(plain.size(), 1336u);
  std::string expected;
  for (std::size_t at = 0; at < plain.size(); at += 64) {
    expected += (at == 0 ? "" : "\r\n") + plain.substr(at, 64);
  }
  EXPECT_EQ(encoded, expected);
}

TEST(Base64, RoundTripsEveryLengthAndIgnoresLineBreaks) {
  for (std::size_t n = 0; n < 100; ++n) {
    auto data = bytes(n);
    EXPECT_EQ(base64Decode(base64Encode(data)), data) << n;
  }
  EXPECT_EQ(base64Decode("Zm9v\nYmFy\r\n"),
            (std::vector<std::uint8_t>{'f', 'o', 'o', 'b', 'a', 'r'}));
  for (const char* bad : {"Zm9", "Zm9v!", "Zg==Zg==", "Zg=a"}) {
    EXPECT_THROW(base64Decode(bad), std::invalid_argument) << bad;
  }
}

}  // namespace
}  // namespace lumo::test
