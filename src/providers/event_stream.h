#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarvomeldric {

// Finds the server-sent events in a provider's streamed reply, however the reply is cut into pieces
// on its way.
//
// A line is what a line feed, a carriage return or both end, and nothing else: a line separator
// inside a JSON text does not cut an event. Of the lines, those that say "data: " count; comments,
// empty lines and other fields are passed over, and so is everything after "[DONE]". Belongs to one
// consumer.
class EventStream {
 public:
  // `lenient`: the blank after "data:" may be missing, as the format allows.
  explicit EventStream(bool lenient = false) : lenient_(lenient) {}

  // The payloads of the event lines that this piece completes, in order. The end of a reply ends
  // its last line: feed a line feed then.
  std::vector<std::string> feed(std::string_view piece);

  // Whether "[DONE]" has been seen.
  bool done() const { return done_; }
  // The bytes of the line that has not ended yet.
  std::size_t unfinished() const { return unfinished_.size(); }

 private:
  void take_line(std::string_view line, std::vector<std::string>& payloads);

  bool lenient_;
  std::string unfinished_;  // the line that the next piece goes on with
  bool done_ = false;
};

}  // namespace tarvomeldric
