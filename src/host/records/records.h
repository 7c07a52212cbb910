#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "diagnosis/diagnoser.h"
#include "engine/outcome.h"
#include "engine/trace.h"
#include "flywheel/learner.h"
#include "host/records/convert.h"
#include "observability/metrics_collector.h"
#include "providers/provider_config.h"
#include "semantic/topology.h"

namespace tarvomeldric::host {

// The trace of a result. It is turned into a dictionary when it is asked for, which few callers do.
class ResultTrace {
 public:
  ResultTrace() = default;
  explicit ResultTrace(MapeKTrace trace)
      : trace_(std::make_shared<const MapeKTrace>(std::move(trace))) {}
  explicit ResultTrace(nb::object given) : shown_(std::move(given)) {}

  // The dictionary, or what was assigned in its place; the same object each time.
  nb::object shown() const;

  // For the garbage collector: what has not been asked for holds no Python object.
  friend int visit_python(const ResultTrace& trace, visitproc visit, void* arg) {
    Py_VISIT(trace.shown_.ptr());
    return 0;
  }
  friend void drop(ResultTrace& trace) { drop(trace.shown_); }

 private:
  mutable std::shared_ptr<const MapeKTrace> trace_;  // until it is shown
  mutable nb::object shown_ = nb::none();
};

// What a call hands back: the core's answer, and beside it what Python made or is shown as an
// object of its own.
struct CallResult {
  Answer answer;
  nb::object text = nb::none();
  nb::object fault = nb::none();
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
  double delay_s = 0.0;  // seconds
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

// Every bound class by its name in Python.
constexpr auto python_name(Named<ContractCheck>) { return const_name("ContractCheck"); }
constexpr auto python_name(Named<ContractResult>) { return const_name("ContractResult"); }
constexpr auto python_name(Named<Semaphore>) { return const_name("Semaphore"); }
constexpr auto python_name(Named<Diagnoser>) { return const_name("Diagnoser"); }
constexpr auto python_name(Named<SemanticTopology>) { return const_name("SemanticTopology"); }
constexpr auto python_name(Named<MetricsCollector>) { return const_name("MetricsCollector"); }
constexpr auto python_name(Named<CircuitBreaker>) { return const_name("CircuitBreaker"); }
constexpr auto python_name(Named<RateLimiter>) { return const_name("RateLimiter"); }
constexpr auto python_name(Named<Bulkhead>) { return const_name("Bulkhead"); }
constexpr auto python_name(Named<ProviderConfig>) { return const_name("ProviderConfig"); }
constexpr auto python_name(Named<Diagnosis>) { return const_name("Diagnosis"); }
constexpr auto python_name(Named<SemanticClassification>) {
  return const_name("SemanticClassification");
}
constexpr auto python_name(Named<LearnedRule>) { return const_name("LearnedRule"); }
constexpr auto python_name(Named<MapeKTrace>) { return const_name("MapeKTrace"); }
constexpr auto python_name(Named<CallResult>) { return const_name("CallResult"); }
constexpr auto python_name(Named<RecoveryAction>) { return const_name("RecoveryAction"); }
constexpr auto python_name(Named<Contract>) { return const_name("Contract"); }

template <>
struct Convert<ResultTrace> {
  static constexpr auto kName = const_name("dict[str, typing.Any] | typing.Any");
  static bool from(nb::handle h, ResultTrace& out) {
    out = ResultTrace(nb::borrow(h));
    return true;
  }
  static nb::object to(const ResultTrace& trace) { return trace.shown(); }
};

// A category that is one of ours shows as its member, any other as the text it is.
template <>
struct Convert<CategoryOrText> {
  static constexpr auto kName = const_name("FaultCategory | str");
  static bool from(nb::handle h, CategoryOrText& out) {
    if (const auto known = PythonEnum<FaultCategory>::find(h)) {
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
      return PythonEnum<FaultCategory>::member(*known);
    }
    return from_utf8(std::get<std::string>(category));
  }
};

}  // namespace tarvomeldric::host
