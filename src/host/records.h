#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "diagnosis/diagnoser.h"
#include "engine/trace.h"
#include "host/convert.h"
#include "host/learner.h"
#include "observability/metrics_collector.h"
#include "providers/provider_config.h"
#include "semantic/topology.h"

namespace tarvomeldric::host {

// The trace of a result. It is turned into the host's dictionary when somebody asks for it, which
// few callers do.
class ResultTrace {
 public:
  ResultTrace() = default;
  explicit ResultTrace(MapeKTrace trace)
      : trace_(std::make_shared<const MapeKTrace>(std::move(trace))) {}
  explicit ResultTrace(nb::object given) : shown_(std::move(given)) {}

  // The dictionary, or whatever the host put in its place; the same object each time.
  nb::object shown() const;

  // For the garbage collector: what has not been asked for holds no host object.
  friend int visit_host(const ResultTrace& trace, visitproc visit, void* arg) {
    Py_VISIT(trace.shown_.ptr());
    return 0;
  }
  friend void drop(ResultTrace& trace) { drop(trace.shown_); }

 private:
  mutable std::shared_ptr<const MapeKTrace> trace_;  // until it is shown
  mutable nb::object shown_ = nb::none();
};

// What a call hands back. The texts that the host made stay host objects.
struct CallResult {
  nb::object text = nb::none();
  std::string provider;
  std::string model;
  bool success = true;
  nb::object fault = nb::none();
  std::string original_provider;
  std::string original_model;
  double latency_ms = 0.0;
  bool from_cache = false;
  bool downgraded = false;
  std::string heal_level;
  std::string semantic_domain;
  std::optional<bool> validation_passed;
  nb::object contract_result = nb::none();
  ResultTrace mapek_trace;
  nb::object raw_response = nb::none();
};

// The one-line summary of a result.
std::string summary(const CallResult& result);

// A step of recovery as the diagnoser suggests it.
struct RecoveryAction {
  nb::object level = nb::none();
  std::string action;
  std::string target;
  double delay = 0.0;  // seconds
  nb::object metadata = nb::none();
};

// What a healed answer must look like; every field that is not null is one check.
struct Contract {
  nb::object output_schema = nb::none();
  nb::object determinism_hash = nb::none();
  nb::object similarity_threshold = nb::none();
  nb::object reference_text = nb::none();
  nb::object required_entities = nb::none();
  nb::object forbidden_patterns = nb::none();
};

// The verdict of one strategy of a contract, and of all of them.
struct ContractCheck {
  std::string strategy;
  bool passed = false;
  std::string detail;
};
struct ContractResult {
  bool passed = false;
  nb::object checks = nb::none();  // a list of ContractCheck
  std::string contract_type;
};

template <>
struct HostName<ContractCheck> {
  static constexpr auto value = nb::detail::const_name("ContractCheck");
};
template <>
struct HostName<ContractResult> {
  static constexpr auto value = nb::detail::const_name("ContractResult");
};
template <>
struct HostName<Semaphore> {
  static constexpr auto value = nb::detail::const_name("Semaphore");
};
template <>
struct HostName<Diagnoser> {
  static constexpr auto value = nb::detail::const_name("Diagnoser");
};
template <>
struct HostName<HostLearner> {
  static constexpr auto value = nb::detail::const_name("FlywheelLearner");
};
template <>
struct HostName<SemanticTopology> {
  static constexpr auto value = nb::detail::const_name("SemanticTopology");
};
template <>
struct HostName<MetricsCollector> {
  static constexpr auto value = nb::detail::const_name("MetricsCollector");
};
template <>
struct HostName<CircuitBreaker> {
  static constexpr auto value = nb::detail::const_name("CircuitBreaker");
};
template <>
struct HostName<RateLimiter> {
  static constexpr auto value = nb::detail::const_name("RateLimiter");
};
template <>
struct HostName<Bulkhead> {
  static constexpr auto value = nb::detail::const_name("Bulkhead");
};
template <>
struct HostName<ProviderConfig> {
  static constexpr auto value = nb::detail::const_name("ProviderConfig");
};
template <>
struct HostName<Diagnosis> {
  static constexpr auto value = nb::detail::const_name("Diagnosis");
};
template <>
struct HostName<SemanticClassification> {
  static constexpr auto value = nb::detail::const_name("SemanticClassification");
};
template <>
struct HostName<LearnedRule> {
  static constexpr auto value = nb::detail::const_name("LearnedRule");
};
template <>
struct HostName<MapeKTrace> {
  static constexpr auto value = nb::detail::const_name("MapeKTrace");
};
template <>
struct HostName<CallResult> {
  static constexpr auto value = nb::detail::const_name("CallResult");
};
template <>
struct HostName<RecoveryAction> {
  static constexpr auto value = nb::detail::const_name("RecoveryAction");
};
template <>
struct HostName<Contract> {
  static constexpr auto value = nb::detail::const_name("Contract");
};

template <>
struct Convert<ResultTrace> {
  static constexpr auto kName = nb::detail::const_name("dict[str, typing.Any] | typing.Any");
  static bool from(nb::handle h, ResultTrace& out) {
    out = ResultTrace(nb::borrow(h));
    return true;
  }
  static nb::object to(const ResultTrace& trace) { return trace.shown(); }
};

// A category that is one of ours shows as its member, any other as the text it is.
template <>
struct Convert<CategoryOrText> {
  static constexpr auto kName = nb::detail::const_name("FaultCategory | str");
  static bool from(nb::handle h, CategoryOrText& out) {
    if (const auto known = HostEnum<FaultCategory>::find(h)) {
      out = *known;
      return true;
    }
    std::string text;
    if (!Convert<std::string>::from(h, text)) return false;
    for (std::size_t i = 0; i < kFaultCategories.size(); ++i) {
      if (text == kFaultCategories[i].second) {
        out = static_cast<FaultCategory>(i);
        return true;
      }
    }
    out = std::move(text);
    return true;
  }
  static nb::object to(const CategoryOrText& category) {
    if (const auto* known = std::get_if<FaultCategory>(&category)) {
      return HostEnum<FaultCategory>::member(*known);
    }
    return from_utf8(std::get<std::string>(category));
  }
};

}  // namespace tarvomeldric::host
