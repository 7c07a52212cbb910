#include "_engine/bindings.h"
#include "host/argument.h"
#include "host/quick_start.h"

namespace tarvomeldric::host {
namespace {

constexpr const char* kRunDoc =
    "Builds an engine with every provider that a key can be found for, and says what it found.\n\n"
    "Each provider is asked for a few tokens, one after the other and for at most 10 seconds, to\n"
    "see whether the key works; one that does not answer is registered as unhealthy. Inside a\n"
    "running event loop nobody is asked, and every provider with a key is taken for healthy.\n\n"
    "Args:\n"
    "    api_keys: keys by provider name; the environment has those that are missing here.\n"
    "    verbose: whether to print a line for each provider and a banner.\n\n"
    "Returns the SelfHealingEngine.\n\n"
    "Raises:\n"
    "    TypeError: `api_keys` is neither None nor a dictionary of texts.";

}  // namespace

void bind_quick_start(nb::module_& module) {
  module.def(
      "run",
      [](nb::handle api_keys, Arg<bool, "verbose"> verbose) {
        return quick_start(api_keys, verbose.get());
      },
      arg("api_keys") = nb::none(), arg("verbose") = true,
      nb::sig("def run(api_keys: dict[str, str] | None = None, verbose: bool = True) "
              "-> SelfHealingEngine"),
      kRunDoc);
  module.def("_check_provider", &check_provider, arg("name"), arg("base_url"), arg("api_key"),
             nb::sig("def _check_provider(name: str, base_url: str, api_key: str) -> "
                     "collections.abc.Coroutine[typing.Any, typing.Any, bool]"),
             "Whether a provider answers a tiny request with this key within 10 seconds.\n\n"
             "To be awaited. No failure is raised: it is False.");
}

}  // namespace tarvomeldric::host
