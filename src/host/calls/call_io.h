#pragma once

#include <memory>
#include <optional>
#include <string>

#include "engine/call.h"
#include "engine/io.h"
#include "host/calls/engine.h"
#include "host/calls/exchange.h"
#include "host/interpreter/coroutine.h"
#include "host/interpreter/python.h"
#include "host/records/records.h"

namespace tarvomeldric::host {

// One call as Python code made it: its arguments, the members of the engine that it works with, and
// what its attempts left behind. The Python objects are members, visible to the garbage collector
// while the call is suspended.
struct CallState {
  nb::object engine;
  nb::object prompt;
  nb::object contract;
  nb::object options;  // of every execution, `api_type` included

  Parts parts;
  std::optional<PythonRegistry> registry;

  nb::object answer = nb::none();
  nb::object raw_response;  // of a native exchange
  nb::object error;         // of the latest failed attempt
  nb::object verdict;       // of the contract on the latest answer
  nb::object fault;         // the diagnosis that Python code handed in, where it did
  nb::object trace;         // and its trace
  Exchange exchange;

  Engine& native() const { return *nb::inst_ptr<Engine>(engine); }
  // Takes hold of the engine's parts; type errors name one of the wrong type.
  Surroundings surroundings();
  int traverse(visitproc visit, void* arg);
  void clear();
};

// An operation of the engine that Python code may replace, and the engine's own form of it.
// Both members are set when the engine is bound, and stay.
struct Seam {
  nb::handle name;
  nb::handle native;
};
inline Seam execute_sync_seam;
inline Seam execute_seam;

// The execution of attempts, the same for both ways of waiting: the replacement that a subclass or
// an instance put in place of the engine's own execution, else the native exchange.
class CallIo : public Io {
 public:
  CallIo(CallState& state, const Seam& seam) : state_(state), seam_(seam) {}
  Task<Attempt> execute(ProviderPtr provider, std::string model) override;
  bool has_contract() const override { return !state_.contract.is_none(); }
  bool contract_has_schema() const override;
  bool validate() override;
  void report(const Recovery& recovery) override;

 protected:
  PythonLearner& learner() const { return *nb::inst_ptr<PythonLearner>(state_.parts.learner); }
  virtual Task<nb::object> perform(ProviderPtr provider, std::string model) = 0;

  // The replacement of the engine's own execution, or null.
  nb::object replacement() const;
  nb::object call_replacement(nb::handle replacement, const ProviderPtr& provider,
                              const std::string& model) const;
  void prepare_exchange(ProviderConfig& provider, const std::string& model);

  CallState& state_;

 private:
  const Seam& seam_;
};

// Blocks the calling thread; every await is ready at once.
class BlockingIo final : public CallIo {
 public:
  explicit BlockingIo(CallState& state) : CallIo(state, execute_sync_seam) {}
  Task<void> sleep(double seconds) override;
  Task<bool> wait_for_permit(std::shared_ptr<Semaphore> semaphore, double timeout_s) override;
  Task<void> learn(Outcome outcome) override;
  Task<std::optional<Advice>> advise(std::string error_pattern) override;

 private:
  Task<nb::object> perform(ProviderPtr provider, std::string model) override;
};

// Suspends the call's coroutine; the event loop goes on.
class AwaitingIo final : public CallIo {
 public:
  AwaitingIo(CallState& state, Suspension& suspension)
      : CallIo(state, execute_seam), suspension_(suspension) {}
  Task<void> sleep(double seconds) override;
  Task<bool> wait_for_permit(std::shared_ptr<Semaphore> semaphore, double timeout_s) override;
  Task<void> learn(Outcome outcome) override;
  Task<std::optional<Advice>> advise(std::string error_pattern) override;

 private:
  Task<nb::object> perform(ProviderPtr provider, std::string model) override;

  Suspension& suspension_;
};

}  // namespace tarvomeldric::host
