#include "_engine/def.h"
#include "_engine/rooms.h"
#include "host/calls/dashboard_page.h"
#include "host/interpreter/helpers.h"

namespace tarvomeldric::host {
namespace {

constexpr const char* kServeDoc =
    "Serves an engine's figures over plain HTTP on a daemon thread, and returns at once.\n\n"
    "\"/\" is a page that reloads itself every 5 seconds, \"/metrics\" the Prometheus text,\n"
    "\"/health\" and \"/stats\" are JSON. Nobody is asked for a password and nothing is "
    "encrypted:\n"
    "bind to \"127.0.0.1\" unless everybody who reaches the port may read it. No request changes\n"
    "the engine. A client that does not send its request within a few seconds is dropped.\n\n"
    "Args:\n"
    "    engine: the engine to read.\n"
    "    host: the address to listen on; all interfaces by default.\n"
    "    port: 9898 by default; 0 lets the system choose, see `server_port` of the result.\n"
    "    with_prometheus: whether \"/metrics\" is served.\n"
    "    with_health: whether \"/health\" is served.\n"
    "    with_dashboard: whether the page is served.\n"
    "    allowed_hosts: names and addresses, without ports, that a request's `Host` may say\n"
    "        beside `host` itself, localhost, 127.0.0.0/8 and [::1]; any other is refused with\n"
    "        421, and several at once with 400. By default this is so on a loopback address,\n"
    "        where a page from elsewhere could read the figures under a name of its own; on any\n"
    "        other address nothing is refused.\n"
    "    live: whether \"/live\" is served, the page for a bad day, and \"/live.json\", which "
    "that\n"
    "        reads every 2 seconds. Calls are recorded for it until `server_close()`.\n\n"
    "Returns the running server; `server_close()` ends it.\n\n"
    "Raises:\n"
    "    OSError: the address is in use or cannot be bound.\n"
    "    OverflowError: a port outside 0 to 65535.\n"
    "    TypeError: an argument of the wrong type.\n"
    "    ValueError: a name in `allowed_hosts` that no host can have.";

}  // namespace

void bind_dashboard(nb::module_& module) {
  def(
      module, "serve_dashboard",
      [](const Annotated<"SelfHealingEngine">& engine, const std::string& host, std::int64_t port,
         bool with_prometheus, bool with_health, bool with_dashboard,
         const Annotated<"collections.abc.Sequence[str] | None">& allowed_hosts,
         bool live) -> Annotated<"http.server.HTTPServer"> {
        return call(Helper::kServeDashboard, engine, from_utf8(host), port, with_prometheus,
                    with_health, with_dashboard, allowed_hosts, live);
      },
      kServeDoc, arg("engine"), arg("host") = "0.0.0.0", arg("port") = 9898,
      arg("with_prometheus") = true, arg("with_health") = true, arg("with_dashboard") = true,
      arg("allowed_hosts") = nb::none(), arg("live") = false);
  def(
      module, "_build_dashboard",
      [](const Annotated<"SelfHealingEngine">& engine) { return dashboard_page(engine); },
      "The dashboard's page, for the figures of this moment.", arg("engine"));
}

}  // namespace tarvomeldric::host
