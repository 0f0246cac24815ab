#include "common/match_window_data.h"

#include <utility>

#include "common/compact_json.h"

namespace lumo {

MatchWindowData::MatchWindowData(AppOutput appOutput, std::optional<std::string> tag,
                                 Options options)
    : appOutput_(std::move(appOutput)), tag_(std::move(tag)), options_(std::move(options)) {}

Json MatchWindowData::dictionary() const {
  // Assigned one by one: a braced list would copy the megabytes of screenshot text again.
  Json json = Json::object();
  json["appOutput"] = appOutput_.dictionary();
  json["tag"] = tag_.value_or("");
  json["options"] = options_.dictionary();
  return json;
}

std::string MatchWindowData::compactJson() const {
  // Everything but the screenshot goes through the writers; the screenshot text is escaped
  // straight from the record, in front of the other app output keys as AppOutput writes it.
  const std::optional<std::string>& screenshot64 = appOutput_.screenshot64();
  const bool hasScreenshot = screenshot64 && !screenshot64->empty();
  const Json rest =
      MatchWindowData(AppOutput(appOutput_.title(), std::nullopt), tag_, options_).dictionary();

  std::string out;
  out.reserve((hasScreenshot ? screenshot64->size() + screenshot64->size() / 16 : 0) + 4096);
  out += R"({"appOutput":{)";
  if (hasScreenshot) {
    out += R"("screenshot64":)";
    detail::appendJsonString(*screenshot64, out);
  }
  for (auto it = rest["appOutput"].begin(); it != rest["appOutput"].end(); ++it) {
    if (hasScreenshot || it != rest["appOutput"].begin()) {
      out += ',';
    }
    detail::appendJsonString(it.key(), out);
    out += ':';
    detail::appendCompactJson(it.value(), out);
  }
  out += R"(},"tag":)";
  detail::appendCompactJson(rest["tag"], out);
  out += R"(,"options":)";
  detail::appendCompactJson(rest["options"], out);
  out += '}';
  return out;
}

}  // namespace lumo
