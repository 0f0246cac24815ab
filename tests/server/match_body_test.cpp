#include <gtest/gtest.h>

#include "json_limits.h"

namespace lumo::test {
namespace {

using namespace lumo::server::detail;

// The lifted parse either gives exactly what the parser gives or leaves the body to it.
TEST(MatchBody, LiftedParseIsTheParsersOrNothing) {
  struct Case {
    const char* body;
    bool lifted;
  };
  const Case cases[] = {
      {R"({ "options" : {} , "appOutput" : { "screenshot64" :  "QUJD" } })", true},
      // Elsewhere than appOutput, or twice: the parser decides which one counts.
      {R"({"appOutput":{},"options":{"screenshot64":"QUJD"}})", false},
      {R"({"appOutput":{"screenshot64":"QUJD","screenshot64":"REVG"}})", false},
      // A key spelled with an escape could be the real one.
      {R"({"appOutput":{"screenshot64":"QUJD","screensh\u006ft64":"REVG"}})", false},
      {R"({"appOutput":{"screenshot64":"QUJD\r\nREVG\r\n"}})", true},
      {R"({"appOutput":{"screenshot64":"QU\/JD"}})", false},
      {R"({"appOutput":{"screenshot64":"QUJD\"}})", false},
      {"{\"appOutput\":{\"screenshot64\":\"QU\nJD\"}}", false},
      {R"({"appOutput":{"screenshot64":12}})", false},
      {R"({"appOutput":{"tag":"x\"screenshot64":"QUJD"}})", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    const auto lifted = parseMatchBody(c.body);
    ASSERT_EQ(lifted.has_value(), c.lifted);
    if (lifted) {
      EXPECT_EQ(*lifted, Json::parse(c.body));
    }
  }
}

}  // namespace
}  // namespace lumo::test
