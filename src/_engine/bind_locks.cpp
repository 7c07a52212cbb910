#include <memory>

#include "_engine/bindings.h"
#include "guards/semaphore.h"
#include "host/argument.h"
#include "support/mutex.h"

namespace tarvomeldric::host {
namespace {

bool acquire(Mutex& mutex, bool blocking, double timeout) NO_THREAD_SAFETY_ANALYSIS {
  if (!blocking) return mutex.try_lock();
  if (timeout >= 0) return mutex.try_lock_for(timeout);
  mutex.lock();
  return true;
}

void release(Mutex& mutex) NO_THREAD_SAFETY_ANALYSIS {
  if (!mutex.locked()) throw std::runtime_error("release unlocked lock");
  mutex.unlock();
}

// A waiter of the host's making: its `wake` is called from whatever thread releases a permit.
class HostWaiter final : public Semaphore::Waiter {
 public:
  explicit HostWaiter(nb::handle waiter) : waiter_(nb::borrow(waiter)) {}
  ~HostWaiter() override {
    if (!nb::is_alive()) {
      waiter_.release();
      return;
    }
    const nb::gil_scoped_acquire interpreter;
    drop(waiter_);
  }

  bool wake() override {
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

  nb::handle waiter() const { return waiter_; }
  void clear() { drop(waiter_); }

 private:
  nb::object waiter_;
};

int traverse_waiter(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  if (nb::inst_ready(self)) Py_VISIT(nb::inst_ptr<HostWaiter>(self)->waiter().ptr());
  return 0;
}

int clear_waiter(PyObject* self) {
  if (nb::inst_ready(self)) nb::inst_ptr<HostWaiter>(self)->clear();
  return 0;
}

}  // namespace

// NOLINTBEGIN(clang-analyzer-*): locks cross the boundary between the languages here.
void bind_locks(nb::module_& module) NO_THREAD_SAFETY_ANALYSIS {
  nb::class_<Mutex>(module, "Lock",
                    "A lock of the engine, used like the host's own: `acquire`, `release`, `with`.")
      .def(
          "acquire",
          [](Mutex& self, Arg<bool, "blocking"> blocking, Arg<double, "timeout"> timeout) {
            return acquire(self, blocking, timeout);
          },
          arg("blocking") = true, arg("timeout") = -1.0,
          nb::sig("def acquire(self, blocking: bool = True, timeout: float = -1.0) -> bool"),
          "Takes the lock; waits at most `timeout` seconds (-1: as long as it takes).\n\n"
          "Returns whether it was taken.")
      .def("release", &release, "Frees the lock; RuntimeError when nobody holds it.")
      .def("locked", &Mutex::locked, "Whether somebody holds the lock.")
      .def("__enter__",
           [](Mutex& self) NO_THREAD_SAFETY_ANALYSIS {
             self.lock();
             return true;
           })
      .def(
          "__exit__", [](Mutex& self, const nb::args&) { release(self); },
          nb::sig("def __exit__(self, *args: object) -> None"));

  PyType_Slot slots[] = {{Py_tp_traverse, reinterpret_cast<void*>(traverse_waiter)},
                         {Py_tp_clear, reinterpret_cast<void*>(clear_waiter)},
                         {0, nullptr}};
  nb::class_<HostWaiter>(module, "_Waiter", "A place in the line of a semaphore.",
                         nb::type_slots(slots));
  nb::class_<Semaphore>(module, "Semaphore",
                        "Permits, and a line of threads and coroutines that wait for one.")
      .def(
          "__init__",
          [](Semaphore* self, Arg<std::int64_t, "value"> value) {
            new (self) Semaphore(value.get());
          },
          arg("value") = 1, nb::sig("def __init__(self, value: int = 1) -> None"))
      .def(
          "acquire",
          [](Semaphore& self, Arg<double, "timeout"> timeout) { return self.acquire(timeout); },
          arg("timeout") = 2.0, nb::sig("def acquire(self, timeout: float = 2.0) -> bool"),
          "Waits at most `timeout` seconds for a permit; returns whether it was taken.")
      .def("release", &Semaphore::release, "Adds a permit and wakes the first in line.")
      .def("_take_any", &Semaphore::take_any, "Takes a permit if there is one; does not wait.")
      .def(
          "_join",
          [](Semaphore& self, nb::handle waiter) {
            auto place = std::make_shared<HostWaiter>(waiter);
            self.join(place);
            return place;
          },
          nb::arg("waiter"), "Puts an object with a `wake()` at the end of the line.")
      .def(
          "_look", [](Semaphore& self, HostWaiter& place) { return self.look(place); },
          nb::arg("place"), "Takes a permit for one in line, if there is one for it.")
      .def(
          "_leave", [](Semaphore& self, HostWaiter& place) { self.leave(place); }, nb::arg("place"),
          "Leaves the line; a wake-up that came is passed on.")
      .def_prop_ro("_permits", &Semaphore::permits, "Permits that are free.")
      .def_prop_ro("_waiting", &Semaphore::waiting, "How many stand in line.")
      .def_prop_ro_static("LOOK_AGAIN", [](nb::handle) { return Semaphore::kLookAgain; });
}
// NOLINTEND(clang-analyzer-*)

}  // namespace tarvomeldric::host
