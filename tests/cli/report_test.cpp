#include "report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "run_lumo.h"

namespace lumo::test {
namespace {

using ::testing::HasSubstr;

TEST(Report, JUnitXmlEscapesTheUsersTextAndCountsEachKindOfCheckpoint) {
  TestReport report{"Shop & Co",          "Log<in>", "Nightly \"7\"", {},
                    "http://r/s?a=1&b=2", nullptr,   kExitUnreachable};
  report.checkpoints = {{"it's", "matched"},
                        {"b\x01"
                         "ad",
                         "did not match"},
                        {"fresh", "new"},
                        {"late", "no answer"},
                        {"never"}};
  const std::string xml = junitXml(report);
  EXPECT_THAT(xml, HasSubstr("<testsuite name=\"Shop &amp; Co.Log&lt;in&gt;\" tests=\"5\" "
                             "failures=\"1\" errors=\"2\" skipped=\"1\">"));
  EXPECT_THAT(xml, HasSubstr("name=\"it&apos;s\"/>"));
  EXPECT_THAT(xml, HasSubstr("name=\"b?ad\""));
  EXPECT_THAT(xml, HasSubstr("See details at http://r/s?a=1&amp;b=2</failure>"));
  EXPECT_THAT(xml, HasSubstr("<error type=\"unreachable\" message=\"not checked\"/>"));
  EXPECT_THAT(xml, HasSubstr("<property name=\"batch\" value=\"Nightly &quot;7&quot;\"/>"));
  EXPECT_EQ(count(xml, "<testcase "), 5u);
  EXPECT_EQ(count(xml, "</testcase>"), 4u);  // all but the matched one have a body
}

}  // namespace
}  // namespace lumo::test
