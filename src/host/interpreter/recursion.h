#pragma once

namespace tarvomeldric::host {

// Whether little is left of this thread's stack: enough for what is done between two looks, not for
// much more.
bool stack_is_low();

// The scope of what may come back to where it was begun, such as a call whose execution is replaced
// by code that calls again. Throws Python's RecursionError at the interpreter's limit, and where
// the stack is low: the limit counts calls, and ours take more of the stack than Python's own.
class RecursionScope {
 public:
  RecursionScope();
  ~RecursionScope();
  RecursionScope(const RecursionScope&) = delete;
  RecursionScope& operator=(const RecursionScope&) = delete;
};

}  // namespace tarvomeldric::host
