#include "session_results.h"

#include <fmt/format.h>

#include "rect_pixels.h"
#include "session_input.h"
#include "web_text.h"

namespace lumo::server::detail {
namespace {

Json regionsJson(const std::vector<Rect>& rects) {
  Json out = Json::array();
  for (const Rect& r : rects) {
    out.push_back(
        {{"left", leftOf(r)}, {"top", topOf(r)}, {"width", widthOf(r)}, {"height", heightOf(r)}});
  }
  return out;
}

// The test's default settings in the results' own shape (lower-case list keys).
Json defaultSettingsJson(const CompareSettings& s) {
  Json floating = Json::array();
  for (const FloatingRect& f : s.floating) {
    floating.push_back({{"left", leftOf(f.rect)},
                        {"top", topOf(f.rect)},
                        {"width", widthOf(f.rect)},
                        {"height", heightOf(f.rect)},
                        {"maxUpOffset", f.maxUpOffset},
                        {"maxDownOffset", f.maxDownOffset},
                        {"maxLeftOffset", f.maxLeftOffset},
                        {"maxRightOffset", f.maxRightOffset}});
  }
  return {{"matchLevel", matchLevelToString(s.level)}, {"ignore", regionsJson(s.ignore)},
          {"strict", regionsJson(s.strict)},           {"content", regionsJson(s.content)},
          {"layout", regionsJson(s.layout)},           {"floating", floating}};
}

bool isDifferent(const Counts& c, bool isNew) {
  return !isNew && (c.different > 0 || c.missing > 0 || c.added > 0);
}

}  // namespace

Counts count(const std::vector<StepRecord>& steps) {
  Counts c;
  for (const StepRecord& step : steps) {
    if (step.outcome == StepOutcome::Matched) {
      ++c.matched;
      if (const auto level = matchLevelFromString(step.matchLevel)) {
        ++c.matchedAt(*level);
      }
    } else if (step.outcome == StepOutcome::Different) {
      ++c.different;
    } else if (step.outcome == StepOutcome::Missing) {
      ++c.missing;
    } else if (step.outcome == StepOutcome::Failed) {
      ++c.failed;
    } else {
      ++c.added;
    }
  }
  return c;
}

std::string statusOf(const Counts& c, bool isNew, bool aborted) {
  if (c.failed > 0) {
    return "Failed";
  }
  return isNew || aborted || isDifferent(c, isNew) ? "Unresolved" : "Passed";
}

// `info` is the session's stored start record (storedStartInfo).
Json resultsJson(const SessionRecord& s, const Json& info, const std::vector<StepRecord>& steps,
                 const std::optional<BatchRecord>& batch, std::string_view base) {
  const Counts c = count(steps);
  const Json* env = member(info, "environment");
  const Json* defaults = member(info, "defaultMatchSettings");
  const std::string sessionUrl = fmt::format("{}/sessions/{}", base, s.id);
  const std::string batchUrl = fmt::format("{}/batches/{}", base, detail::percentEncode(s.batchId));
  auto image = [&](const std::string& hash) { return fmt::format("{}/images/{}.png", base, hash); };

  Json stepsInfo = Json::array();
  for (const StepRecord& step : steps) {
    Json apiUrls = Json::object();
    if (!step.baselineImage.empty()) {
      apiUrls["baselineImage"] = image(step.baselineImage);
    }
    if (!step.currentImage.empty()) {
      apiUrls["currentImage"] = image(step.currentImage);
    }
    if (!step.diffImage.empty()) {
      apiUrls["diffImage"] = image(step.diffImage);
    }
    stepsInfo.push_back(
        {{"name", step.name},
         {"isDifferent", step.outcome == StepOutcome::Different ||
                             step.outcome == StepOutcome::Missing ||
                             step.outcome == StepOutcome::Failed},
         {"hasBaselineImage", !step.baselineImage.empty()},
         {"hasCurrentImage", !step.currentImage.empty()},
         {"apiUrls", apiUrls},
         {"appUrls", {{"step", fmt::format("{}#step-{}", sessionUrl, step.position + 1)}}}});
  }

  // The start record was checked only as far as the baseline's key needs it.
  auto text = [](const Json& object, const char* key) {
    const Json* value = member(object, key);
    return value && value->is_string() ? value->get<std::string>() : std::string();
  };
  auto number = [](const Json& object, const char* key) {
    const Json* value = member(object, key);
    return value && value->is_number() ? value->get<double>() : 0.0;
  };
  Json displaySize = {{"width", 0}, {"height", 0}};
  std::string hostOS, hostApp;
  if (env && env->is_object()) {
    hostOS = text(*env, "OSInfo");
    hostApp = text(*env, "HostingAppInfo");
    if (const Json* size = member(*env, "displaySize"); size && size->is_object()) {
      displaySize = {{"width", number(*size, "width")}, {"height", number(*size, "height")}};
    }
  }
  // Both link objects name the results page: the client prints "apiUrls"/"session" to people.
  const Json urls = {{"session", sessionUrl}, {"batch", batchUrl}};
  Json out = {
      {"id", s.id},
      {"name", s.key.test},
      {"appName", s.key.app},
      {"batchId", s.batchId},
      {"batchName", batch ? batch->name : std::string()},
      {"branchName", s.key.branch},
      {"hostOS", hostOS},
      {"hostApp", hostApp},
      {"hostDisplaySize", displaySize},
      {"startedAt", s.startedAt},
      {"duration", s.durationMs / 1000},
      {"isNew", s.isNew},
      {"isDifferent", isDifferent(c, s.isNew)},
      {"isAborted", s.state == SessionState::Aborted},
      {"status", s.status},
      {"steps", static_cast<int>(steps.size())},
      {"matches", c.matched},
      {"mismatches", c.different + c.failed},
      {"missing", c.missing},
      {"exactMatches", c.matchedAt(MatchLevelExact)},
      {"strictMatches", c.matchedAt(MatchLevelStrict)},
      {"contentMatches", c.matchedAt(MatchLevelContent)},
      {"layoutMatches", c.matchedAt(MatchLevelLayout)},
      {"noneMatches", c.matchedAt(MatchLevelNone)},
      {"apiUrls", urls},
      {"appUrls", urls},
      {"stepsInfo", stepsInfo},
  };
  if (defaults && defaults->is_object()) {
    try {
      out["defaultMatchSettings"] =
          defaultSettingsJson(settingsFrom(*defaults, "defaultMatchSettings", MatchLevelStrict));
    } catch (const ApiError&) {
      // Validated when the session started; nothing to report here.
    }
  }
  return out;
}

}  // namespace lumo::server::detail
