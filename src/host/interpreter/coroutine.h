#pragma once

#include <coroutine>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>

#include "host/interpreter/context.h"
#include "host/interpreter/python.h"
#include "support/task.h"

namespace tarvomeldric::host {

inline constexpr double kUnlimited = std::numeric_limits<double>::infinity();

// The one operation that a suspended coroutine waits for: the Python iterator that is being driven,
// then its value or its error. `context` is set while the iterator runs.
struct Suspension {
  std::coroutine_handle<> waiter;
  nb::object awaiting;
  ContextValue context;
  double end_s = kUnlimited;  // monotonic, seconds
  nb::object value;
  std::optional<nb::python_error> error;
};

// Suspends the task until the Python awaitable is done; gives its value or throws its error. One
// that is not over by its end (monotonic seconds) is cancelled; then the value is NotImplemented.
// What the context holds outlives it.
class PythonAwait {
 public:
  PythonAwait(Suspension& suspension, nb::handle awaitable, ContextValue context = {},
              double end_s = kUnlimited);
  bool await_ready() const noexcept { return false; }
  void await_suspend(std::coroutine_handle<> waiter) const noexcept { suspension_.waiter = waiter; }
  nb::object await_resume() const;

 private:
  Suspension& suspension_;
};

// What a coroutine runs, or a thread that waits for it: that one has no suspension. It keeps every
// Python object that outlives a suspension in members that `traverse` shows: the garbage collector
// cannot look into a task's frame.
class CoroutineWork {
 public:
  virtual ~CoroutineWork() = default;
  virtual Task<void> run(Suspension* suspension) = 0;
  // What came of it, when the task has ended well. Asked once.
  virtual nb::object result() = 0;
  // The coroutine was dropped where it waited. What it held is still there; the task ends next.
  virtual void dropped() {}
  virtual int traverse(visitproc visit, void* arg) = 0;
};

// A task as a full coroutine of Python: awaited, sent to, thrown into, closed. Nothing of the
// work happens before the first send. The task is destroyed as soon as it is finished or closed,
// which gives back what its locals own. As with Python's own, one thread drives it at a time, and a
// second one is refused.
class Coroutine {
 public:
  Coroutine(std::unique_ptr<CoroutineWork> work, std::string_view qualified_name)
      : work_(std::move(work)), qualified_name_(qualified_name) {}
  ~Coroutine();
  Coroutine(const Coroutine&) = delete;
  Coroutine& operator=(const Coroutine&) = delete;

  // Each answers as Python's own slots do: the error is set when the result is PYGEN_ERROR.
  PySendResult send(PyObject* value, PyObject** out);
  PySendResult throw_in(nb::handle type, nb::handle value, nb::handle traceback, PyObject** out);
  void close();

  nb::object awaiting() const;
  bool running() const { return running_; }
  std::string_view qualified_name() const { return qualified_name_; }

  friend int visit_python(Coroutine& coroutine, visitproc visit, void* arg);
  friend void drop(Coroutine& coroutine) { coroutine.clear(); }

 private:
  // What an unfinished coroutine holds, in the order in which it ends: the task's frame refers to
  // the work.
  struct Holdings {
    std::unique_ptr<CoroutineWork> work;
    std::optional<Task<void>> task;
    nb::object awaiting;
    nb::object value;
  };
  enum class Stage { kNew, kStarted, kFinished };
  class Running;

  bool may_run();
  PySendResult begin(PyObject** out);
  PySendResult settle(PyObject** out);
  PySendResult fail(const std::exception_ptr& thrown);
  PySendResult feed(PySendResult reply, PyObject* value, PyObject** out);
  PySendResult send_awaited(PyObject* value, PyObject** out);
  PySendResult bound_awaited(PyObject** waited);
  PySendResult throw_into_awaited(nb::handle exception, PyObject** out);
  void resume();
  void abandon();
  void finish();
  void clear();
  static void end(Holdings holdings);

  std::unique_ptr<CoroutineWork> work_;
  std::string_view qualified_name_;
  Suspension suspension_;
  std::optional<Task<void>> task_;
  Stage stage_ = Stage::kNew;
  bool running_ = false;
};

// A new coroutine object of Python. The name, such as "SelfHealingEngine.call", outlives it.
nb::object make_coroutine(std::unique_ptr<CoroutineWork> work, std::string_view qualified_name);

}  // namespace tarvomeldric::host
