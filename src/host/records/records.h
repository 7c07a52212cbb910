#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "diagnosis/diagnoser.h"
#include "engine/events.h"
#include "engine/outcome.h"
#include "engine/policy.h"
#include "engine/trace.h"
#include "flywheel/learner.h"
#include "host/records/convert.h"
#include "observability/metrics_collector.h"
#include "providers/provider_config.h"
#include "semantic/topology.h"

namespace tarvomeldric::host {

// A trace as a dictionary, requests as a tuple.
nb::object shown_form(const MapeKTrace& trace);
nb::object shown_form(const std::vector<AttemptRecord>& attempts);

// A part of a result that becomes a Python object when it is asked for, which few callers do.
template <class T>
class ShownLate {
 public:
  ShownLate() = default;
  explicit ShownLate(std::shared_ptr<const T> part) : part_(std::move(part)) {}
  explicit ShownLate(nb::object given) : shown_(std::move(given)) {}

  // The same object each time, or what was assigned in its place. Making it may run the garbage
  // collector, and with it code that asks for the same part.
  nb::object shown() const {
    if (const auto part = part_) {
      nb::object made = shown_form(*part);
      if (part_) shown_ = std::move(made);
      part_.reset();
    }
    return shown_;
  }

  // For the garbage collector: what has not been asked for holds no Python object.
  friend int visit_python(const ShownLate& late, visitproc visit, void* arg) {
    Py_VISIT(late.shown_.ptr());
    return 0;
  }
  friend void drop(ShownLate& late) { drop(late.shown_); }

 private:
  mutable std::shared_ptr<const T> part_;  // until it is shown
  mutable nb::object shown_ = nb::none();
};

// What a call hands back: the core's answer, and beside it what Python made or is shown as an
// object of its own.
struct CallResult {
  Answer answer;
  nb::object text = nb::none();
  nb::object fault = nb::none();
  nb::object contract_result = nb::none();
  ShownLate<MapeKTrace> mapek_trace;
  nb::object raw_response = nb::none();
  ShownLate<std::vector<AttemptRecord>> attempts;  // the one that answered last
  std::optional<double> ttft_ms;                   // of a streamed answer
  nb::object response = nb::none();                // the decoded body of the attempt that answered
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
constexpr auto python_name(Named<CallPolicy>) { return const_name("CallPolicy"); }
constexpr auto python_name(Named<RetryBudget>) { return const_name("RetryBudget"); }
constexpr auto python_name(Named<AttemptRecord>) { return const_name("Attempt"); }
constexpr auto python_name(Named<AttemptEvent>) { return const_name("AttemptEvent"); }
constexpr auto python_name(Named<FaultEvent>) { return const_name("FaultEvent"); }
constexpr auto python_name(Named<SleepEvent>) { return const_name("SleepEvent"); }
constexpr auto python_name(Named<RefusalEvent>) { return const_name("RefusalEvent"); }
constexpr auto python_name(Named<BreakerEvent>) { return const_name("BreakerEvent"); }
constexpr auto python_name(Named<HealEvent>) { return const_name("HealEvent"); }
constexpr auto python_name(Named<EndEvent>) { return const_name("EndEvent"); }

// A choice that Python writes as one of a few words.
template <class E, const auto& Words, Literal Field>
struct ConvertWord {
  static constexpr auto kName = const_name("str");
  static bool from(nb::handle h, E& out) {
    std::string text;
    if (!Convert<std::string>::from(h, text)) return false;
    std::string words;
    for (std::size_t i = 0; i < Words.size(); ++i) {
      if (text == Words[i]) {
        out = static_cast<E>(i);
        return true;
      }
      words += (i == 0 ? "'" : " or '") + std::string(Words[i]) + "'";
    }
    throw nb::value_error((Field.value + (" must be " + words)).c_str());
  }
  static nb::object to(E choice) { return from_utf8(Words[static_cast<std::size_t>(choice)]); }
};
template <>
struct Convert<AttemptOrder> : ConvertWord<AttemptOrder, kAttemptOrders, "order"> {};
template <>
struct Convert<Validation> : ConvertWord<Validation, kValidations, "validate"> {};

template <>
struct Convert<HedgeAfter> {
  static constexpr auto kName = const_name("float or 'p95'");
  static bool from(nb::handle h, HedgeAfter& out) {
    std::string word;
    out.seconds.reset();
    if (!Convert<std::string>::from(h, word))
      return Convert<double>::from(h, out.seconds.emplace());
    if (word != "p95") throw nb::value_error("hedge_after must be seconds or 'p95'");
    return true;
  }
  static nb::object to(const HedgeAfter& after) {
    return after.seconds ? number(*after.seconds) : from_utf8("p95");
  }
};

// None stands for no budget.
template <>
struct Convert<std::shared_ptr<RetryBudget>> {
  static constexpr auto kName = const_name("RetryBudget | None");
  static bool from(nb::handle h, std::shared_ptr<RetryBudget>& out) {
    out.reset();
    if (h.is_none()) return true;
    if (!is_made<RetryBudget>(h)) return false;
    out = nb::cast<std::shared_ptr<RetryBudget>>(h);
    return true;
  }
  static nb::object to(const std::shared_ptr<RetryBudget>& budget) { return nb::cast(budget); }
};

template <class T>
struct Convert<ShownLate<T>> {
  static constexpr auto kName = const_name("dict[str, typing.Any] | typing.Any");
  static bool from(nb::handle h, ShownLate<T>& out) {
    out = ShownLate<T>(nb::borrow(h));
    return true;
  }
  static nb::object to(const ShownLate<T>& late) { return late.shown(); }
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
