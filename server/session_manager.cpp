#include "lumo/server/session_manager.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <limits>
#include <random>

#include "image_codec.h"
#include "web_text.h"

namespace lumo::server {

struct SessionManager::Running {
  std::mutex mutex;
  SessionRecord record;
  std::vector<StoredStep> baseline;
  std::vector<StepRecord> steps;
  CompareSettings defaults;
  std::chrono::steady_clock::time_point started;
  bool stopped = false;
  // The decoded baseline image of one position, kept while the client retries that step.
  int cachedPosition = -1;
  std::shared_ptr<const Image> cachedBaseline;
};

namespace {

[[noreturn]] void badRequest(const std::string& message) { throw ApiError(400, message); }

// The value under `key`, or null when it is absent or JSON null (both mean "not given").
const Json* member(const Json& object, const char* key) {
  const auto it = object.find(key);
  return it == object.end() || it->is_null() ? nullptr : &*it;
}

std::string stringAt(const Json& object, const char* key, std::string_view path,
                     bool required = false) {
  const Json* value = member(object, key);
  if (!value) {
    if (required) {
      badRequest(fmt::format("{}.{} is missing", path, key));
    }
    return {};
  }
  if (!value->is_string()) {
    badRequest(fmt::format("{}.{} must be a string", path, key));
  }
  const std::string text = value->get<std::string>();
  if (required && text.empty()) {
    badRequest(fmt::format("{}.{} is empty", path, key));
  }
  return text;
}

bool boolAt(const Json& object, const char* key, std::string_view path) {
  const Json* value = member(object, key);
  if (!value) {
    return false;
  }
  if (value->is_boolean()) {
    return value->get<bool>();
  }
  if (value->is_number()) {
    return value->get<double>() != 0;
  }
  badRequest(fmt::format("{}.{} must be a boolean", path, key));
}

int intAt(const Json& object, const char* key, std::string_view path) {
  const Json* value = member(object, key);
  if (!value) {
    return 0;
  }
  if (!value->is_number()) {
    badRequest(fmt::format("{}.{} must be a number", path, key));
  }
  const double number = value->get<double>();
  if (std::isnan(number)) {
    badRequest(fmt::format("{}.{} must be a number", path, key));
  }
  constexpr double kLimit = 1 << 30;
  return static_cast<int>(std::clamp(number, -kLimit, kLimit));
}

const Json& objectAt(const Json& object, const char* key, std::string_view path) {
  static const Json kEmpty = Json::object();
  const Json* value = member(object, key);
  if (!value) {
    return kEmpty;
  }
  if (!value->is_object()) {
    badRequest(fmt::format("{}.{} must be an object", path, key));
  }
  return *value;
}

const Json& arrayAt(const Json& object, const char* key, std::string_view path) {
  static const Json kEmpty = Json::array();
  const Json* value = member(object, key);
  if (!value) {
    return kEmpty;
  }
  if (!value->is_array()) {
    badRequest(fmt::format("{}.{} must be an array", path, key));
  }
  return *value;
}

Rect rectFrom(const Json& r, std::string_view path) {
  if (!r.is_object()) {
    badRequest(fmt::format("{} must hold region objects", path));
  }
  return {intAt(r, "left", path), intAt(r, "top", path), intAt(r, "width", path),
          intAt(r, "height", path)};
}

std::vector<Rect> rectsAt(const Json& settings, const char* key, std::string_view path) {
  const std::string where = fmt::format("{}.{}", path, key);
  std::vector<Rect> rects;
  for (const Json& r : arrayAt(settings, key, path)) {
    rects.push_back(rectFrom(r, where));
  }
  return rects;
}

// The comparison settings of a wire-form image match settings object.
CompareSettings settingsFrom(const Json& s, std::string_view path, MatchLevel fallback) {
  CompareSettings settings;
  settings.level = fallback;
  const std::string level = stringAt(s, "matchLevel", path);
  if (!level.empty()) {
    const auto parsed = matchLevelFromName(level);
    if (!parsed) {
      badRequest(fmt::format("{}.matchLevel \"{}\" is not a match level", path, level));
    }
    settings.level = *parsed;
  }
  settings.ignore = rectsAt(s, "Ignore", path);
  settings.layout = rectsAt(s, "Layout", path);
  settings.strict = rectsAt(s, "Strict", path);
  settings.content = rectsAt(s, "Content", path);
  const std::string where = fmt::format("{}.Floating", path);
  for (const Json& f : arrayAt(s, "Floating", path)) {
    FloatingRect floating;
    floating.rect = rectFrom(f, where);
    floating.maxUpOffset = intAt(f, "maxUpOffset", where);
    floating.maxDownOffset = intAt(f, "maxDownOffset", where);
    floating.maxLeftOffset = intAt(f, "maxLeftOffset", where);
    floating.maxRightOffset = intAt(f, "maxRightOffset", where);
    settings.floating.push_back(floating);
  }
  settings.ignoreCaret = boolAt(s, "ignoreCaret", path);
  return settings;
}

Json regionsJson(const std::vector<Rect>& rects) {
  Json out = Json::array();
  for (const Rect& r : rects) {
    out.push_back({{"left", r.left}, {"top", r.top}, {"width", r.width}, {"height", r.height}});
  }
  return out;
}

// The test's default settings in the results' own shape (lower-case list keys).
Json defaultSettingsJson(const CompareSettings& s) {
  Json floating = Json::array();
  for (const FloatingRect& f : s.floating) {
    floating.push_back({{"left", f.rect.left},
                        {"top", f.rect.top},
                        {"width", f.rect.width},
                        {"height", f.rect.height},
                        {"maxUpOffset", f.maxUpOffset},
                        {"maxDownOffset", f.maxDownOffset},
                        {"maxLeftOffset", f.maxLeftOffset},
                        {"maxRightOffset", f.maxRightOffset}});
  }
  return {{"matchLevel", matchLevelName(s.level)}, {"ignore", regionsJson(s.ignore)},
          {"strict", regionsJson(s.strict)},       {"content", regionsJson(s.content)},
          {"layout", regionsJson(s.layout)},       {"floating", floating}};
}

std::string numberText(const Json& number) {
  if (!number.is_number()) {
    return "?";
  }
  const double value = number.get<double>();
  return value == std::floor(value) && std::abs(value) < 1e15
             ? fmt::format("{}", static_cast<long long>(value))
             : fmt::format("{}", value);
}

// The environment part of a baseline's key: the name the client chose, or else what the
// test ran on.
std::string environmentKey(const Json& startInfo) {
  const std::string named = stringAt(startInfo, "baselineEnvName", "startInfo");
  if (!named.empty()) {
    return named;
  }
  const Json& env = objectAt(startInfo, "environment", "startInfo");
  const Json& size = objectAt(env, "displaySize", "startInfo.environment");
  auto part = [&](const char* key) {
    const std::string text = stringAt(env, key, "startInfo.environment");
    return text.empty() ? std::string("?") : text;
  };
  const Json* width = member(size, "width");
  const Json* height = member(size, "height");
  return fmt::format("{} | {} | {}x{}", part("OSInfo"), part("DeviceInfo"),
                     width ? numberText(*width) : "?", height ? numberText(*height) : "?");
}

std::string newId() {
  thread_local std::mt19937_64 random{std::random_device{}()};
  return fmt::format("{:016x}{:016x}", random(), random());
}

std::string isoTime(std::chrono::system_clock::time_point when) {
  const std::time_t t = std::chrono::system_clock::to_time_t(when);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}

std::int64_t unixMs(std::chrono::system_clock::time_point when) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
}

struct Counts {
  int matched = 0, different = 0, missing = 0, failed = 0, added = 0;
  int byLevel[5] = {};
};

Counts count(const std::vector<StepRecord>& steps) {
  Counts c;
  for (const StepRecord& step : steps) {
    if (step.outcome == "matched") {
      ++c.matched;
      if (const auto level = matchLevelFromName(step.matchLevel)) {
        ++c.byLevel[static_cast<int>(*level)];
      }
    } else if (step.outcome == "different") {
      ++c.different;
    } else if (step.outcome == "missing") {
      ++c.missing;
    } else if (step.outcome == "failed") {
      ++c.failed;
    } else {
      ++c.added;
    }
  }
  return c;
}

bool isDifferent(const Counts& c, bool isNew) {
  return !isNew && (c.different > 0 || c.missing > 0 || c.added > 0);
}

std::string statusOf(const Counts& c, bool isNew, bool aborted) {
  if (c.failed > 0) {
    return "Failed";
  }
  return isNew || aborted || isDifferent(c, isNew) ? "Unresolved" : "Passed";
}

// The session's own images, in order: what becomes the baseline when it is saved.
std::vector<StoredStep> imagesOf(const std::vector<StepRecord>& steps) {
  std::vector<StoredStep> images;
  for (const StepRecord& step : steps) {
    if (!step.currentImage.empty()) {
      images.push_back({step.name, step.currentImage});
    }
  }
  return images;
}

Json resultsJson(const SessionRecord& s, const std::vector<StepRecord>& steps,
                 const std::optional<BatchRecord>& batch, std::string_view base) {
  const Counts c = count(steps);
  const Json startInfo = Json::parse(s.startInfo, nullptr, false);
  const Json& info = startInfo.is_object() ? startInfo : Json::object();
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
         {"isDifferent",
          step.outcome == "different" || step.outcome == "missing" || step.outcome == "failed"},
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
      {"isAborted", s.state == "aborted"},
      {"status", s.status},
      {"steps", static_cast<int>(steps.size())},
      {"matches", c.matched},
      {"mismatches", c.different + c.failed},
      {"missing", c.missing},
      {"exactMatches", c.byLevel[static_cast<int>(MatchLevel::Exact)]},
      {"strictMatches", c.byLevel[static_cast<int>(MatchLevel::Strict)]},
      {"contentMatches", c.byLevel[static_cast<int>(MatchLevel::Content)]},
      {"layoutMatches", c.byLevel[static_cast<int>(MatchLevel::Layout)]},
      {"noneMatches", c.byLevel[static_cast<int>(MatchLevel::None)]},
      {"apiUrls", urls},
      {"appUrls", urls},
      {"stepsInfo", stepsInfo},
  };
  if (defaults && defaults->is_object()) {
    try {
      out["defaultMatchSettings"] =
          defaultSettingsJson(settingsFrom(*defaults, "defaultMatchSettings", MatchLevel::Strict));
    } catch (const ApiError&) {
      // Validated when the session started; nothing to report here.
    }
  }
  return out;
}

}  // namespace

