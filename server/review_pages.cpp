#include "review_pages.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "review_assets.h"
#include "web_text.h"

namespace lumo::server::detail {
namespace {

constexpr int kBatchesPerPage = 20;

// Pages carry no inline script or style; the policy makes a browser refuse any that an
// escaping mistake might let in.
constexpr std::string_view kPagePolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
    "form-action 'self'; base-uri 'none'; frame-ancestors 'none'";

PageReply html(int status, std::string body) {
  return {status,
          {{"Content-Type", "text/html; charset=utf-8"},
           {"Cache-Control", "no-store"},
           {"Content-Security-Policy", std::string(kPagePolicy)},
           {"X-Content-Type-Options", "nosniff"},
           {"Referrer-Policy", "same-origin"}},
          std::move(body)};
}

PageReply redirect(std::string location) {
  return {303, {{"Location", std::move(location)}, {"Cache-Control", "no-store"}}, {}};
}

PageReply error(int status, std::string_view message) {
  return html(status, errorPage(status, message));
}

std::string field(const Fields& fields, std::string_view name) {
  const auto it = fields.find(name);
  return it == fields.end() ? std::string() : it->second;
}

std::optional<int> number(std::string_view text) {
  int value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return value;
}

// Only a path on this server: never another host ("//host", "/\host") or a scheme.
std::string localPath(std::string_view next) {
  const bool local = next.starts_with('/') && !next.starts_with("//") && !next.starts_with("/\\") &&
                     next.find_first_of("\r\n\t") == std::string_view::npos;
  return local ? std::string(next) : std::string("/");
}

PageReply toSignIn(std::string_view next) {
  return redirect("/signin?next=" + percentEncode(next));
}

// The page a form came from, at the step it was on.
std::string sessionPath(const std::string& id, const Fields& form) {
  const auto step = number(field(form, "step"));
  return fmt::format("/sessions/{}{}", percentEncode(id),
                     step && *step > 0 ? fmt::format("#step-{}", *step) : std::string());
}

}  // namespace

ReviewPages::ReviewPages(SessionManager& sessions, ReviewAccess& access, bool secure)
    : sessions_(sessions), access_(access), secure_(secure) {}

std::optional<PageContext> ReviewPages::context(std::string_view cookie) {
  auto token = access_.formToken(cookie);
  if (!token) {
    return std::nullopt;
  }
  return PageContext{std::move(*token), !access_.open()};
}

std::optional<PageReply> ReviewPages::refusePost(const Fields& form, std::string_view cookie) {
  if (!access_.formToken(cookie)) {
    return toSignIn("/");
  }
  if (!access_.mayPost(cookie, field(form, "csrf"))) {
    return error(403, "This form has expired. Reload the page and try again.");
  }
  return std::nullopt;
}

PageReply ReviewPages::index(const Fields& query, std::string_view cookie) {
  const auto c = context(cookie);
  if (!c) {
    return toSignIn("/");
  }
  Store::BatchQuery q;
  q.app = field(query, "app");
  q.branch = field(query, "branch");
  q.limit = kBatchesPerPage;
  const int pageNumber = std::max(number(field(query, "page")).value_or(1), 1);
  q.offset = pageNumber > 100'000 ? 0 : (pageNumber - 1) * kBatchesPerPage;
  return html(200, indexPage(sessions_.store(), q, *c));
}

PageReply ReviewPages::batch(const std::string& id, const Fields& query, std::string_view cookie) {
  const auto c = context(cookie);
  if (!c) {
    return toSignIn("/batches/" + id);
  }
  const auto record = sessions_.store().findBatch(id);
  if (!record) {
    return error(404, "No such batch.");
  }
  std::string status = field(query, "status");
  constexpr std::array kFilters = {Verdict::Running,   Verdict::Passed, Verdict::New,
                                   Verdict::Different, Verdict::Failed, Verdict::Rejected};
  if (std::none_of(kFilters.begin(), kFilters.end(),
                   [&](Verdict v) { return verdictName(v) == status; })) {
    status.clear();
  }
  return html(200, batchPage(sessions_.store(), *record, status, *c));
}

PageReply ReviewPages::session(const std::string& id, std::string_view cookie) {
  const auto c = context(cookie);
  if (!c) {
    return toSignIn("/sessions/" + id);
  }
  const auto record = sessions_.store().findSession(id);
  if (!record) {
    return error(404, "No such session.");
  }
  return html(200, sessionPage(sessions_.store(), *record, *c));
}

PageReply ReviewPages::image(const std::string& hash, std::string_view cookie) {
  if (!access_.formToken(cookie)) {
    return toSignIn("/");
  }
  auto bytes = sessions_.store().readImage(hash);
  if (!bytes) {
    return {404, {{"Content-Type", "text/plain; charset=utf-8"}}, "no such image\n"};
  }
  // Content-addressed: an image's bytes never change under its name. Behind a sign-in only
  // the person's own browser may keep it.
  return {200,
          {{"Content-Type", "image/png"},
           {"Cache-Control", access_.open() ? "public, max-age=31536000, immutable"
                                            : "private, max-age=31536000, immutable"},
           {"X-Content-Type-Options", "nosniff"}},
          std::move(*bytes)};
}

PageReply ReviewPages::asset(std::string_view name) {
  if (name == "review.js") {
    return {200,
            {{"Content-Type", "text/javascript; charset=utf-8"}, {"Cache-Control", "no-cache"}},
            std::string(kReviewScript)};
  }
  if (name == "review.css") {
    return {200,
            {{"Content-Type", "text/css; charset=utf-8"}, {"Cache-Control", "no-cache"}},
            std::string(kReviewStyle)};
  }
  return notFound();
}

PageReply ReviewPages::signInForm(const Fields& query) {
  if (access_.open()) {
    return redirect("/");
  }
  return html(200, signInPage(localPath(field(query, "next")), false));
}

PageReply ReviewPages::signIn(const Fields& form) {
  const std::string next = localPath(field(form, "next"));
  const auto token = access_.open() ? std::nullopt : access_.signIn(field(form, "key"));
  if (!token) {
    return access_.open() ? redirect(next) : html(401, signInPage(next, true));
  }
  PageReply reply = redirect(next);
  reply.headers.emplace_back("Set-Cookie", access_.cookie(*token, secure_));
  return reply;
}

PageReply ReviewPages::signOut(const Fields& form, std::string_view cookie) {
  if (auto refused = refusePost(form, cookie)) {
    return *refused;
  }
  access_.signOut(cookie);
  PageReply reply = redirect("/signin");
  reply.headers.emplace_back("Set-Cookie", access_.cookie("", secure_));
  return reply;
}

PageReply ReviewPages::approve(const std::string& sessionId, const Fields& form,
                               std::string_view cookie) {
  if (auto refused = refusePost(form, cookie)) {
    return *refused;
  }
  try {
    sessions_.approve(sessionId);
  } catch (const ApiError& e) {
    return error(e.status(), e.what());
  }
  return redirect(sessionPath(sessionId, form));
}

PageReply ReviewPages::reject(const std::string& sessionId, const Fields& form,
                              std::string_view cookie) {
  if (auto refused = refusePost(form, cookie)) {
    return *refused;
  }
  std::optional<int> position;
  if (const std::string text = field(form, "position"); !text.empty()) {
    position = number(text);
    if (!position) {
      return error(400, "The step to reject is not a number.");
    }
  }
  try {
    sessions_.reject(sessionId, position);
  } catch (const ApiError& e) {
    return error(e.status(), e.what());
  }
  return redirect(sessionPath(sessionId, form));
}

PageReply ReviewPages::approveAll(const std::string& batchId, const Fields& form,
                                  std::string_view cookie) {
  if (auto refused = refusePost(form, cookie)) {
    return *refused;
  }
  Store& store = sessions_.store();
  if (!store.findBatch(batchId)) {
    return error(404, "No such batch.");
  }
  for (const SessionRecord& s : store.sessionsOfBatch(batchId)) {
    const Verdict v = verdictOf(s, s.rejected);
    if (v == Verdict::New || v == Verdict::Different) {
      try {
        sessions_.approve(s.id);
      } catch (const ApiError&) {
        // Changed since the page was drawn (a rerun is still going); the page shows it.
      }
    }
  }
  return redirect("/batches/" + percentEncode(batchId));
}

PageReply ReviewPages::notFound() { return error(404, "Not found."); }

}  // namespace lumo::server::detail
