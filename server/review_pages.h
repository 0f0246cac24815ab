#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lumo/server/session_manager.h"
#include "pages.h"
#include "review_access.h"

// The results pages as plain functions of a request's parts, so that any HTTP front can serve
// them: each takes path parameters, query or form fields and the Cookie header, and answers a
// status, headers and a body.
namespace lumo::server::detail {

struct PageReply {
  int status = 200;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
};

// Query or form fields, by name (the first value of a repeated field).
using Fields = std::map<std::string, std::string, std::less<>>;

class ReviewPages {
 public:
  // Both must outlive the pages. `secure`: the server speaks HTTPS (cookies say Secure).
  ReviewPages(SessionManager& sessions, ReviewAccess& access, bool secure);

  // GET /?app=&branch=&page=
  PageReply index(const Fields& query, std::string_view cookie);
  // GET /batches/{id}?status=
  PageReply batch(const std::string& id, const Fields& query, std::string_view cookie);
  // GET /sessions/{id}
  PageReply session(const std::string& id, std::string_view cookie);
  // GET /images/{hash}.png
  PageReply image(const std::string& hash, std::string_view cookie);
  // GET /static/{name}: the script and the style sheet; open to all, they hold no data.
  static PageReply asset(std::string_view name);
  // GET /signin?next=
  PageReply signInForm(const Fields& query);
  // POST /signin (key, next)
  PageReply signIn(const Fields& form);
  // POST /signout (csrf)
  PageReply signOut(const Fields& form, std::string_view cookie);
  // POST /sessions/{id}/approve (csrf, step)
  PageReply approve(const std::string& sessionId, const Fields& form, std::string_view cookie);
  // POST /sessions/{id}/reject (csrf, step, position: a step's, absent for the whole test)
  PageReply reject(const std::string& sessionId, const Fields& form, std::string_view cookie);
  // POST /batches/{id}/approve (csrf): approves every new or different test of the batch.
  PageReply approveAll(const std::string& batchId, const Fields& form, std::string_view cookie);
  // Any other page.
  static PageReply notFound();

 private:
  // The page context, or nullopt when the request must sign in first.
  std::optional<PageContext> context(std::string_view cookie);
  // nullopt when the POST may go ahead, else the refusal.
  std::optional<PageReply> refusePost(const Fields& form, std::string_view cookie);

  SessionManager& sessions_;
  ReviewAccess& access_;
  bool secure_;
};

}  // namespace lumo::server::detail
