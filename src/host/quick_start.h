#pragma once

#include "host/python.h"

namespace tarvomeldric::host {

// An engine with every provider for which `api_keys` (None or a dictionary by provider name) or the
// environment has a key, each one asked whether the key works; with `verbose`, a line about each
// and a banner are printed.
nb::object quick_start(nb::handle api_keys, bool verbose);

// The coroutine that asks one provider whether a key works. Throws a type error that names the
// argument.
nb::object check_provider(nb::handle name, nb::handle base_url, nb::handle api_key);

}  // namespace tarvomeldric::host
