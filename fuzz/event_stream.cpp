#include "providers/event_stream.h"

#include <string>
#include <string_view>
#include <vector>

#include "checks.h"
#include "utf8.h"

namespace tarvomeldric::fuzz {
namespace {

using Payloads = std::vector<std::string>;
constexpr char kCut = '\xFF';

Payloads fed(const std::vector<std::string_view>& pieces) {
  EventStream stream;
  Payloads payloads;
  for (std::string_view piece : pieces) {
    const bool was_done = stream.done();
    const Payloads more = stream.feed(piece);
    require(more.empty() || !was_done, "nothing follows the end");
    payloads.insert(payloads.end(), more.begin(), more.end());
  }
  return payloads;
}

std::vector<std::string_view> cut(std::string_view input) {
  std::vector<std::string_view> pieces;
  for (std::size_t at; (at = input.find(kCut)) != std::string_view::npos;) {
    pieces.push_back(input.substr(0, at));
    input.remove_prefix(at + 1);
  }
  pieces.push_back(input);
  return pieces;
}

std::vector<std::string_view> single_bytes(std::string_view text) {
  std::vector<std::string_view> pieces;
  for (std::size_t i = 0; i < text.size(); ++i) pieces.push_back(text.substr(i, 1));
  return pieces;
}

std::u32string_view stripped(std::u32string_view line) {
  constexpr std::u32string_view space =
      U"\t\n\v\f\r\x1c\x1d\x1e\x1f \x85\xa0\x1680\x2000\x2001\x2002\x2003\x2004\x2005\x2006\x2007"
      U"\x2008\x2009\x200a\x2028\x2029\x202f\x205f\x3000";
  const std::size_t start = line.find_first_not_of(space);
  if (start == std::u32string_view::npos) return {};
  return line.substr(start, line.find_last_not_of(space) - start + 1);
}

// Line by line over the whole reply.
std::vector<std::u32string> events_of(std::u32string_view reply) {
  constexpr std::u32string_view field = U"data: ", end_of_stream = U"[DONE]";
  std::vector<std::u32string> events;
  while (!reply.empty()) {
    const std::size_t end = reply.find_first_of(U"\r\n");
    const std::u32string_view line = stripped(reply.substr(0, end));
    reply.remove_prefix(end == std::u32string_view::npos ? reply.size() : end);
    if (reply.starts_with(U"\r\n")) {
      reply.remove_prefix(2);
    } else if (!reply.empty()) {
      reply.remove_prefix(1);
    }
    if (!line.starts_with(field)) continue;
    if (line.substr(field.size()) == end_of_stream) break;
    events.emplace_back(line.substr(field.size()));
  }
  return events;
}

}  // namespace

void check_event_stream(std::string_view input) {
  std::vector<std::string_view> pieces = cut(input);
  std::string reply;
  for (std::string_view piece : pieces) reply += piece;
  reply += '\n';
  pieces.emplace_back("\n");
  const Payloads payloads = fed({reply});
  require(fed(pieces) == payloads, "the same events however the reply is cut");
  require(fed(single_bytes(reply)) == payloads, "the same events byte by byte");

  const auto text = decoded(reply);
  if (!text) return;
  std::vector<std::u32string> read;
  for (const std::string& payload : payloads) read.push_back(decoded(payload).value());
  require(read == events_of(*text), "the events are the lines' data");
}

}  // namespace tarvomeldric::fuzz
