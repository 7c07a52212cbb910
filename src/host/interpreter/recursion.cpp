#include "host/interpreter/recursion.h"

#include <pthread.h>

#include <algorithm>
#include <cstdint>

#include "host/interpreter/python.h"

namespace tarvomeldric::host {
namespace {

constexpr std::size_t kReserveBytes = std::size_t{96} * 1024;

// The address below which this thread's stack is low, 0 where the system does not say.
std::uintptr_t low_mark() {
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return 0;
  void* end = nullptr;
  std::size_t bytes = 0;
  const bool known = pthread_attr_getstack(&attributes, &end, &bytes) == 0;
  pthread_attr_destroy(&attributes);
  return known ? reinterpret_cast<std::uintptr_t>(end) + std::min(kReserveBytes, bytes / 3) : 0;
}

}  // namespace

bool stack_is_low() {
  static thread_local const std::uintptr_t mark = low_mark();
  return reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)) < mark;
}

RecursionScope::RecursionScope() {
  if (stack_is_low()) {
    PyErr_SetString(PyExc_RecursionError, "the stack is used up in a call of the engine");
    throw nb::python_error();
  }
  if (Py_EnterRecursiveCall(" in a call of the engine") != 0) throw nb::python_error();
}

RecursionScope::~RecursionScope() { Py_LeaveRecursiveCall(); }

}  // namespace tarvomeldric::host
