#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "lumo/server/store.h"

// The results pages' HTML. Every text that came from a client is escaped; links are relative
// to the server; no page carries inline script or style (the server's policy forbids them), so
// data for the viewer travels in data- attributes.
namespace lumo::server::detail {

// Where a test stands for a reviewer. New and Different are unresolved; Rejected stays
// unresolved too but is left alone by "approve all".
enum class Verdict { Running, Passed, New, Different, Failed, Rejected };

// `rejected`: the session has a rejection (of a step or of the whole test).
Verdict verdictOf(const SessionRecord& session, bool rejected);
// "running", "passed", "new", "different", "failed" or "rejected".
std::string_view verdictName(Verdict verdict);

// What every page needs besides its records.
struct PageContext {
  std::string formToken;  // anti-forgery token for the page's forms
  bool signedIn = false;  // offer signing out
};

// Recent batches matching `query`, with counts, filters and pages.
std::string indexPage(const Store& store, const Store::BatchQuery& query,
                      const PageContext& context);

// One batch: its counts, its tests (only those with verdict `status` when not empty) and the
// approve-all form.
std::string batchPage(const Store& store, const BatchRecord& batch, std::string_view status,
                      const PageContext& context);

// One session in the step viewer, with approve and reject forms.
std::string sessionPage(const Store& store, const SessionRecord& session,
                        const PageContext& context);

// The sign-in form; it sends the person to `next` (a path on this server) afterwards.
std::string signInPage(std::string_view next, bool failed);

std::string errorPage(int status, std::string_view message);

}  // namespace lumo::server::detail
