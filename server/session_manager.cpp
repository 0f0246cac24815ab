#include "lumo/server/session_manager.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <limits>
#include <random>
#include <utility>

#include "baseline_cache.h"
#include "content_hash.h"
#include "image_codec.h"
#include "json_limits.h"
#include "web_text.h"

namespace lumo::server {

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

// Drawn from the system's source each time: a seeded generator would repeat its ids in a
// forked process, and ids outlive processes now that sessions live in the store.
std::string newId() {
  std::random_device random;
  return fmt::format("{:08x}{:08x}{:08x}{:08x}", random(), random(), random(), random());
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

// Whether a comparison found nothing at all, not even a tolerated pixel.
bool identical(const CompareResult& r) {
  return r.matches && !r.sizeMismatch && r.differentPixels == 0 && r.toleratedPixels == 0 &&
         r.boxes.empty() && r.differentAreas.empty();
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

// The start record a session was opened with, as stored; an empty object when it is not
// one. start() stores only records that passed the depth check, but the store may hold one
// written otherwise (by hand, by another tool): the parser recurses per level, so the depth
// is checked first and an over-deep record is refused as unreadable.
Json storedStartInfo(const SessionRecord& s) {
  if (!detail::checkJsonDepth(s.startInfo)) {
    throw ApiError(500, fmt::format("the stored start record of session {} nests deeper than {} "
                                    "levels and cannot be read",
                                    s.id, detail::kMaxJsonDepth));
  }
  Json info = Json::parse(s.startInfo, nullptr, false);
  return info.is_object() ? info : Json::object();
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

// The key is kept as a digest: the store then holds nothing a reader could use to call.
std::string ownerOf(std::string_view apiKey) {
  return apiKey.empty() ? std::string() : detail::sha256Hex(apiKey);
}

// The defaults a session started with, from its stored start record (validated at start).
CompareSettings defaultsOf(const SessionRecord& s) {
  const Json info = storedStartInfo(s);
  return settingsFrom(objectAt(info, "defaultMatchSettings", "startInfo"),
                      "startInfo.defaultMatchSettings", MatchLevel::Strict);
}

// Requests of one session reaching two managers at once each try again with what the other
// recorded; more rounds than this means something keeps racing, and the client is told.
constexpr int kAttempts = 8;

// A session's activity is written with every recorded step; a request that records nothing
// (a retry) writes it only when the stored time is this old, sparing a commit per retry.
constexpr std::int64_t kTouchIntervalMs = 60'000;

// Idle sessions of every client are swept at most this often, by whichever start comes.
constexpr std::int64_t kSweepIntervalMs = 60'000;

}  // namespace

SessionManager::SessionManager(Store& store, ImageComparer comparer, std::uint64_t maxImagePixels,
                               SessionOptions options)
    : store_(store),
      comparer_(std::move(comparer)),
      maxImagePixels_(maxImagePixels),
      options_(std::move(options)),
      cache_(std::make_unique<detail::BaselineCache>(options_.baselineCacheBytes)) {}

SessionManager::~SessionManager() = default;

std::int64_t SessionManager::nowMs() const { return unixMs(options_.clock()); }

std::mutex& SessionManager::lockOf(const std::string& sessionId) const {
  return sessionLocks_[std::hash<std::string>{}(sessionId) % sessionLocks_.size()];
}

bool SessionManager::idleTooLong(const SessionRecord& s, std::int64_t now) const {
  return options_.idleTimeout.count() > 0 && now - s.lastActiveMs > options_.idleTimeout.count();
}

SessionManager::Started SessionManager::start(const Json& startInfo, std::string_view apiKey) {
  if (!startInfo.is_object()) {
    badRequest("startInfo must be an object");
  }
  SessionRecord r;
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
  settingsFrom(objectAt(startInfo, "defaultMatchSettings", "startInfo"),
               "startInfo.defaultMatchSettings", MatchLevel::Strict);

  const auto now = options_.clock();
  const std::int64_t nowUnixMs = unixMs(now);
  if (std::int64_t last = lastSweepMs_.load();
      nowUnixMs - last >= kSweepIntervalMs && options_.idleTimeout.count() > 0 &&
      lastSweepMs_.compare_exchange_strong(last, nowUnixMs)) {
    store_.expireIdleSessions(nowUnixMs - options_.idleTimeout.count());
  }
  if (!r.batchId.empty() && store_.countSessions(r.batchId) >= options_.maxSessionsPerBatch) {
    throw ApiError(409, fmt::format("batch {} already holds the limit of {} sessions", r.batchId,
                                    options_.maxSessionsPerBatch));
  }

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
  }
  r.id = newId();
  if (r.batchId.empty()) {
    r.batchId = newId();
  }
  r.startInfo = startInfo.dump();
  r.startedAt = isoTime(now);
  r.startedMs = nowUnixMs;
  r.lastActiveMs = nowUnixMs;
  r.owner = ownerOf(apiKey);

  store_.addBatch({r.batchId, batchName, batchStart.empty() ? r.startedAt : batchStart, nowUnixMs});
  store_.addSession(r, baseline ? *baseline : std::vector<StoredStep>());
  return {r.id, r.isNew};
}

SessionRecord SessionManager::session(const std::string& sessionId, std::string_view apiKey) const {
  auto record = store_.findSession(sessionId);
  if (!record) {
    throw ApiError(404, fmt::format("no session {}", sessionId));
  }
  if (!record->owner.empty() && !apiKey.empty() && ownerOf(apiKey) != record->owner) {
    throw ApiError(403, fmt::format("session {} was started with another API key", sessionId));
  }
  return std::move(*record);
}

SessionRecord SessionManager::runningSession(const std::string& sessionId,
                                             std::string_view apiKey) {
  SessionRecord r = session(sessionId, apiKey);
  if (r.state != "running") {
    notRunning(r);
  }
  const std::int64_t now = nowMs();
  if (!idleTooLong(r, now)) {
    return r;
  }
  // Expire through the store, so that a request racing this one on another manager sees
  // the same outcome.
  store_.expireIdleSessions(now - options_.idleTimeout.count());
  r = session(sessionId, apiKey);
  if (r.state != "running") {
    notRunning(r);
  }
  return r;
}

void SessionManager::notRunning(const SessionRecord& s) const {
  if (s.expired) {
    throw ApiError(409, fmt::format("session {} expired: it had no request for {} minutes and "
                                    "was aborted; start a new session",
                                    s.id, options_.idleTimeout.count() / 60'000));
  }
  throw ApiError(409, s.state == "running" ? fmt::format("session {} is still running", s.id)
                                           : fmt::format("session {} is already stopped", s.id));
}

bool SessionManager::match(const std::string& sessionId, Json matchData, std::string_view apiKey) {
  runningSession(sessionId, apiKey);
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
  std::optional<std::string> png;
  std::optional<Image> current;
  if (const Json* shot = member(appOutput, "screenshot64"); shot && !shot->is_string()) {
    badRequest("appOutput.screenshot64 must be a string");
  } else if (shot && !shot->get_ref<const std::string&>().empty()) {
    png = std::move(matchData["appOutput"]["screenshot64"].get_ref<std::string&>());
    if (!detail::decodeBase64InPlace(*png)) {
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

  std::lock_guard lock(lockOf(sessionId));
  std::string currentHash;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const SessionRecord r = runningSession(sessionId, apiKey);
    const CompareSettings defaults = defaultsOf(r);
    const CompareSettings settings =
        settingsJson ? settingsFrom(*settingsJson, "options.imageMatchSettings", defaults.level)
                     : defaults;
    const int position = r.stepCount;
    if (position >= options_.maxStepsPerSession) {
      throw ApiError(409, fmt::format("session {} reached the limit of {} steps", sessionId,
                                      options_.maxStepsPerSession));
    }
    const std::vector<StoredStep> baselineSteps = store_.sessionBaseline(sessionId);
    StepRecord step;
    step.position = position;
    step.name = name;
    step.matchLevel = matchLevelName(settings.level);
    const bool hasBaseline = position < static_cast<int>(baselineSteps.size());
    if (hasBaseline) {
      step.baselineImage = baselineSteps[position].image;
    }
    auto storeCurrent = [&] {
      if (currentHash.empty()) {
        currentHash = store_.putImage(*png);
      }
      step.currentImage = currentHash;
    };

    bool asExpected = false;
    bool recorded = true;
    if (!current) {
      // The client had no screenshot to send: the step cannot be judged.
      step.outcome = "failed";
      recorded = !ignoreMismatch;
    } else if (!hasBaseline) {
      storeCurrent();
      step.outcome = "new";
      asExpected = true;
    } else {
      const std::shared_ptr<const Image> baseline =
          cache_->get(step.baselineImage, [&]() -> std::shared_ptr<const Image> {
            const auto bytes = store_.readImage(step.baselineImage);
            auto image = bytes ? detail::decodePngImage(*bytes) : std::nullopt;
            return image ? std::make_shared<const Image>(std::move(*image)) : nullptr;
          });
      if (!baseline) {
        step.outcome = "failed";
        recorded = !ignoreMismatch;
        if (recorded) {
          storeCurrent();
        }
      } else {
        const CompareResult result = comparer_.compare(*baseline, *current, settings);
        asExpected = forceMatch || (result.matches && !forceMismatch);
        recorded = asExpected || !ignoreMismatch;
        if (recorded) {
          storeCurrent();
          // A step with nothing to show needs no differences image: drawing and encoding one
          // costs more than the whole comparison of two identical screens.
          if (!identical(result)) {
            step.diffImage = store_.putImage(
                detail::encodePngImage(comparer_.diffImage(*baseline, *current, settings, result)));
          }
          step.boxes = result.boxes;
          step.outcome = asExpected ? "matched" : "different";
        }
      }
    }

    const std::int64_t now = nowMs();
    if (!recorded) {
      if (now - r.lastActiveMs >= kTouchIntervalMs) {
        store_.touchSession(sessionId, now);
      }
      return false;
    }
    switch (store_.appendStep(sessionId, step, now)) {
      case Store::Append::Appended:
        return asExpected;
      case Store::Append::NotRunning:
        notRunning(session(sessionId, apiKey));
      case Store::Append::PositionTaken:
        break;  // another manager recorded this position: compare with the next one
    }
  }
  throw ApiError(409, fmt::format("session {} is taking checkpoints from several requests at "
                                  "once; send them one at a time",
                                  sessionId));
}

Json SessionManager::stop(const std::string& sessionId, bool aborted, bool updateBaseline,
                          std::string_view baseUrl, std::string_view apiKey) {
  std::lock_guard lock(lockOf(sessionId));
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    SessionRecord r = runningSession(sessionId, apiKey);
    // Read before the session ends: a record that cannot be read must leave it as it was.
    const Json info = storedStartInfo(r);
    std::vector<StepRecord> steps = store_.steps(sessionId);
    Store::SessionEnd end;
    end.expectedSteps = static_cast<int>(steps.size());
    if (!aborted) {
      const std::vector<StoredStep> baseline = store_.sessionBaseline(sessionId);
      for (std::size_t i = steps.size(); i < baseline.size(); ++i) {
        StepRecord missing;
        missing.position = static_cast<int>(i);
        missing.name = baseline[i].name;
        missing.outcome = "missing";
        missing.baselineImage = baseline[i].image;
        end.addedSteps.push_back(missing);
        steps.push_back(std::move(missing));
      }
    }
    const Counts counts = count(steps);
    end.state = aborted ? "aborted" : "stopped";
    end.status = statusOf(counts, r.isNew, aborted);
    end.durationMs = std::max<std::int64_t>(nowMs() - r.startedMs, 0);
    if (!aborted && updateBaseline && end.status == "Unresolved") {
      end.baseline = imagesOf(steps);
    }
    if (store_.finishSession(sessionId, end)) {
      r.state = end.state;
      r.status = end.status;
      r.durationMs = end.durationMs;
      r.saved = end.baseline.has_value();
      r.stepCount = static_cast<int>(steps.size());
      return resultsJson(r, info, steps, store_.findBatch(r.batchId), baseUrl);
    }
  }
  throw ApiError(409, fmt::format("session {} kept changing while it was stopped", sessionId));
}

void SessionManager::approve(const std::string& sessionId, std::string_view apiKey) {
  const SessionRecord r = session(sessionId, apiKey);
  if (r.state == "running") {
    throw ApiError(409, fmt::format("session {} is still running: only a stopped session can "
                                    "be approved",
                                    sessionId));
  }
  if (r.state == "aborted") {
    throw ApiError(409, fmt::format("session {} was {} and has nothing to approve", sessionId,
                                    r.expired ? "aborted as expired" : "aborted"));
  }
  if (r.status == "Failed") {
    throw ApiError(409, fmt::format("session {} failed and has no images to approve", sessionId));
  }
  const std::vector<StepRecord> steps = store_.steps(sessionId);
  const std::vector<StoredStep> images = imagesOf(steps);
  if (images.empty() || static_cast<int>(steps.size()) != r.stepCount) {
    throw ApiError(409, fmt::format("session {} has no images to approve", sessionId));
  }
  if (!store_.approveSession(sessionId, images)) {
    throw ApiError(409, fmt::format("session {} is no longer stopped", sessionId));
  }
}

void SessionManager::reject(const std::string& sessionId, std::optional<int> position,
                            std::string_view apiKey) {
  const SessionRecord r = session(sessionId, apiKey);
  if (r.state != "stopped") {
    throw ApiError(409, fmt::format("session {} is not stopped: nothing to reject", sessionId));
  }
  if (!store_.rejectSession(sessionId, position)) {
    throw ApiError(
        404, fmt::format("session {} has no step {}", sessionId, position ? *position + 1 : 0));
  }
}

Json SessionManager::results(const std::string& sessionId, std::string_view baseUrl,
                             std::string_view apiKey) const {
  const SessionRecord r = session(sessionId, apiKey);
  if (r.state == "running") {
    throw ApiError(409, fmt::format("session {} is still running", sessionId));
  }
  return resultsJson(r, storedStartInfo(r), store_.steps(sessionId), store_.findBatch(r.batchId),
                     baseUrl);
}

std::size_t SessionManager::cachedBaselineBytes() const { return cache_->bytes(); }

std::uint64_t SessionManager::baselineCacheHits() const { return cache_->hits(); }

}  // namespace lumo::server
