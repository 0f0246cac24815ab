#include "arguments.h"

#include <gtest/gtest.h>

#include <functional>

#include "exit_status.h"

namespace lumo::test {
using namespace lumo::cli;
namespace {

TEST(Arguments, EachFormTakesItsGoodTexts) {
  EXPECT_EQ(parseViewport("--viewport", "187.5x406"), (Size{187.5, 406}));
  EXPECT_EQ(parseRegion("--ignore", "-5,10,20,30"), Region(-5, 10, 20, 30));
  const FloatingArgument f = parseFloating("--floating", "1,2,30,40,5,6,7,8");
  EXPECT_EQ(f.region, Region(1, 2, 30, 40));
  EXPECT_EQ(std::vector<std::int64_t>({f.maxUp, f.maxDown, f.maxLeft, f.maxRight}),
            std::vector<std::int64_t>({5, 6, 7, 8}));
  EXPECT_EQ(parseProperty("--property", "device=Pixel=7"),
            (std::pair<std::string, std::string>{"device", "Pixel=7"}));
  EXPECT_TRUE(parseYesNo("--save-new-tests", "yes"));
  EXPECT_FALSE(parseYesNo("--save-new-tests", "no"));
  EXPECT_EQ(parseMatchLevel("--match-level", "exact"), MatchLevelExact);
  EXPECT_EQ(parsePort("--port", "65535"), 65535);
  EXPECT_EQ(parseMatchTimeout("--match-timeout", "0"), 0u);
  EXPECT_EQ(parseMatchTimeout("--match-timeout", "2"), 2u);
  EXPECT_EQ(parsePositiveNumber("--scale", "2.5"), 2.5);
  EXPECT_EQ(parseNonNegativeNumber("--status-bar-height", "0", "points"), 0.0);
}

// Every refusal is a UsageError that starts with the option and quotes the text.
TEST(Arguments, EachFormRefusesItsBadTextsNamingOptionAndText) {
  const struct {
    std::function<void(std::string_view)> parse;
    std::vector<const char*> bad;
  } forms[] = {
      {[](auto t) { parseViewport("--viewport", t); }, {"390", "x844", "0x844", "390x844x2"}},
      {[](auto t) { parseRegion("--viewport", t); }, {"1,2,3", "1,2,0,4", "1.5,2,3,4"}},
      {[](auto t) { parseFloating("--viewport", t); }, {"1,2,30,40,5,6,7", "1,2,30,40,5,-6,7,8"}},
      {[](auto t) { parseProperty("--viewport", t); }, {"device", "=Pixel", "device="}},
      {[](auto t) { parseYesNo("--viewport", t); }, {"true", "1", ""}},
      {[](auto t) { parseMatchLevel("--viewport", t); }, {"Fuzzy", ""}},
      {[](auto t) { parsePort("--viewport", t); }, {"-1", "65536", "80x"}},
      {[](auto t) { parseMatchTimeout("--viewport", t); }, {"1", "-2", "2.5"}},
      {[](auto t) { parsePositiveNumber("--viewport", t); }, {"0", "two", "inf"}},
      {[](auto t) { parseNonNegativeNumber("--viewport", t, "points"); }, {"-1", "nan", ""}},
  };
  for (const auto& form : forms) {
    for (const char* text : form.bad) {
      try {
        form.parse(text);
        ADD_FAILURE() << "took \"" << text << "\"";
      } catch (const UsageError& e) {
        const std::string message = e.what();
        EXPECT_EQ(message.find("--viewport: expected "), 0u) << message;
        EXPECT_NE(message.find("\"" + std::string(text) + "\""), std::string::npos) << message;
      }
    }
  }
}

}  // namespace
}  // namespace lumo::test
