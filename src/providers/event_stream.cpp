#include "providers/event_stream.h"

#include "support/text.h"

namespace tarvomeldric {
namespace {

constexpr std::string_view kField = "data:";
constexpr std::string_view kEndOfStream = "[DONE]";
constexpr std::string_view kLineEnds = "\n\r";

}  // namespace

// A carriage return and its line feed leave an empty line between them, which is passed over like
// any other: the pair needs no care, whichever piece its halves are in.
std::vector<std::string> EventStream::feed(std::string_view piece) {
  std::vector<std::string> payloads;
  for (std::size_t end; (end = piece.find_first_of(kLineEnds)) != std::string_view::npos;) {
    if (unfinished_.empty()) {
      take_line(piece.substr(0, end), payloads);
    } else {
      unfinished_ += piece.substr(0, end);
      take_line(unfinished_, payloads);
      unfinished_.clear();
    }
    piece.remove_prefix(end + 1);
  }
  unfinished_ += piece;
  return payloads;
}

void EventStream::take_line(std::string_view line, std::vector<std::string>& payloads) {
  if (done_) return;
  line = text::strip(line);
  if (!line.starts_with(kField)) return;
  line.remove_prefix(kField.size());
  const bool has_blank = line.starts_with(' ');
  if (!has_blank && !lenient_) return;
  if (has_blank) line.remove_prefix(1);
  if (line == kEndOfStream) {
    done_ = true;
  } else {
    payloads.emplace_back(line);
  }
}

}  // namespace tarvomeldric
