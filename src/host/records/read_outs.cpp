#include "host/records/read_outs.h"

#include <algorithm>

#include "host/records/convert.h"
#include "support/version.h"

namespace tarvomeldric::host {

nb::dict dict_of(const Figures& figures) {
  nb::dict dict;
  for (const auto& [name, value] : figures) {
    const nb::object shown = std::visit(
        []<class T>(const T& held) -> nb::object {
          if constexpr (std::is_same_v<T, Figures>) {
            return dict_of(held);
          } else {
            return Convert<T>::to(held);
          }
        },
        value);
    put(dict, from_utf8(name), shown);
  }
  return dict;
}

Annotated<"dict[str, typing.Any]"> span_of(const MetricsCollector& metrics, std::string_view name,
                                           nb::handle attrs) {
  auto counters = metrics.counters();
  std::ranges::sort(counters);
  nb::list events;
  for (const auto& [counter, value] : counters) {
    events.append(make_dict({{"name", from_utf8("tm." + counter)},
                             {"attributes", make_dict({{"value", number(value)}})}}));
  }
  const nb::dict service = make_dict(
      {{"service.name", from_utf8("tarvomeldric")}, {"service.version", from_utf8(kVersion)}});
  const bool given = !attrs.is_none() && nb::len(attrs) != 0;
  return make_dict({{"name", from_utf8(name)},
                    {"kind", nb::int_(1)},
                    {"startTime", number(static_cast<std::int64_t>(system_clock().wall() * 1e9))},
                    {"attributes", given ? nb::borrow(attrs) : nb::object(nb::dict())},
                    {"status", make_dict({{"code", nb::int_(0)}})},
                    {"resource", make_dict({{"attributes", service}})},
                    {"events", events}});
}

}  // namespace tarvomeldric::host
