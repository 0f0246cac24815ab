#include "lumo/server/session_manager.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <random>
#include <utility>

#include "baseline_cache.h"
#include "content_hash.h"
#include "image_codec.h"
#include "json_limits.h"
#include "session_input.h"
#include "session_results.h"
#include "step_finisher.h"

namespace lumo::server {

using namespace detail;

namespace {

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

// The key is kept as a digest: the store then holds nothing a reader could use to call.
std::string ownerOf(std::string_view apiKey) {
  return apiKey.empty() ? std::string() : detail::sha256Hex(apiKey);
}

// The defaults a session started with, from its stored start record (validated at start).
CompareSettings defaultsOf(const SessionRecord& s) {
  const Json info = storedStartInfo(s);
  return settingsFrom(objectAt(info, "defaultMatchSettings", "startInfo"),
                      "startInfo.defaultMatchSettings", MatchLevelStrict);
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
      cache_(std::make_unique<detail::BaselineCache>(options_.baselineCacheBytes)),
      finisher_(std::make_unique<detail::StepFinisher>()) {}

SessionManager::~SessionManager() = default;

void SessionManager::finishLater(const std::string& sessionId, std::function<void()> work) {
  auto guarded = [sessionId, work = std::move(work)] {
    try {
      work();
    } catch (const std::exception& e) {
      // The verdict is recorded already; a page will show the step without its differences.
      fmt::print(stderr, "lumo server: the differences of a step of session {} were lost: {}\n",
                 sessionId, e.what());
    }
  };
  if (!finisher_->tryPost(sessionId, guarded)) {
    guarded();
  }
}

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
               "startInfo.defaultMatchSettings", MatchLevelStrict);

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
  if (r.state != SessionState::Running) {
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
  if (r.state != SessionState::Running) {
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
  throw ApiError(409, s.state == SessionState::Running
                          ? fmt::format("session {} is still running", s.id)
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

  // Checked before taking the session: bad input must be refused without touching it. The
  // pixels are decoded only when a comparison needs them: a screen sent as the same bytes as
  // its baseline matches as it is, at every level.
  std::optional<std::string> png;
  std::string currentHash;
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
    currentHash = detail::sha256Hex(*png);
  }
  std::shared_ptr<const Image> current;
  auto decoded = [&]() -> std::shared_ptr<const Image> {
    if (!current) {
      auto image = detail::decodePngImage(*png, maxImagePixels_);
      if (!image) {
        badRequest("appOutput.screenshot64 is not a valid PNG image");
      }
      current = std::make_shared<const Image>(std::move(*image));
    }
    return current;
  };

  std::lock_guard lock(lockOf(sessionId));
  bool stored = false;
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
    step.matchLevel = matchLevelToString(settings.level);
    const bool hasBaseline = position < static_cast<int>(baselineSteps.size());
    if (hasBaseline) {
      step.baselineImage = baselineSteps[position].image;
    }
    auto storeCurrent = [&] {
      if (!stored && currentHash != step.baselineImage) {
        currentHash = store_.putImage(*png);
        stored = true;
      }
      step.currentImage = currentHash;
    };

    bool asExpected = false;
    bool recorded = true;
    // Set when the step's diff image and boxes are left to finish after the answer.
    std::function<void()> finish;
    if (!png) {
      // The client had no screenshot to send: the step cannot be judged.
      step.outcome = StepOutcome::Failed;
      recorded = !ignoreMismatch;
    } else if (!hasBaseline) {
      decoded();  // a new baseline must be an image the server can read
      storeCurrent();
      step.outcome = StepOutcome::New;
      asExpected = true;
    } else if (currentHash == step.baselineImage) {
      asExpected = forceMatch || !forceMismatch;
      recorded = asExpected || !ignoreMismatch;
      storeCurrent();
      step.outcome = asExpected ? StepOutcome::Matched : StepOutcome::Different;
    } else {
      const std::shared_ptr<const Image> baseline =
          cache_->get(step.baselineImage, [&]() -> std::shared_ptr<const Image> {
            const auto bytes = store_.readImage(step.baselineImage);
            auto image = bytes ? detail::decodePngImage(*bytes) : std::nullopt;
            return image ? std::make_shared<const Image>(std::move(*image)) : nullptr;
          });
      if (!baseline) {
        decoded();
        step.outcome = StepOutcome::Failed;
        recorded = !ignoreMismatch;
        if (recorded) {
          storeCurrent();
        }
      } else {
        CompareResult result = comparer_.verdict(*baseline, *decoded(), settings);
        asExpected = forceMatch || (result.matches && !forceMismatch);
        recorded = asExpected || !ignoreMismatch;
        if (recorded) {
          storeCurrent();
          step.boxes = result.boxes;
          step.outcome = asExpected ? StepOutcome::Matched : StepOutcome::Different;
          // A step with nothing to show needs no differences image: drawing and encoding one
          // costs more than the whole comparison of two identical screens.
          if (!identical(result)) {
            finish = [this, sessionId, position, baseline, image = current, settings,
                      result = std::move(result)]() mutable {
              if (!result.complete) {
                result = comparer_.compare(*baseline, *image, settings);
              }
              const std::string diff = store_.putImage(detail::encodePngImage(
                  comparer_.diffImage(*baseline, *image, settings, result), PngCompression::Fast));
              store_.completeStep(sessionId, position, diff, result.boxes);
            };
          }
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
        if (finish) {
          finishLater(sessionId, std::move(finish));
        }
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
  // The results name every step's diff image, and the stop makes them durable.
  finisher_->waitFor(sessionId);
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
        missing.outcome = StepOutcome::Missing;
        missing.baselineImage = baseline[i].image;
        end.addedSteps.push_back(missing);
        steps.push_back(std::move(missing));
      }
    }
    const Counts counts = count(steps);
    end.state = aborted ? SessionState::Aborted : SessionState::Stopped;
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
  if (r.state == SessionState::Running) {
    throw ApiError(409, fmt::format("session {} is still running: only a stopped session can "
                                    "be approved",
                                    sessionId));
  }
  if (r.state == SessionState::Aborted) {
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
  if (r.state != SessionState::Stopped) {
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
  if (r.state == SessionState::Running) {
    throw ApiError(409, fmt::format("session {} is still running", sessionId));
  }
  return resultsJson(r, storedStartInfo(r), store_.steps(sessionId), store_.findBatch(r.batchId),
                     baseUrl);
}

std::size_t SessionManager::cachedBaselineBytes() const { return cache_->bytes(); }

std::uint64_t SessionManager::baselineCacheHits() const { return cache_->hits(); }

}  // namespace lumo::server
