#include "pages.h"

#include <fmt/format.h>

#include "web_text.h"

namespace lumo::server::detail {
namespace {

constexpr int kRecentBatches = 20;

constexpr std::string_view kStyle = R"css(
body{font:14px/1.4 system-ui,sans-serif;margin:24px;color:#222}
a{color:#1558b0}
table{border-collapse:collapse}td,th{padding:4px 10px;text-align:left;border-bottom:1px solid #ddd}
.Passed,.matched{color:#17803d}.Unresolved,.different,.new,.missing{color:#b26b00}
.Failed,.failed{color:#c62828}
.steps{display:flex;gap:16px;flex-wrap:wrap}
figure{margin:0}figure img{max-width:320px;border:1px solid #ccc;display:block}
figcaption{color:#666;font-size:12px}
.empty{width:320px;height:120px;border:1px dashed #ccc;color:#999;display:flex;
align-items:center;justify-content:center}
section{margin:24px 0}
)css";

std::string page(std::string_view title, std::string_view body) {
  return fmt::format(
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>{} - Lumo"
      "</title><style>{}</style></head><body><p><a href=\"/\">Lumo</a></p>{}</body></html>\n",
      htmlEscape(title), kStyle, body);
}

std::string statusText(const SessionRecord& s) {
  if (s.state == "running") {
    return "Running";
  }
  if (s.state == "aborted") {
    return "Aborted";
  }
  const std::string status = s.isNew && s.status == "Unresolved" ? "New" : s.status;
  return s.saved ? status + ", saved as baseline" : status;
}

std::string statusClass(const SessionRecord& s) {
  return s.state == "stopped" ? s.status : std::string("Unresolved");
}

std::string sessionRows(const std::vector<SessionRecord>& sessions) {
  std::string rows;
  for (const SessionRecord& s : sessions) {
    rows += fmt::format(
        "<tr><td><a href=\"/sessions/{}\">{}</a></td><td>{}</td><td>{}</td><td>{}</td>"
        "<td class=\"{}\">{}</td><td>{}</td></tr>",
        percentEncode(s.id), htmlEscape(s.key.test), htmlEscape(s.key.app),
        htmlEscape(s.key.environment), htmlEscape(s.key.branch), htmlEscape(statusClass(s)),
        htmlEscape(statusText(s)), htmlEscape(s.startedAt));
  }
  return fmt::format(
      "<table><tr><th>Test</th><th>App</th><th>Environment</th><th>Branch</th><th>Status</th>"
      "<th>Started</th></tr>{}</table>",
      rows);
}

std::string batchTitle(const BatchRecord& batch) {
  return batch.name.empty() ? batch.id : batch.name;
}

std::string image(std::string_view hash, std::string_view caption) {
  if (hash.empty()) {
    return fmt::format(
        "<figure><div class=\"empty\">none</div><figcaption>{}</figcaption></figure>", caption);
  }
  return fmt::format(
      "<figure><a href=\"/images/{0}.png\"><img src=\"/images/{0}.png\" alt=\"{1}\"></a>"
      "<figcaption>{1}</figcaption></figure>",
      percentEncode(hash), caption);
}

}  // namespace

std::string indexPage(const Store& store) {
  std::string body = "<h1>Recent batches</h1>";
  const auto batches = store.recentBatches(kRecentBatches);
  if (batches.empty()) {
    body += "<p>No tests have run yet.</p>";
  }
  for (const BatchRecord& batch : batches) {
    body += fmt::format("<h2><a href=\"/batches/{}\">{}</a></h2><p>Started {}</p>{}",
                        percentEncode(batch.id), htmlEscape(batchTitle(batch)),
                        htmlEscape(batch.startedAt), sessionRows(store.sessionsOfBatch(batch.id)));
  }
  return page("Recent batches", body);
}

std::string batchPage(const Store& store, const BatchRecord& batch) {
  const std::string body =
      fmt::format("<h1>{}</h1><p>Batch {}, started {}</p>{}", htmlEscape(batchTitle(batch)),
                  htmlEscape(batch.id), htmlEscape(batch.startedAt),
                  sessionRows(store.sessionsOfBatch(batch.id)));
  return page(batchTitle(batch), body);
}

std::string sessionPage(const SessionRecord& s, const std::vector<StepRecord>& steps) {
  std::string body = fmt::format(
      "<h1>{} &mdash; {}</h1><p>Environment {}, branch {}, started {}. "
      "<a href=\"/batches/{}\">Batch</a></p><p class=\"{}\"><strong>{}</strong>{}</p>",
      htmlEscape(s.key.app), htmlEscape(s.key.test), htmlEscape(s.key.environment),
      htmlEscape(s.key.branch), htmlEscape(s.startedAt), percentEncode(s.batchId),
      htmlEscape(statusClass(s)), htmlEscape(statusText(s)), s.isNew ? " (new test)" : "");
  if (s.state == "stopped" && s.status != "Failed") {
    body += fmt::format(
        "<form method=\"post\" action=\"/api/sessions/{}/approve\">"
        "<label>API key <input type=\"password\" name=\"apiKey\" required></label> "
        "<button type=\"submit\">Approve as baseline</button></form>",
        percentEncode(s.id));
  }
  for (const StepRecord& step : steps) {
    body += fmt::format(
        "<section id=\"step-{}\"><h2>{}. {} <span class=\"{}\">{}</span></h2>"
        "<div class=\"steps\">{}{}{}</div></section>",
        step.position + 1, step.position + 1, htmlEscape(step.name), htmlEscape(step.outcome),
        htmlEscape(step.outcome), image(step.baselineImage, "Baseline"),
        image(step.currentImage, "Current"), image(step.diffImage, "Differences"));
  }
  if (steps.empty()) {
    body += "<p>No steps.</p>";
  }
  return page(s.key.test, body);
}

std::string errorPage(int status, std::string_view message) {
  return page("Error", fmt::format("<h1>{}</h1><p>{}</p>", status, htmlEscape(message)));
}

}  // namespace lumo::server::detail
