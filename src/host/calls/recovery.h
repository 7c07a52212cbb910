#pragma once

#include <optional>
#include <string_view>

#include "host/records/records.h"

namespace tarvomeldric::host {

// The step of recovery that suits a diagnosis: any Python object with a `category`, whose value or
// text form counts. An empty provider is "default".
RecoveryAction suggest_recovery(nb::handle diagnosis, const std::optional<std::string>& provider);

}  // namespace tarvomeldric::host
