#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "run_lumo.h"

namespace lumo::test {
namespace {

class CompareCommandTest : public ::testing::Test {
 protected:
  std::string png(const std::string& name, const Image& image) {
    return writePng(dir_.path() / name, image).string();
  }
  TempDir dir_;
};

TEST_F(CompareCommandTest, ExitStatusSaysWhetherTheImagesMatch) {
  const std::string grey = png("grey.png", markedScreen(60, 40, 128));
  const std::string marked = png("marked.png", markedScreen(60, 40, 128, 6));
  const std::string taller = png("taller.png", markedScreen(60, 41, 128));
  const std::string notPng = (dir_.path() / "not-a-png.png").string();
  std::ofstream(notPng) << "GIF89a";
  const std::pair<std::vector<std::string>, int> cases[] = {
      {{"compare", grey, grey}, kExitPassed},
      {{"compare", grey, marked}, kExitDifferences},
      {{"compare", "--match-level", "none", grey, taller}, kExitPassed},
      {{"compare", "--ignore", "0,0,10,10", grey, marked}, kExitPassed},
      {{"compare", grey}, kExitUsage},
      {{"compare", grey, (dir_.path() / "absent.png").string()}, kExitUsage},
      {{"compare", grey, notPng}, kExitUsage},
  };
  for (const auto& [args, status] : cases) {
    const Outcome outcome = runLumo(args);
    EXPECT_EQ(outcome.status, status) << ::testing::PrintToString(args) << outcome.err;
  }
}

TEST_F(CompareCommandTest, JsonGivesTheVerdictCountsAndBoxes) {
  const Outcome outcome = runLumo(
      {"compare", "--json", "--diff", (dir_.path() / "diff.png").string(),
       png("a.png", markedScreen(60, 40, 128)), png("b.png", markedScreen(60, 40, 128, 6))});
  ASSERT_EQ(outcome.status, kExitDifferences) << outcome.err;
  EXPECT_EQ(nlohmann::json::parse(outcome.out), nlohmann::json::parse(R"({"matches": false,
      "matchLevel": "Strict", "sizeMismatch": false, "differentPixels": 36, "toleratedPixels": 0,
      "boxes": [{"left": 0, "top": 0, "width": 6, "height": 6}]})"));
  EXPECT_TRUE(std::filesystem::file_size(dir_.path() / "diff.png") > 0);
}

}  // namespace
}  // namespace lumo::test
