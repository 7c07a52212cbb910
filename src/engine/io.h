#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "flywheel/learner.h"
#include "guards/semaphore.h"
#include "providers/provider_config.h"
#include "support/task.h"

namespace tarvomeldric {

// A provider exchange that failed: the error's text and the HTTP status, where there was one.
struct ApiFailure {
  std::string text;
  std::optional<std::int64_t> status;
  double reading_s = 0.0;  // how long it took to read the text
};

// What became of one attempt. An attempt that ended in anything but an answer or a provider's
// failure throws what ended it.
struct Attempt {
  std::optional<ApiFailure> failure;
  std::size_t answer_length = 0;  // characters

  bool ok() const { return !failure; }
};

// A healed call, as the outside hears of it.
struct Recovery {
  std::string fault_type;
  std::string provider;
  std::string model;
  std::string action;  // "retry", "downgrade" or "failover"
  double latency_ms = 0.0;
  std::string sub_category;
};

// Everything in which a call waits for somebody else. The pipeline is written once over it and does
// not know whether it blocks a thread or suspends on an event loop. An `Io` serves one call; it
// keeps the answer and the error of the latest attempt for whoever made it.
//
// A task of an `Io` may end with an exception at any await (a cancellation), or never be resumed
// and be destroyed: what the pipeline holds must be owned by its locals.
class Io {
 public:
  virtual ~Io() = default;
  // Sends the call's prompt to the provider once.
  virtual Task<Attempt> execute(ProviderPtr provider, std::string model) = 0;
  virtual Task<void> sleep(double seconds) = 0;
  // Waits at most `timeout_s` seconds for a permit; answers whether it was taken.
  virtual Task<bool> wait_for_permit(std::shared_ptr<Semaphore> semaphore, double timeout_s) = 0;
  // The learner's two steps, which may have to wait for somebody who uses it at the moment.
  virtual Task<void> learn(Outcome outcome) = 0;
  virtual Task<std::optional<Advice>> advise(std::string error_pattern) = 0;

  // The caller's contract for healed output, if there is one, and whether it declares a structure.
  virtual bool has_contract() const = 0;
  virtual bool contract_has_schema() const = 0;
  // Whether the latest answer holds the contract; the verdict is kept for whoever made the `Io`.
  virtual bool validate() = 0;
  // Tells the outside that a call was healed. What goes wrong there is nobody's failure.
  virtual void report(const Recovery& recovery) = 0;
};

}  // namespace tarvomeldric