SessionManager::SessionManager(BaselineStore& store, ImageComparer comparer,
                               std::uint64_t maxImagePixels)
    : store_(store), comparer_(std::move(comparer)), maxImagePixels_(maxImagePixels) {}

SessionManager::~SessionManager() = default;

SessionManager::Started SessionManager::start(const Json& startInfo) {
  if (!startInfo.is_object()) {
    badRequest("startInfo must be an object");
  }
  auto session = std::make_shared<Running>();
  SessionRecord& r = session->record;
  r.key.app = stringAt(startInfo, "appIdOrName", "startInfo", true);
  r.key.test = stringAt(startInfo, "scenarioIdOrName", "startInfo", true);
  r.key.environment = environmentKey(startInfo);
  r.key.branch = stringAt(startInfo, "branchName", "startInfo");
  if (r.key.branch.empty()) {
    r.key.branch = kDefaultBranch;
  }
  const Json& batch = objectAt(startInfo, "batchInfo", "startInfo");
  r.batchId = stringAt(batch, "id", "startInfo.batchInfo");
  const std::string batchName = stringAt(batch, "name", "startInfo.batchInfo");
  const std::string batchStart = stringAt(batch, "startedAt", "startInfo.batchInfo");
  session->defaults = settingsFrom(objectAt(startInfo, "defaultMatchSettings", "startInfo"),
                                   "startInfo.defaultMatchSettings", MatchLevel::Strict);

  auto baseline = store_.findBaseline(r.key);
  r.baselineBranch = r.key.branch;
  if (!baseline && r.key.branch != kDefaultBranch) {
    BaselineKey fallback = r.key;
    fallback.branch = kDefaultBranch;
    baseline = store_.findBaseline(fallback);
    r.baselineBranch = kDefaultBranch;
  }
  r.isNew = !baseline;
  if (r.isNew) {
    r.baselineBranch.clear();
  } else {
    session->baseline = std::move(*baseline);
  }
  const auto now = std::chrono::system_clock::now();
  r.id = newId();
  if (r.batchId.empty()) {
    r.batchId = newId();
  }
  r.startInfo = startInfo.dump();
  r.startedAt = isoTime(now);
  r.startedMs = unixMs(now);
  session->started = std::chrono::steady_clock::now();

  store_.addBatch(
      {r.batchId, batchName, batchStart.empty() ? r.startedAt : batchStart, unixMs(now)});
  store_.addSession(r);
  std::lock_guard lock(mutex_);
  running_.emplace(r.id, session);
  return {r.id, r.isNew};
}

