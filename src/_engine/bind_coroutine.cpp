#include "_engine/rooms.h"
#include "host/interpreter/collected.h"
#include "host/interpreter/coroutine.h"
#include "host/interpreter/errors.h"

// The slots and members through which Python drives a `Coroutine`.
namespace tarvomeldric::host {
namespace {

Coroutine& coroutine_of(PyObject* self) { return *nb::inst_ptr<Coroutine>(self); }

// No exception may leave a slot.
template <class F>
PySendResult guarded(F&& step) noexcept {
  try {
    return step();
  } catch (...) {
    set_error(std::current_exception());
    return PYGEN_ERROR;
  }
}

PySendResult send(PyObject* self, PyObject* value, PyObject** out) {
  return guarded([&] { return coroutine_of(self).send(value, out); });
}

// Turns a reply into what the method form answers: a value, or StopIteration carrying the result.
PyObject* answer(PySendResult reply, PyObject* value) {
  if (reply != PYGEN_RETURN) return reply == PYGEN_NEXT ? value : nullptr;
  // Made by hand: setting the error with a bare tuple or exception would unpack it.
  PyObject* stop = PyObject_CallOneArg(PyExc_StopIteration, value);
  Py_DECREF(value);
  if (stop) {
    PyErr_SetObject(PyExc_StopIteration, stop);
    Py_DECREF(stop);
  }
  return nullptr;
}

PyObject* next(PyObject* self) {
  PyObject* value = nullptr;
  const PySendResult reply = send(self, Py_None, &value);
  return answer(reply, value);
}

// One that a task is driving at the moment cannot be awaited by somebody else.
PyObject* awaited(PyObject* self) {
  if (!coroutine_of(self).awaiting().is_none()) {
    PyErr_SetString(PyExc_RuntimeError, "coroutine is being awaited already");
    return nullptr;
  }
  Py_INCREF(self);
  return self;
}

PyObject* get_name(PyObject* self, void*) {
  const std::string_view name = coroutine_of(self).qualified_name();
  return from_utf8(name.substr(name.rfind('.') + 1)).release().ptr();
}
PyObject* get_qualified_name(PyObject* self, void*) {
  return from_utf8(coroutine_of(self).qualified_name()).release().ptr();
}
PyObject* get_awaiting(PyObject* self, void*) {
  return coroutine_of(self).awaiting().release().ptr();
}
PyObject* get_running(PyObject* self, void*) {
  return PyBool_FromLong(coroutine_of(self).running());
}
PyObject* get_none(PyObject*, void*) { Py_RETURN_NONE; }

PyGetSetDef members[] = {
    {"__name__", get_name, nullptr, nullptr, nullptr},
    {"__qualname__", get_qualified_name, nullptr, nullptr, nullptr},
    {"cr_await", get_awaiting, nullptr, "What the coroutine awaits, or None.", nullptr},
    {"cr_running", get_running, nullptr, "Whether it runs at this moment.", nullptr},
    {"cr_frame", get_none, nullptr, "None: it has no Python frame.", nullptr},
    {"cr_code", get_none, nullptr, "None: it has no Python code.", nullptr},
    {},
};

PyObject* refuse_new(PyTypeObject* type, PyObject*, PyObject*) {
  PyErr_Format(PyExc_TypeError, "cannot create '%s' instances", type->tp_name);
  return nullptr;
}

}  // namespace

void bind_coroutine(nb::module_& module) {
  PyType_Slot slots[] = {{Py_tp_new, reinterpret_cast<void*>(refuse_new)},
                         {Py_am_await, reinterpret_cast<void*>(awaited)},
                         {Py_am_send, reinterpret_cast<void*>(send)},
                         {Py_tp_iternext, reinterpret_cast<void*>(next)},
                         {Py_tp_getset, members},
                         {Py_tp_traverse, reinterpret_cast<void*>(traverse_object<Coroutine>)},
                         {Py_tp_clear, reinterpret_cast<void*>(clear_object<Coroutine>)},
                         {0, nullptr}};
  nb::class_<Coroutine>(module, "_Coroutine",
                        "What `call` returns: a coroutine, to be awaited once.",
                        nb::type_slots(slots), nb::is_final(), nb::is_weak_referenceable())
      .def(
          "send",
          [](nb::handle_t<Coroutine> self, nb::handle value) {
            PyObject* out = nullptr;
            const PySendResult reply = coroutine_of(self.ptr()).send(value.ptr(), &out);
            return made(answer(reply, out));
          },
          nb::arg("value").none(), "Resumes the coroutine; see Python's own coroutines.")
      .def(
          "throw",
          [](nb::handle_t<Coroutine> self, nb::handle type, nb::handle value,
             nb::handle traceback) {
            PyObject* out = nullptr;
            const PySendResult reply =
                coroutine_of(self.ptr()).throw_in(type, value, traceback, &out);
            return made(answer(reply, out));
          },
          nb::arg("typ").none(), nb::arg("val").none() = nb::none(),
          nb::arg("tb").none() = nb::none(), "Raises an exception where the coroutine waits.")
      .def("close", &Coroutine::close, "Ends the coroutine where it waits.");
}

}  // namespace tarvomeldric::host
