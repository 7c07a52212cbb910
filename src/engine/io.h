#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "engine/events.h"
#include "flywheel/learner.h"
#include "guards/semaphore.h"
#include "providers/provider_config.h"
#include "support/task.h"

namespace tarvomeldric {

class AdmittedSlot;

// A provider exchange that failed: the error's text and the HTTP status, where there was one.
struct ApiFailure {
  std::string text;
  std::optional<std::int64_t> status;
  double reading_s = 0.0;               // how long it took to read the text
  std::optional<double> retry_after_s;  // when the provider said to come back, where it is asked
};

// What became of one attempt. An attempt that ended in anything but an answer or a provider's
// failure throws what ended it.
struct Attempt {
  std::optional<ApiFailure> failure;
  std::size_t answer_length = 0;       // characters
  bool empty = false;                  // an answer without content, where that is asked
  const char* refused = nullptr;       // the label of one that was judged already, and is no good
  std::optional<std::int64_t> status;  // of an answer, where one was seen

  bool ok() const { return !failure; }
};

// What an answer must be to win a race.
enum class Demand : std::uint8_t { kNothing, kContent, kContract };

// On which terms a request is sent.
struct AttemptTerms {
  double limit_s;      // the longest wait for its end; infinite for no limit of ours
  bool whole = false;  // an answer that is streamed is read to its end, and not to its beginning
  Demand demand = Demand::kNothing;
};

// A request of a call that may be under way beside another one.
struct Leg {
  ProviderPtr provider;
  std::string model;
  AttemptTerms terms;
};

// The second provider of a race, which is chosen when the first request of a call takes long.
class Rival {
 public:
  virtual ~Rival() = default;
  // Asked once, from another thread maybe, while the call itself waits: no code of others is run.
  // Null when it stays with the first.
  virtual std::optional<Leg> enter() = 0;
  // In its place: there is nobody to send the request.
  virtual void miss() = 0;
};

// How one of the two requests came out.
struct Finish {
  bool second;  // which one it is
  Attempt attempt;
  double over_s;  // monotonic, seconds
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
// keeps the answer and the error of the latest attempt for what made it.
//
// A task of an `Io` may end with an exception at any await (a cancellation), or never be resumed
// and be destroyed: what the pipeline holds must be owned by its locals.
class Io {
 public:
  virtual ~Io() = default;
  // Sends the call's prompt to the provider once. An answer that is streamed is an answer as soon
  // as its first output is there.
  virtual Task<Attempt> execute(ProviderPtr provider, std::string model, AttemptTerms terms) = 0;
  // Sends a request, and one of the rival's beside it when that is not over after `patience_s`
  // seconds. Over as soon as the second has given a good answer, or the first one has come to any
  // end. Calls whose attempts cannot be ended from outside have no race.
  virtual bool may_race(const ProviderPtr& provider) const = 0;
  virtual Task<Finish> race(Leg first, double patience_s, Rival& rival) = 0;
  // After the first has failed: how the second came out.
  virtual Task<Finish> other() = 0;
  // Ends the second request if it is still under way; else how it came out, where that is no good
  // answer.
  virtual std::optional<Finish> end_race() = 0;
  // The same for clean-up. From now on the rival is not asked.
  virtual void leave_race() noexcept = 0;
  // Takes over the slot of an attempt that answered while its answer is still being streamed, and
  // with the slot the duty to record how that ends. Released at once by default.
  virtual void hold(const ProviderPtr& provider, AdmittedSlot slot);
  virtual Task<void> sleep(double seconds) = 0;
  // Waits at most `timeout_s` seconds for a permit; answers whether it was taken.
  virtual Task<bool> wait_for_permit(std::shared_ptr<Semaphore> semaphore, double timeout_s) = 0;
  // The learner's two steps, which may have to wait for a thread that uses it at the moment.
  // `advice` outlives the task.
  virtual Task<void> learn(Outcome outcome) = 0;
  virtual Task<void> advise(std::string error_pattern, std::optional<Advice>& advice) = 0;

  // The caller's contract for healed output, if there is one, and whether it declares a structure.
  virtual bool has_contract() const = 0;
  virtual bool contract_has_schema() const = 0;
  // Whether the latest answer holds the contract; the verdict is kept for what made the `Io`.
  virtual bool validate() = 0;
  // Makes an error of an answer that is no good, in place of the newest one: the answer has no
  // content, or breaks the contract. The message is the beginning of the error's.
  virtual void refuse_empty(const std::string& provider) = 0;
  virtual void refuse_broken(const std::string& message) = 0;
  // Tells the outside that a call was healed. What goes wrong there is nobody's failure.
  virtual void report(const Recovery& recovery) = 0;

  // Keeps the record of a request for the result.
  virtual void keep(AttemptRecord attempt) = 0;
  // Whether anybody listens to events; telling one has no other use, and no failure of theirs
  // passes.
  virtual bool heard() const = 0;
  virtual void tell(const CallEvent& event) = 0;
  // What the provider counted for the newest answer.
  virtual TokenUsage tokens() const { return {}; }
};

}  // namespace tarvomeldric
