#pragma once

#include "host/interpreter/python.h"

namespace tarvomeldric::host {

// The dashboard's page for what an engine's `get_stats` says now. The statistics may come from any
// object; a required entry that is missing is a KeyError. Values are shown in their
// plain text form, unescaped.
nb::str dashboard_page(nb::handle engine);

}  // namespace tarvomeldric::host
