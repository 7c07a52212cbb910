#include "host/interpreter/coroutine.h"

#include <utility>
#include <vector>

#include "host/interpreter/errors.h"
#include "host/interpreter/helpers.h"
#include "host/interpreter/recursion.h"

namespace tarvomeldric::host {
namespace {

bool has(nb::handle object, const char* attribute) {
  return attribute_or(object, attribute, nb::handle()).is_valid();
}

// A native coroutine is driven as it is; anything else says what to drive.
nb::object iterator_of(nb::handle awaitable) {
  if (PyCoro_CheckExact(awaitable.ptr())) return nb::borrow(awaitable);
  const nb::handle type = awaitable.type();
  if (!has(type, "__await__")) {
    throw nb::type_error(
        ("object " + class_name(awaitable) + " can't be used in 'await' expression").c_str());
  }
  return call(awaitable.attr("__await__"));
}

PySendResult raise_error(PyObject* type, const char* message) {
  PyErr_SetString(type, message);
  return PYGEN_ERROR;
}

// A coroutine's StopIteration would read as its result; Python's own coroutines raise this
// instead.
void forbid_stop_iteration() {
  if (!PyErr_ExceptionMatches(PyExc_StopIteration)) return;
  nb::python_error stop;
  nb::raise_from(stop, PyExc_RuntimeError, "coroutine raised StopIteration");
}

// The one exception instance that the arguments of `throw` mean.
nb::object exception_of(nb::handle type, nb::handle value, nb::handle traceback) {
  nb::object exception;
  if (PyExceptionInstance_Check(type.ptr())) {
    exception = nb::borrow(type);
  } else if (!PyExceptionClass_Check(type.ptr())) {
    throw nb::type_error("exceptions must be classes or instances deriving from BaseException");
  } else if (value.is_valid() && PyExceptionInstance_Check(value.ptr())) {
    exception = nb::borrow(value);
  } else {
    exception = value.is_valid() && !value.is_none() ? call(type, value) : call(type);
  }
  if (traceback.is_valid() && !traceback.is_none()) {
    if (PyException_SetTraceback(exception.ptr(), traceback.ptr()) < 0) throw nb::python_error();
  }
  return exception;
}

}  // namespace

PythonAwait::PythonAwait(Suspension& suspension, nb::handle awaitable, ContextValue context,
                         double end_s)
    : suspension_(suspension) {
  suspension_.awaiting = iterator_of(awaitable);
  suspension_.context = context;
  suspension_.end_s = end_s;
}

nb::object PythonAwait::await_resume() const {
  if (suspension_.error) {
    nb::python_error error = std::move(*suspension_.error);
    suspension_.error.reset();
    throw error;
  }
  return std::move(suspension_.value);
}

class Coroutine::Running {
 public:
  explicit Running(Coroutine& coroutine) : flag_(coroutine.running_) { flag_ = true; }
  ~Running() { flag_ = false; }

