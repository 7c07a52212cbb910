#pragma once

#include "host/interpreter/python.h"

namespace tarvomeldric::host {

// A context variable of Python and the dictionary that it is to stand on; nothing when both are
// null.
struct ContextValue {
  nb::handle variable;
  nb::handle value;
};

// Python's context variable stands on the dictionary for a scope, in the context of the thread or
// task that runs.
class ContextScope {
 public:
  explicit ContextScope(ContextValue context) : context_(context) {
    if (!context_.variable) return;
    before_ = made(PyContextVar_Set(context_.variable.ptr(), context_.value.ptr()));
  }
  ~ContextScope() {
    if (!context_.variable) return;
    error_scope keep;
    if (PyContextVar_Reset(context_.variable.ptr(), before_.ptr()) == 0) return;
    // No memory for it: what stays in its place is to mean nothing.
    PyErr_Clear();
    PyDict_Clear(context_.value.ptr());
  }
  ContextScope(const ContextScope&) = delete;
  ContextScope& operator=(const ContextScope&) = delete;

 private:
  ContextValue context_;
  nb::object before_;
};

}  // namespace tarvomeldric::host