std::shared_ptr<SessionManager::Running> SessionManager::running(
    const std::string& sessionId) const {
  std::lock_guard lock(mutex_);
  const auto it = running_.find(sessionId);
  return it == running_.end() ? nullptr : it->second;
}

void SessionManager::notRunning(const std::string& sessionId) const {
  if (const auto record = store_.findSession(sessionId)) {
    throw ApiError(409,
                   record->state == "running"
                       ? fmt::format("session {} ended with a restart of the server", sessionId)
                       : fmt::format("session {} is already stopped", sessionId));
  }
  throw ApiError(404, fmt::format("no session {}", sessionId));
}

bool SessionManager::match(const std::string& sessionId, const Json& matchData) {
  std::shared_ptr<Running> session = running(sessionId);
  if (!session) {
    notRunning(sessionId);
  }
  if (!matchData.is_object()) {
    badRequest("the match data must be an object");
  }
  const Json& appOutput = objectAt(matchData, "appOutput", "matchData");
  const Json& options = objectAt(matchData, "options", "matchData");
  const bool ignoreMismatch = boolAt(options, "ignoreMismatch", "options");
  const bool forceMismatch = boolAt(options, "forceMismatch", "options");
  const bool forceMatch = boolAt(options, "forceMatch", "options");
  std::string name = stringAt(options, "name", "options");
  if (name.empty()) {
    name = stringAt(matchData, "tag", "matchData");
  }
  const Json* settingsJson = member(options, "imageMatchSettings");
  if (settingsJson && !settingsJson->is_object()) {
    badRequest("options.imageMatchSettings must be an object");
  }

  // Decode before taking the session: bad input must be refused without touching it.
  const std::string screenshot64 = stringAt(appOutput, "screenshot64", "appOutput");
  std::optional<std::string> png;
  std::optional<Image> current;
  if (!screenshot64.empty()) {
    png = detail::decodeBase64(screenshot64);
    if (!png) {
      badRequest("appOutput.screenshot64 is not valid base64");
    }
    const auto size = detail::pngSize(*png);
    if (!size) {
      badRequest("appOutput.screenshot64 is not a PNG image");
    }
    const std::uint64_t pixels = std::uint64_t{size->first} * size->second;
    if (pixels > maxImagePixels_) {
      throw ApiError(413, fmt::format("the screenshot of {}x{} pixels is over the limit of {}",
                                      size->first, size->second, maxImagePixels_));
    }
    current = detail::decodePngImage(*png, maxImagePixels_);
    if (!current) {
      badRequest("appOutput.screenshot64 is not a valid PNG image");
    }
  }

  std::lock_guard lock(session->mutex);
  if (session->stopped) {
    notRunning(sessionId);
  }
  const CompareSettings settings =
      settingsJson
          ? settingsFrom(*settingsJson, "options.imageMatchSettings", session->defaults.level)
          : session->defaults;
  const int position = static_cast<int>(session->steps.size());
  StepRecord step;
  step.position = position;
  step.name = name;
  step.matchLevel = matchLevelName(settings.level);
  const bool hasBaseline = position < static_cast<int>(session->baseline.size());
  if (hasBaseline) {
    step.baselineImage = session->baseline[position].image;
  }

  auto record = [&](const std::string& outcome) {
    step.outcome = outcome;
    store_.addStep(sessionId, step);
    session->steps.push_back(step);
  };

  if (!current) {
    // The client had no screenshot to send: the step cannot be judged.
    if (!ignoreMismatch) {
      record("failed");
    }
    return false;
  }
  if (!hasBaseline) {
    step.currentImage = store_.putImage(*png);
    record("new");
    return true;
  }
  if (session->cachedPosition != position) {
    session->cachedBaseline.reset();
    const auto bytes = store_.readImage(step.baselineImage);
    if (auto image = bytes ? detail::decodePngImage(*bytes) : std::nullopt) {
      session->cachedBaseline = std::make_shared<const Image>(std::move(*image));
    }
    session->cachedPosition = position;
  }
  if (!session->cachedBaseline) {
    if (!ignoreMismatch) {
      step.currentImage = store_.putImage(*png);
      record("failed");
    }
    return false;
  }
  const Image& baseline = *session->cachedBaseline;
  const CompareResult result = comparer_.compare(baseline, *current, settings);
  const bool asExpected = forceMatch || (result.matches && !forceMismatch);
  if (!asExpected && ignoreMismatch) {
    return false;
  }
  step.currentImage = store_.putImage(*png);
  step.diffImage = store_.putImage(
      detail::encodePngImage(comparer_.diffImage(baseline, *current, settings, result)));
  step.boxes = regionsJson(result.boxes).dump();
  record(asExpected ? "matched" : "different");
  return asExpected;
}

