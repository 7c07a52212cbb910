#include "providers/event_stream.h"

#include <re2/re2.h>

#include <string>
#include <string_view>
#include <vector>

#include "checks.h"

namespace tarvomeldric::fuzz {
namespace {

using Payloads = std::vector<std::string>;

// Fed in the pieces that end behind each `cut`; or byte by byte, when there is none.
Payloads fed(std::string_view input, std::string_view cut) {
  EventStream stream;
  Payloads payloads;
  while (!input.empty()) {
    const std::size_t end = cut.empty() ? 1 : std::min(input.find(cut), input.size());
    const bool was_done = stream.done();
    for (std::string& payload : stream.feed(input.substr(0, end))) {
      require(!was_done, "nothing follows the end");
      payloads.push_back(std::move(payload));
    }
    input.remove_prefix(std::min(end + cut.size(), input.size()));
  }
  return payloads;
}

bool is_utf8(std::string_view text) {
  static const RE2 form(
      R"((?:[\x00-\x7f]|[\xc2-\xdf][\x80-\xbf]|\xe0[\xa0-\xbf][\x80-\xbf]|[\xe1-\xef][\x80-\xbf]{2})"
      R"(|\xf0[\x90-\xbf][\x80-\xbf]{2}|[\xf1-\xf4][\x80-\xbf]{3})*)",
      RE2::Latin1);
  return RE2::FullMatch(text, form);
}

// Line by line over the whole reply: what stands between white space, as Python has it, and a
// line's end.
Payloads events_of(std::string_view reply) {
  static const std::string space =
      R"((?:[\t-\r\x1c-\x20]|\xc2[\x85\xa0]|\xe1\x9a\x80|\xe2\x80[\x80-\x8a\xa8\xa9\xaf])"
      R"(|\xe2\x81\x9f|\xe3\x80\x80)*)";
  static const RE2 form("(?s)" + space + "(.*?)" + space + "[\r\n]", RE2::Latin1);
  constexpr std::string_view field = "data: ";
  Payloads events;
  re2::StringPiece rest(reply), found;
  while (RE2::Consume(&rest, form, &found)) {
    const std::string_view line = found;
    if (line == "data: [DONE]") break;
    if (line.starts_with(field)) events.emplace_back(line.substr(field.size()));
  }
  return events;
}

}  // namespace

void check_event_stream(std::string_view input) {
  constexpr std::string_view cut = "\xFF";
  const std::string pieces = std::string(input) + '\n';
  std::string reply = pieces;
  std::erase(reply, '\xFF');
  const Payloads events = fed(reply, cut);
  require(fed(pieces, cut) == events, "the same events however the reply is cut");
  require(fed(reply, "") == events, "the same events byte by byte");
  require(!is_utf8(reply) || events == events_of(reply), "the events are the lines' data");
}

}  // namespace tarvomeldric::fuzz
