#include "_engine/def.h"
#include "_engine/rooms.h"
#include "host/calls/engine.h"
#include "host/interpreter/helpers.h"
#include "host/records/records.h"

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
  def(
      module, "run", [](const Keys& api_keys, bool verbose) -> Annotated<"SelfHealingEngine"> {
        const nb::object keys = api_keys ? nb::object(*api_keys) : nb::dict();
        return call(Helper::kQuickStart, keys, verbose);
      },
      kRunDoc, arg("api_keys") = nb::none(), arg("verbose") = true);
  def(
      module, "_check_provider",
      [](std::string_view name, std::string_view base_url,
         std::string_view api_key) -> Awaitable<bool> {
        return call(Helper::kCheckProvider, from_utf8(name), from_utf8(base_url),
                    from_utf8(api_key));
      },
      "Whether a provider answers a tiny request with this key within 10 seconds.\n\n"
      "To be awaited. No failure is raised: it is False.",
      arg("name"), arg("base_url"), arg("api_key"));
  def(module, "_preset_record", preset_record,
      "A preset provider's record, with its models and its key.", arg("name"), arg("base_url"),
      arg("api_keys"));
}

}  // namespace tarvomeldric::host
