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
  auto text = [](std::string s) {
    return base64Encode(std::vector<std::uint8_t>(s.begin(), s.end()));
  };
  EXPECT_EQ(text(""), "");
  EXPECT_EQ(text("f"), "Zg==");
  EXPECT_EQ(text("fo"), "Zm8=");
  EXPECT_EQ(text("foo"), "Zm9v");
  EXPECT_EQ(text("foobar"), "Zm9vYmFy");
  EXPECT_EQ(base64Encode(std::vector<std::uint8_t>{0xfb, 0xff}), "+/8=");
}

TEST(Base64, BreaksAfterEveryFullLineOfSixtyFourButNotAtTheEnd) {
  EXPECT_EQ(base64Encode(bytes(48)).size(), 64u) << "one full line, no trailing break";
  const std::string two = base64Encode(bytes(49));
  ASSERT_EQ(two.size(), 64u + 2 + 4);
  EXPECT_EQ(two.substr(64, 2), "\r\n");
  const std::string many = base64Encode(bytes(1000));
  std::size_t lines = 0;
  for (std::size_t at = 0; at < many.size(); at += 66) {
    const std::string line = many.substr(at, 64);
    EXPECT_EQ(line.find_first_of("\r\n"), std::string::npos);
    if (at + 64 < many.size()) {
      EXPECT_EQ(many.substr(at + 64, 2), "\r\n");
    }
    ++lines;
  }
  EXPECT_EQ(lines, (1336 + 63) / 64u);
}

TEST(Base64, RoundTripsEveryLengthAndIgnoresLineBreaks) {
  for (std::size_t n = 0; n < 200; ++n) {
    auto data = bytes(n);
    EXPECT_EQ(base64Decode(base64Encode(data)), data) << n;
  }
  EXPECT_EQ(base64Decode("Zm9v\nYmFy\r\n"),
            (std::vector<std::uint8_t>{'f', 'o', 'o', 'b', 'a', 'r'}));
}

TEST(Base64, RejectsWhatIsNotBase64) {
  for (const char* bad : {"Zm9", "Zm9v!", "Z===", "Zg==Zg==", "Zm 9v", "Zg=a"}) {
    EXPECT_THROW(base64Decode(bad), std::invalid_argument) << bad;
  }
}

}  // namespace
}  // namespace lumo::test
