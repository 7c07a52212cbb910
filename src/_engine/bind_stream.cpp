#include "_engine/def.h"
#include "_engine/rooms.h"
#include "host/calls/stream_lease.h"
#include "host/interpreter/collected.h"
#include "providers/event_stream.h"

namespace tarvomeldric::host {

namespace {

void bind_lease(nb::module_& module) {
  nb::class_<StreamLease> cls(module, "_StreamLease",
                              "What a streamed answer holds of its provider until its end.",
                              nb::type_slots(collected<StreamLease>));
  def(cls, "succeed", &StreamLease::succeed, "The answer came to its end, or is not wanted.",
      arg("latency_ms"));
  def(cls, "fail", &StreamLease::fail, "The answer broke off; what may be shown of the error.",
      arg("error"));
  def(cls, "tell_end", &StreamLease::tell_end, "Tells whoever listens that the call is over.",
      arg("outcome"), arg("usage").none());
}

}  // namespace

void bind_stream(nb::module_& module) {
  bind_lease(module);
  nb::class_<EventStream> cls(module, "_EventStream",
                              "Finds the server-sent events in the pieces of a streamed reply.");
  def(
      cls, "__init__", [](EventStream* self, bool lenient) { new (self) EventStream(lenient); },
      "`lenient`: the blank after \"data:\" may be missing.", arg("lenient") = false);
  def(
      cls, "feed",
      [](EventStream& self, std::string_view piece) {
        nb::typed<nb::list, nb::str> payloads;
        for (const std::string& payload : self.feed(piece)) payloads.append(from_utf8(payload));
        return payloads;
      },
      "The payloads of the event lines that this piece completes.", arg("piece"));
  cls.def_prop_ro("unfinished", &EventStream::unfinished,
                  "The bytes of the line that has not ended yet.");
  cls.def_prop_ro("done", &EventStream::done, "Whether the end of the events has been seen.");
}

}  // namespace tarvomeldric::host
