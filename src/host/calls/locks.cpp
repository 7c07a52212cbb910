#include "host/calls/locks.h"

#include <limits>
#include <stdexcept>

namespace tarvomeldric::host {

// These leave the analysis of locks: what is taken in one call from Python is freed in another.
bool acquire_lock(Mutex& mutex, bool blocking, double timeout_s) NO_THREAD_SAFETY_ANALYSIS {
  if (!blocking) return mutex.try_lock();
  return mutex.try_lock_for(timeout_s >= 0 ? timeout_s : std::numeric_limits<double>::infinity());
}

void release_lock(Mutex& mutex) NO_THREAD_SAFETY_ANALYSIS {
  if (!mutex.locked()) throw std::runtime_error("release unlocked lock");
  mutex.unlock();
}

PythonWaiter::~PythonWaiter() {
  if (!nb::is_alive()) {
    waiter_.release();
    return;
  }
  const nb::gil_scoped_acquire interpreter;
  drop(waiter_);
}

bool PythonWaiter::wake() {
  if (!nb::is_alive()) return false;
  const auto state = host_call([] { return PyGILState_Ensure(); });
  bool woken = false;
  {
    const error_scope keep;
    const auto answer =
        host_call([&] { return nb::steal(PyObject_CallMethod(waiter_.ptr(), "wake", nullptr)); });
    woken = answer.is_valid() && answer.is(nb::handle(Py_True));
    if (!answer.is_valid()) {
      // This one cannot be woken; an interrupt that came meanwhile is raised a moment later.
      if (PyErr_ExceptionMatches(PyExc_KeyboardInterrupt)) PyErr_SetInterrupt();
      PyErr_Clear();
    }
  }
  PyGILState_Release(state);
  return woken;
}

}  // namespace tarvomeldric::host