Json SessionManager::stop(const std::string& sessionId, bool aborted, bool updateBaseline,
                          std::string_view baseUrl) {
  std::shared_ptr<Running> session;
  {
    std::lock_guard lock(mutex_);
    const auto it = running_.find(sessionId);
    if (it != running_.end()) {
      session = it->second;
      running_.erase(it);
    }
  }
  if (!session) {
    notRunning(sessionId);
  }
  std::lock_guard lock(session->mutex);
  session->stopped = true;
  SessionRecord& r = session->record;
  if (!aborted) {
    for (std::size_t i = session->steps.size(); i < session->baseline.size(); ++i) {
      StepRecord missing;
      missing.position = static_cast<int>(i);
      missing.name = session->baseline[i].name;
      missing.outcome = "missing";
      missing.baselineImage = session->baseline[i].image;
      store_.addStep(sessionId, missing);
      session->steps.push_back(missing);
    }
  }
  const Counts counts = count(session->steps);
  r.state = aborted ? "aborted" : "stopped";
  r.status = statusOf(counts, r.isNew, aborted);
  r.durationMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                     std::chrono::steady_clock::now() - session->started)
                     .count();
  store_.finishSession(sessionId, r.state, r.status, r.durationMs);
  if (!aborted && updateBaseline && r.status == "Unresolved") {
    store_.saveBaseline(r.key, imagesOf(session->steps), sessionId);
    r.saved = true;
  }
  return resultsJson(r, session->steps, store_.findBatch(r.batchId), baseUrl);
}

void SessionManager::approve(const std::string& sessionId) {
  if (running(sessionId)) {
    throw ApiError(409, fmt::format("session {} is still running", sessionId));
  }
  const auto record = store_.findSession(sessionId);
  if (!record) {
    throw ApiError(404, fmt::format("no session {}", sessionId));
  }
  if (record->state == "aborted") {
    throw ApiError(409,
                   fmt::format("session {} was aborted and has nothing to approve", sessionId));
  }
  if (record->status == "Failed") {
    throw ApiError(409, fmt::format("session {} failed and has no images to approve", sessionId));
  }
  store_.saveBaseline(record->key, imagesOf(store_.steps(sessionId)), sessionId);
}

Json SessionManager::results(const std::string& sessionId, std::string_view baseUrl) const {
  if (running(sessionId)) {
    throw ApiError(409, fmt::format("session {} is still running", sessionId));
  }
  const auto record = store_.findSession(sessionId);
  if (!record) {
    throw ApiError(404, fmt::format("no session {}", sessionId));
  }
  return resultsJson(*record, store_.steps(sessionId), store_.findBatch(record->batchId), baseUrl);
}

}  // namespace lumo::server
