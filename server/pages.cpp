#include "pages.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "rect_pixels.h"
#include "review_time.h"
#include "web_text.h"

namespace lumo::server::detail {
namespace {

constexpr std::array kVerdicts = {Verdict::Passed, Verdict::New, Verdict::Different,
                                  Verdict::Failed, Verdict::Rejected};

std::string e(std::string_view text) { return htmlEscape(text); }

std::string page(std::string_view title, std::string_view crumbs, std::string_view body,
                 const PageContext& context, bool wide = false) {
  std::string signOut;
  if (context.signedIn) {
    signOut = fmt::format(
        "<form method=\"post\" action=\"/signout\"><input type=\"hidden\" name=\"csrf\" "
        "value=\"{}\"><button type=\"submit\">Sign out</button></form>",
        e(context.formToken));
  }
  return fmt::format(
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
      "<title>{} - Lumo</title><link rel=\"stylesheet\" href=\"/static/review.css\">"
      "<script src=\"/static/review.js\" defer></script></head><body>"
      "<header class=\"topbar\"><a class=\"brand\" href=\"/\">Lumo</a>"
      "<nav class=\"crumbs\">{}</nav>{}</header><main{}>{}</main></body></html>\n",
      e(title), crumbs, signOut, wide ? " class=\"wide\"" : "", body);
}

std::string hidden(std::string_view name, std::string_view value) {
  return fmt::format("<input type=\"hidden\" name=\"{}\" value=\"{}\">", e(name), e(value));
}

// A stored time as UTC text; what cannot be read is shown as written.
std::string timeText(std::string_view stored) {
  return readableTime(stored).value_or(std::string(stored));
}

std::string batchTitle(const BatchRecord& batch) {
  return batch.name.empty() ? "Batch " + batch.id.substr(0, 8) : batch.name;
}

std::string durationText(std::int64_t ms) {
  if (ms < 1000) {
    return fmt::format("{} ms", ms);
  }
  const auto s = ms / 1000;
  return s < 60 ? fmt::format("{} s", s) : fmt::format("{} min {} s", s / 60, s % 60);
}

std::string badge(Verdict v) {
  return fmt::format("<span class=\"badge {0}\">{0}</span>", verdictName(v));
}

struct Reviewed {
  SessionRecord session;
  Verdict verdict;
};

std::vector<Reviewed> reviewed(const Store& store, const std::string& batchId) {
  std::vector<Reviewed> out;
  for (SessionRecord& s : store.sessionsOfBatch(batchId)) {
    const Verdict v = verdictOf(s, s.rejected);
    out.push_back({std::move(s), v});
  }
  return out;
}

int countOf(const std::vector<Reviewed>& tests, Verdict v) {
  return static_cast<int>(
      std::count_if(tests.begin(), tests.end(), [v](const Reviewed& t) { return t.verdict == v; }));
}

std::string counts(const std::vector<Reviewed>& tests) {
  std::string out;
  for (Verdict v : kVerdicts) {
    const int n = countOf(tests, v);
    out += fmt::format("<span class=\"count {}{}\" title=\"{}\">{}</span>", verdictName(v),
                       n ? "" : " zero", verdictName(v), n);
  }
  return out;
}

std::string options(const std::vector<std::string>& values, std::string_view chosen,
                    std::string_view all) {
  std::string out = fmt::format("<option value=\"\">{}</option>", all);
  for (const std::string& v : values) {
    out +=
        fmt::format("<option value=\"{0}\"{1}>{0}</option>", e(v), v == chosen ? " selected" : "");
  }
  return out;
}

std::string indexLink(const Store::BatchQuery& q, int offset) {
  return fmt::format("/?app={}&amp;branch={}&amp;page={}", percentEncode(q.app),
                     percentEncode(q.branch), offset / std::max(q.limit, 1) + 1);
}

std::string image(std::string_view hash, std::string_view alt, std::string_view extra = "") {
  return fmt::format("<img src=\"/images/{}.png\" alt=\"{}\"{}>", percentEncode(hash), alt, extra);
}

std::string sidePane(std::string_view hash, std::string_view caption, std::string_view missing) {
  const std::string content =
      hash.empty() ? fmt::format("<div class=\"nothing\">{}</div>", missing)
                   : fmt::format("<div class=\"frame\">{}</div>", image(hash, caption));
  return fmt::format("<figure class=\"pane side\"><figcaption>{}</figcaption>{}</figure>", caption,
                     content);
}

std::string overlayPane(const StepRecord& step) {
  std::string content;
  if (step.baselineImage.empty() || step.currentImage.empty()) {
    content = "<div class=\"nothing\">Overlay needs a baseline and a current image.</div>";
  } else {
    content = fmt::format("<div class=\"frame\">{}{}</div>", image(step.baselineImage, "Baseline"),
                          image(step.currentImage, "Current", " class=\"top\""));
  }
  return fmt::format("<figure class=\"pane overlay\"><figcaption>Overlay</figcaption>{}</figure>",
                     content);
}

std::string boxesJson(const std::vector<Rect>& boxes) {
  std::string out = "[";
  for (const Rect& r : boxes) {
    out += fmt::format("{}[{},{},{},{}]", out.size() > 1 ? "," : "", leftOf(r), topOf(r),
                       widthOf(r), heightOf(r));
  }
  return out + "]";
}

std::string differenceList(const StepRecord& step, const std::vector<Rect>* boxes) {
  if (step.outcome == StepOutcome::Matched) {
    return "<span class=\"muted\">No differences.</span>";
  }
  if (!boxes) {
    return step.diffImage.empty()
               ? "<span class=\"muted\">No comparison for this step.</span>"
               : "<span class=\"muted\">No difference regions were recorded for this step; the "
                 "differences image shows what changed.</span>";
  }
  std::string items;
  for (std::size_t i = 0; i < boxes->size(); ++i) {
    const Rect& r = (*boxes)[i];
    items += fmt::format(
        "<li><button type=\"button\" data-index=\"{}\">{} &middot; {},{} &middot; "
        "{}&times;{}</button></li>",
        i, i + 1, leftOf(r), topOf(r), widthOf(r), heightOf(r));
  }
  return fmt::format("{} difference{}: <ol>{}</ol>", boxes->size(), boxes->size() == 1 ? "" : "s",
                     items);
}

std::string stepSection(const SessionRecord& s, const StepRecord& step,
                        const std::vector<Rect>* boxes, bool rejected, const PageContext& c) {
  std::string reject;
  if (s.state == SessionState::Stopped) {
    reject = rejected ? std::string("<span class=\"badge rejected\">rejected</span>")
                      : fmt::format(
                            "<form class=\"inline reject-step\" method=\"post\" "
                            "action=\"/sessions/{}/reject\">{}{}{}<button type=\"submit\" "
                            "class=\"danger\">Reject step <kbd>r</kbd></button></form>",
                            percentEncode(s.id), hidden("csrf", c.formToken),
                            hidden("position", std::to_string(step.position)),
                            hidden("step", std::to_string(step.position + 1)));
  }
  return fmt::format(
      "<section class=\"step\" id=\"step-{0}\" data-outcome=\"{1}\" data-boxes=\"{2}\">"
      "<div class=\"step-head\"><h2>{0}. {3}</h2><span class=\"badge {1}\">{1}</span>"
      "<span class=\"muted\">{4}</span>{5}</div>"
      "<div class=\"stage mode-side zoom-fit\">{6}{7}{8}{9}</div>"
      "<div class=\"diffs\">{10}</div></section>",
      step.position + 1, e(nameOf(step.outcome)),
      e(boxesJson(boxes ? *boxes : std::vector<Rect>())),
      e(step.name.empty() ? "(unnamed)" : step.name), e(step.matchLevel), reject,
      sidePane(step.baselineImage, "Baseline", "No baseline: a new step"),
      sidePane(step.currentImage, "Current", "No current image"),
      sidePane(step.diffImage, "Differences",
               step.outcome == StepOutcome::Matched ? "No differences" : "No comparison"),
      overlayPane(step), differenceList(step, boxes));
}

constexpr std::string_view kViewerControls =
    "<div class=\"viewer-head\"><div class=\"group\"><span>View</span>"
    "<button type=\"button\" data-mode=\"side\">Side by side</button>"
    "<button type=\"button\" data-mode=\"wipe\">Wipe</button>"
    "<button type=\"button\" data-mode=\"onion\">Onion skin</button>"
    "<button type=\"button\" data-mode=\"toggle\">Toggle <kbd>t</kbd></button>"
    "<input type=\"range\" id=\"slider\" min=\"0\" max=\"100\" value=\"50\" "
    "aria-label=\"Overlay\" hidden></div>"
    "<div class=\"group\"><span>Zoom</span>"
    "<button type=\"button\" data-zoom=\"fit\">Fit</button>"
    "<button type=\"button\" data-zoom=\"100\">100%</button>"
    "<button type=\"button\" data-zoom=\"200\">200%</button></div>"
    "<div class=\"group\"><span>Difference</span>"
    "<button type=\"button\" data-diff=\"-1\">&lsaquo; <kbd>p</kbd></button>"
    "<button type=\"button\" data-diff=\"1\"><kbd>n</kbd> &rsaquo;</button></div>"
    "<div class=\"group muted\"><kbd>j</kbd>/<kbd>k</kbd>&nbsp;step &nbsp;<kbd>a</kbd>"
    "&nbsp;approve &nbsp;<kbd>r</kbd>&nbsp;reject</div></div>";

}  // namespace

Verdict verdictOf(const SessionRecord& s, bool rejected) {
  if (s.state == SessionState::Running) {
    return Verdict::Running;
  }
  if (s.state == SessionState::Aborted || s.status == "Failed") {
    return Verdict::Failed;
  }
  if (rejected) {
    return Verdict::Rejected;
  }
  if (s.status == "Passed" || s.saved) {
    return Verdict::Passed;
  }
  return s.isNew ? Verdict::New : Verdict::Different;
}

std::string_view verdictName(Verdict verdict) {
  switch (verdict) {
    case Verdict::Running:
      return "running";
    case Verdict::Passed:
      return "passed";
    case Verdict::New:
      return "new";
    case Verdict::Different:
      return "different";
    case Verdict::Failed:
      return "failed";
    case Verdict::Rejected:
      return "rejected";
  }
  return "running";
}

std::string indexPage(const Store& store, const Store::BatchQuery& query,
                      const PageContext& context) {
  const auto list = store.queryBatches(query);
  std::string rows;
  for (const BatchRecord& batch : list.batches) {
    const auto tests = reviewed(store, batch.id);
    rows += fmt::format(
        "<tr><td class=\"name\"><a href=\"/batches/{}\">{}</a></td><td>{}</td><td>{}</td>"
        "<td>{}</td></tr>",
        percentEncode(batch.id), e(batchTitle(batch)), e(timeText(batch.startedAt)), tests.size(),
        counts(tests));
  }
  const bool filtered = !query.app.empty() || !query.branch.empty();
  std::string table =
      rows.empty()
          ? fmt::format("<div class=\"card empty-state\">{}</div>",
                        filtered ? "No batch matches the filter." : "No tests have run yet.")
          : fmt::format(
                "<div class=\"card\"><table><thead><tr><th>Batch</th><th>Started</th>"
                "<th>Tests</th><th title=\"passed, new, different, failed, rejected\">Passed "
                "&middot; New &middot; Different &middot; Failed &middot; Rejected</th></tr>"
                "</thead><tbody>{}</tbody></table></div>",
                rows);
  std::string pager;
  if (list.total > query.limit) {
    const int pages = (list.total + query.limit - 1) / query.limit;
    const int current = query.offset / query.limit + 1;
    pager = fmt::format("<nav class=\"pager\">{}<span class=\"muted\">Page {} of {}</span>{}</nav>",
                        current > 1 ? fmt::format("<a href=\"{}\">&lsaquo; Newer</a>",
                                                  indexLink(query, query.offset - query.limit))
                                    : std::string(),
                        current, pages,
                        current < pages ? fmt::format("<a href=\"{}\">Older &rsaquo;</a>",
                                                      indexLink(query, query.offset + query.limit))
                                        : std::string());
  }
  const std::string body = fmt::format(
      "<h1>Batches</h1><p class=\"sub\">{} batch{}{}</p>"
      "<form class=\"toolbar\" method=\"get\" action=\"/\">"
      "<select name=\"app\" aria-label=\"App\">{}</select>"
      "<select name=\"branch\" aria-label=\"Branch\">{}</select>"
      "<button type=\"submit\">Filter</button>{}</form>{}{}",
      list.total, list.total == 1 ? "" : "es", filtered ? " match the filter" : "",
      options(store.sessionApps(), query.app, "All apps"),
      options(store.sessionBranches(), query.branch, "All branches"),
      filtered ? "<a href=\"/\">Clear</a>" : "", table, pager);
  return page("Batches", "Batches", body, context);
}

std::string batchPage(const Store& store, const BatchRecord& batch, std::string_view status,
                      const PageContext& context) {
  const auto tests = reviewed(store, batch.id);
  // A test without images (cut off, or closed before its first checkpoint) has nothing to
  // approve, so the button does not promise it.
  const int unresolved =
      static_cast<int>(std::count_if(tests.begin(), tests.end(), [](const Reviewed& t) {
        return (t.verdict == Verdict::New || t.verdict == Verdict::Different) &&
               t.session.stepCount > 0;
      }));
  std::string chips = fmt::format("<a href=\"/batches/{}\"{}>All {}</a>", percentEncode(batch.id),
                                  status.empty() ? " class=\"on\"" : "", tests.size());
  for (Verdict v : kVerdicts) {
    chips += fmt::format("<a href=\"/batches/{}?status={}\"{}>{} {}</a>", percentEncode(batch.id),
                         verdictName(v), status == verdictName(v) ? " class=\"on\"" : "",
                         verdictName(v), countOf(tests, v));
  }
  std::string approveAll;
  if (unresolved > 0) {
    approveAll = fmt::format(
        "<form method=\"post\" action=\"/batches/{}/approve\">{}<button type=\"submit\" "
        "class=\"primary\">Approve all unresolved ({})</button></form>",
        percentEncode(batch.id), hidden("csrf", context.formToken), unresolved);
  }
  std::string rows;
  for (const Reviewed& t : tests) {
    if (!status.empty() && verdictName(t.verdict) != status) {
      continue;
    }
    const SessionRecord& s = t.session;
    rows += fmt::format(
        "<tr><td>{}</td><td class=\"name\"><a href=\"/sessions/{}\">{}</a></td><td>{}</td>"
        "<td>{}</td><td>{}</td><td>{}</td><td>{}</td></tr>",
        badge(t.verdict), percentEncode(s.id), e(s.key.test), e(s.key.app), e(s.key.environment),
        e(s.key.branch), e(timeText(s.startedAt)),
        s.state == SessionState::Running ? std::string() : durationText(s.durationMs));
  }
  const std::string table =
      rows.empty() ? "<div class=\"card empty-state\">No tests here.</div>"
                   : fmt::format(
                         "<div class=\"card\"><table><thead><tr><th>Status</th><th>Test</th>"
                         "<th>App</th><th>Environment</th><th>Branch</th><th>Started</th>"
                         "<th>Duration</th></tr></thead><tbody>{}</tbody></table></div>",
                         rows);
  const std::string body = fmt::format(
      "<h1>{}</h1><p class=\"sub\">Started {} &middot; {} test{}</p>"
      "<div class=\"toolbar\"><div class=\"chips\">{}</div><span class=\"spacer\"></span>{}</div>"
      "{}",
      e(batchTitle(batch)), e(timeText(batch.startedAt)), tests.size(),
      tests.size() == 1 ? "" : "s", chips, approveAll, table);
  return page(batchTitle(batch),
              fmt::format("<a href=\"/\">Batches</a> &rsaquo; {}", e(batchTitle(batch))), body,
              context);
}

std::string sessionPage(const Store& store, const SessionRecord& s, const PageContext& context) {
  const auto steps = store.steps(s.id);
  const bool wholeTestRejected =
      s.rejected &&
      std::all_of(steps.begin(), steps.end(), [](const StepRecord& step) { return step.rejected; });
  const Verdict verdict = verdictOf(s, s.rejected);

  std::string actions;
  if (s.state == SessionState::Stopped && s.status != "Failed") {
    actions += fmt::format(
        "<form id=\"approve\" method=\"post\" action=\"/sessions/{}/approve\">{}{}"
        "<button type=\"submit\" class=\"primary\">Approve test <kbd>a</kbd></button></form>",
        percentEncode(s.id), hidden("csrf", context.formToken), hidden("step", "1"));
  }
  if (s.state == SessionState::Stopped && !wholeTestRejected) {
    actions += fmt::format(
        "<form method=\"post\" action=\"/sessions/{}/reject\">{}{}<button type=\"submit\" "
        "class=\"danger\">Reject test</button></form>",
        percentEncode(s.id), hidden("csrf", context.formToken), hidden("step", "1"));
  }
  std::string nav, sections;
  for (const StepRecord& step : steps) {
    const bool stepRejected = wholeTestRejected || step.rejected;
    nav += fmt::format(
        "<li><a href=\"#step-{0}\" data-step=\"{0}\"><span class=\"dot {1}\"></span>"
        "<span class=\"label\">{0}. {2}</span></a></li>",
        step.position + 1, stepRejected ? "rejected" : e(nameOf(step.outcome)),
        e(step.name.empty() ? "(unnamed)" : step.name));
    sections +=
        stepSection(s, step, step.boxes.empty() ? nullptr : &step.boxes, stepRejected, context);
  }
  if (steps.empty()) {
    sections = "<div class=\"empty-state\">This test has no steps.</div>";
  }
  const std::string body = fmt::format(
      "<div class=\"review\"><nav class=\"steps-nav\"><div class=\"head\"><h1>{}</h1>"
      "<p class=\"sub\">{} &middot; {} &middot; branch {}<br>Started {}</p><p>{}{}</p>"
      "<div class=\"toolbar\">{}</div></div><ol>{}</ol></nav>"
      "<div class=\"viewer\">{}{}</div></div>",
      e(s.key.test), e(s.key.app), e(s.key.environment), e(s.key.branch), e(timeText(s.startedAt)),
      badge(verdict), s.saved ? " <span class=\"muted\">saved as baseline</span>" : "", actions,
      nav, kViewerControls, sections);
  const auto batch = store.findBatch(s.batchId);
  const std::string crumbs = fmt::format(
      "<a href=\"/\">Batches</a> &rsaquo; <a href=\"/batches/{}\">{}</a> &rsaquo; {}",
      percentEncode(s.batchId), e(batch ? batchTitle(*batch) : s.batchId), e(s.key.test));
  return page(s.key.test, crumbs, body, context, true);
}

std::string signInPage(std::string_view next, bool failed) {
  const std::string body = fmt::format(
      "<form class=\"card signin\" method=\"post\" action=\"/signin\"><h1>Sign in</h1>"
      "<p class=\"sub\">Enter one of this server's API keys to see its results.</p>{}"
      "<label for=\"key\">API key</label><input type=\"password\" id=\"key\" name=\"key\" "
      "autocomplete=\"current-password\" required autofocus>{}"
      "<button type=\"submit\" class=\"primary\">Sign in</button></form>",
      failed ? "<p class=\"error\">That key is not valid here.</p>" : "", hidden("next", next));
  return page("Sign in", "", body, PageContext{});
}

std::string errorPage(int status, std::string_view message) {
  return page("Error", "",
              fmt::format("<div class=\"card empty-state\"><h1>{}</h1><p>{}</p>"
                          "<p><a href=\"/\">All batches</a></p></div>",
                          status, e(message)),
              PageContext{});
}

}  // namespace lumo::server::detail