 private:
  bool& flag_;
};

Coroutine::~Coroutine() {
  if (!nb::is_alive()) return;
  error_scope keep;
  if (stage_ == Stage::kNew) {
    const std::string warning =
        "coroutine '" + std::string(qualified_name_) + "' was never awaited";
    if (PyErr_WarnEx(PyExc_RuntimeWarning, warning.c_str(), 1) < 0) {
      PyErr_WriteUnraisable(nullptr);
    }
  }
  abandon();
  finish();
}

// Tells the work of a coroutine that will not go on.
void Coroutine::abandon() {
  if (stage_ != Stage::kStarted) return;
  stage_ = Stage::kFinished;
  if (!work_) return;
  error_scope keep;
  try {
    work_->dropped();
  } catch (...) {
    set_error(std::current_exception());
    PyErr_WriteUnraisable(nullptr);
  }
}

bool Coroutine::may_run() {
  if (running_) {
    PyErr_SetString(PyExc_ValueError, "coroutine already executing");
    return false;
  }
  if (stage_ == Stage::kFinished) {
    PyErr_SetString(PyExc_RuntimeError, "cannot reuse already awaited coroutine");
    return false;
  }
  return true;
}

PySendResult Coroutine::send(PyObject* value, PyObject** out) {
  *out = nullptr;
  if (!may_run()) return PYGEN_ERROR;
  std::optional<RecursionScope> scope;
  try {
    scope.emplace();
  } catch (...) {
    if (stage_ == Stage::kNew) finish();
    throw;
  }
  const Running running(*this);
  if (stage_ == Stage::kNew) {
    if (value != Py_None) {
      return raise_error(PyExc_TypeError, "can't send non-None value to a just-started coroutine");
    }
    const PySendResult started = begin(out);
    if (started != PYGEN_NEXT) return started;
  }
  PyObject* yielded = nullptr;
  const PySendResult reply = send_awaited(value, &yielded);
  return feed(reply, yielded, out);
}

PySendResult Coroutine::throw_in(nb::handle type, nb::handle value, nb::handle traceback,
                                 PyObject** out) {
  *out = nullptr;
  if (!may_run()) return PYGEN_ERROR;
  const RecursionScope scope;
  const Running running(*this);
  const nb::object exception = exception_of(type, value, traceback);
  if (stage_ == Stage::kNew) {
    finish();
    PyErr_SetObject(exception.type().ptr(), exception.ptr());
    forbid_stop_iteration();
    return PYGEN_ERROR;
  }
  return throw_into_awaited(exception, out);
}

PySendResult Coroutine::send_awaited(PyObject* value, PyObject** out) {
  std::optional<ContextScope> scope;
  try {
    scope.emplace(suspension_.context);
  } catch (nb::python_error& error) {
    // What has not begun is closed, lest Python warn of it.
    quietly([&] { call(suspension_.awaiting.attr("close")); });
    error.restore();
    return PYGEN_ERROR;
  }
  return host_call([&] { return PyIter_Send(suspension_.awaiting.ptr(), value, out); });
}

// Puts what bounds the awaited operation in its place, and starts that: what it waits for first is
// what the operation waits for.
PySendResult Coroutine::bound_awaited(PyObject** waited) {
  const nb::object first = nb::steal(std::exchange(*waited, nullptr));
  const double end_s = std::exchange(suspension_.end_s, kUnlimited);
  try {
    suspension_.awaiting = call(Helper::kAtMost, suspension_.awaiting, first, end_s);
  } catch (nb::python_error& error) {
    error.restore();
    return PYGEN_ERROR;
  }
  return send_awaited(Py_None, waited);
}

// The awaited operation hears of it first; what it makes of it is what the task gets. Anything
// thrown at what cannot be thrown at closes it instead. A GeneratorExit closes it, too, and ends
// the task where it is: what goes wrong with closing, for the loop may be gone, is no failure of a
// provider.
PySendResult Coroutine::throw_into_awaited(nb::handle exception, PyObject** out) {
  const nb::object awaited = suspension_.awaiting;
  const ContextValue context = suspension_.context;
  const bool ending = PyErr_GivenExceptionMatches(exception.ptr(), PyExc_GeneratorExit) != 0;
  if (ending || !has(awaited, "throw")) {
    bool closed = true;
    if (has(awaited, "close")) {
      const ContextScope scope(context);
      closed = host_call([&] {
        return nb::steal(PyObject_CallMethod(awaited.ptr(), "close", nullptr)).is_valid();
      });
    }
    if (ending) {
      error_scope keep;
      abandon();
      finish();
    }
    if (closed) PyErr_SetObject(exception.type().ptr(), exception.ptr());
    return ending ? PYGEN_ERROR : feed(PYGEN_ERROR, nullptr, out);
  }
  PyObject* yielded = nullptr;
  {
    const ContextScope scope(context);
    yielded = host_call(
        [&] { return PyObject_CallMethod(awaited.ptr(), "throw", "O", exception.ptr()); });
  }
  if (yielded) return feed(PYGEN_NEXT, yielded, out);
  if (!PyErr_ExceptionMatches(PyExc_StopIteration)) return feed(PYGEN_ERROR, nullptr, out);
  const nb::python_error stop;
  return feed(PYGEN_RETURN, nb::object(stop.value().attr("value")).release().ptr(), out);
}

// Takes the awaited operation's reply and drives the task on until something is to be yielded up,
// or the task is over.
PySendResult Coroutine::feed(PySendResult reply, PyObject* value, PyObject** out) {
  for (;;) {
    if (reply == PYGEN_NEXT && suspension_.end_s != kUnlimited) reply = bound_awaited(&value);
    if (reply == PYGEN_NEXT) {
      *out = value;
      return PYGEN_NEXT;
    }
    if (reply == PYGEN_RETURN) {
      suspension_.value = nb::steal(value);
    } else {
      suspension_.error.emplace();
    }
    resume();
    const PySendResult settled = settle(out);
    if (settled != PYGEN_NEXT) return settled;
    value = nullptr;
    reply = send_awaited(Py_None, &value);
  }
}

void Coroutine::resume() {
  const auto waiter = std::exchange(suspension_.waiter, {});
  drop(suspension_.awaiting);
  waiter.resume();
}

PySendResult Coroutine::begin(PyObject** out) {
  stage_ = Stage::kStarted;
  try {
    task_.emplace(work_->run(&suspension_));
  } catch (...) {
    return fail(std::current_exception());
  }
  task_->start();
  return settle(out);
}

PySendResult Coroutine::settle(PyObject** out) {
  if (!task_->done()) return PYGEN_NEXT;
  try {
    task_->take();
    *out = work_->result().release().ptr();
  } catch (...) {
    return fail(std::current_exception());
  }
  finish();
  return PYGEN_RETURN;
}

PySendResult Coroutine::fail(const std::exception_ptr& thrown) {
  finish();
  set_error(thrown);
  forbid_stop_iteration();
  return PYGEN_ERROR;
}

void Coroutine::close() {
  if (running_) throw nb::value_error("coroutine already executing");
  if (stage_ != Stage::kStarted) {
    finish();
    return;
  }
  PyObject* yielded = nullptr;
  const PySendResult reply = throw_in(PyExc_GeneratorExit, {}, {}, &yielded);
  Py_XDECREF(yielded);
  if (reply == PYGEN_NEXT) throw std::runtime_error("coroutine ignored GeneratorExit");
  if (reply == PYGEN_RETURN) return;
  if (!PyErr_ExceptionMatches(PyExc_GeneratorExit) &&
      !PyErr_ExceptionMatches(PyExc_StopIteration)) {
    throw nb::python_error();
  }
  PyErr_Clear();
}

void Coroutine::finish() {
  stage_ = Stage::kFinished;
  clear();
}

// Also the garbage collector's way: what it has cleared cannot go on.
void Coroutine::clear() {
  abandon();
  suspension_.waiter = {};
  end({std::move(work_), std::exchange(task_, std::nullopt), std::move(suspension_.awaiting),
       std::move(suspension_.value)});
}

// One that awaited another ends the other, and so on down the chain. Where the stack is low the
// rest waits until the first one of the chain is done with its own.
void Coroutine::end(Holdings holdings) {
  static thread_local std::vector<Holdings> rest;
  static thread_local bool ending = false;
  if (ending && stack_is_low()) {
    rest.push_back(std::move(holdings));
    return;
  }
  const bool first = !std::exchange(ending, true);
  for (;;) {
    drop(holdings.awaiting);
    drop(holdings.value);
    holdings.task.reset();
    holdings.work.reset();
    if (!first || rest.empty()) break;
    holdings = std::move(rest.back());
    rest.pop_back();
  }
  if (first) ending = false;
}

int visit_python(Coroutine& coroutine, visitproc visit, void* arg) {
  Py_VISIT(coroutine.suspension_.awaiting.ptr());
  Py_VISIT(coroutine.suspension_.value.ptr());
  return coroutine.work_ ? coroutine.work_->traverse(visit, arg) : 0;
}

nb::object make_coroutine(std::unique_ptr<CoroutineWork> work, std::string_view qualified_name) {
  return nb::cast(new Coroutine(std::move(work), qualified_name), nb::rv_policy::take_ownership);
}

nb::object Coroutine::awaiting() const {
  return suspension_.awaiting.is_valid() ? suspension_.awaiting : nb::none();
}

}  // namespace tarvomeldric::host
