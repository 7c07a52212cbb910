#include "_engine/bindings.h"
#include "host/argument.h"
#include "providers/event_stream.h"

namespace tarvomeldric::host {

void bind_stream(nb::module_& module) {
  nb::class_<EventStream>(module, "_EventStream",
                          "Finds the server-sent events in the pieces of a streamed reply.")
      .def(nb::init<>())
      .def(
          "feed",
          [](EventStream& self, Arg<std::string, "piece"> piece) {
            nb::list payloads;
            for (const std::string& payload : self.feed(piece.get())) {
              payloads.append(from_utf8(payload));
            }
            return payloads;
          },
          arg("piece"), nb::sig("def feed(self, piece: str) -> list[str]"),
          "The payloads of the event lines that this piece completes.")
      .def_prop_ro("done", &EventStream::done, "Whether the end of the events has been seen.");
}

}  // namespace tarvomeldric::host
