#include "_engine/def.h"
#include "_engine/rooms.h"
#include "providers/event_stream.h"

namespace tarvomeldric::host {

void bind_stream(nb::module_& module) {
  nb::class_<EventStream> cls(module, "_EventStream",
                              "Finds the server-sent events in the pieces of a streamed reply.");
  cls.def(nb::init<>());
  def(
      cls, "feed",
      [](EventStream& self, std::string_view piece) {
        nb::typed<nb::list, nb::str> payloads;
        for (const std::string& payload : self.feed(piece)) payloads.append(from_utf8(payload));
        return payloads;
      },
      "The payloads of the event lines that this piece completes.", arg("piece"));
  cls.def_prop_ro("done", &EventStream::done, "Whether the end of the events has been seen.");
}

}  // namespace tarvomeldric::host
