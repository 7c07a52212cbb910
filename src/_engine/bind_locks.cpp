#include <memory>

#include "_engine/def.h"
#include "_engine/rooms.h"
#include "guards/semaphore.h"
#include "host/calls/locks.h"
#include "host/interpreter/collected.h"
#include "support/mutex.h"

namespace tarvomeldric::host {
namespace {

void bind_semaphore(nb::module_& module) {
  nb::class_<PythonWaiter>(module, "_Waiter", "A place in the line of a semaphore.",
                           nb::type_slots(collected<PythonWaiter>));
  nb::class_<Semaphore> cls(module, "Semaphore",
                            "Permits, and a line of threads and coroutines that wait for one.");
  def(
      cls, "__init__", [](Semaphore* self, std::int64_t value) { new (self) Semaphore(value); }, "",
      arg("value") = 1);
  def(cls, "acquire", &Semaphore::acquire,
      "Waits at most `timeout` seconds for a permit; returns whether it was taken.",
      arg("timeout") = 2.0);
  def(cls, "release", &Semaphore::release, "Adds a permit and wakes the first in line.");
  def(cls, "_take_any", &Semaphore::take_any, "Takes a permit if there is one; does not wait.");
  cls.def(
         "_join",
         [](Semaphore& self, nb::handle waiter) {
           auto place = std::make_shared<PythonWaiter>(waiter);
           self.join(place);
           return place;
         },
         nb::arg("waiter"), "Puts an object with a `wake()` at the end of the line.")
      .def(
          "_look", [](Semaphore& self, PythonWaiter& place) { return self.look(place); },
          nb::arg("place"), "Takes a permit for one in line, if there is one for it.")
      .def(
          "_leave", [](Semaphore& self, PythonWaiter& place) { self.leave(place); },
          nb::arg("place"), "Leaves the line; a wake-up that came is passed on.")
      .def_prop_ro("_permits", &Semaphore::permits, "Permits that are free.")
      .def_prop_ro("_waiting", &Semaphore::waiting, "How many stand in line.")
      .def_prop_ro_static("LOOK_AGAIN", [](nb::handle) { return Semaphore::kLookAgainSeconds; });
}

}  // namespace

void bind_locks(nb::module_& module) {
  nb::class_<Mutex> cls(
      module, "Lock",
      "A lock of the engine, used like Python's own: `acquire`, `release`, `with`.");
  def(cls, "acquire", &acquire_lock,
      "Takes the lock; waits at most `timeout` seconds (-1: as long as it takes).\n\n"
      "Returns whether it was taken.",
      arg("blocking") = true, arg("timeout") = -1.0);
  def(cls, "release", &release_lock, "Frees the lock; RuntimeError when nobody holds it.");
  def(cls, "locked", &Mutex::locked, "Whether somebody holds the lock.");
  def(
      cls, "__enter__", [](Mutex& self) { return acquire_lock(self, true, -1.0); }, "");
  cls.def(
      "__exit__", [](Mutex& self, const nb::args&) { release_lock(self); },
      nb::sig("def __exit__(self, *args: object) -> None"));
  bind_semaphore(module);
}

}  // namespace tarvomeldric::host
