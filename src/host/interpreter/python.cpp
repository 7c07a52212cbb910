#include "host/interpreter/python.h"

#include "support/blocking.h"
#include "support/text.h"

namespace tarvomeldric::host {
namespace {

// Found out at the first wait: asking for it at import would cost more than the rest of the hooks.
unsigned long main_thread() {
  static unsigned long ident = 0;
  if (ident == 0) {
    ident = nb::cast<unsigned long>(import("threading").attr("main_thread")().attr("ident"));
  }
  return ident;
}

void* release_interpreter() {
  return Py_IsInitialized() && PyGILState_Check() ? PyEval_SaveThread() : nullptr;
}

// Runs in destructors, too: the guard must not let an unwind out of them.
void reacquire_interpreter(void* state) {
  host_call([&] { PyEval_RestoreThread(static_cast<PyThreadState*>(state)); });
}

// Only the main thread is interrupted; asking on the others would cost the lock for nothing.
void check_interrupt() {
  if (PyThread_get_thread_ident() != main_thread()) return;
  if (host_call([] { return PyErr_CheckSignals(); }) != 0) throw nb::python_error();
}

std::string lower(std::string_view utf8) {
  return to_utf8(made(PyObject_CallMethodNoArgs(from_utf8(utf8).ptr(), "lower"_key.ptr())));
}

}  // namespace

std::string to_utf8(nb::handle text) {
  Py_ssize_t size = 0;
  if (const char* utf8 = PyUnicode_AsUTF8AndSize(text.ptr(), &size)) {
    return std::string(utf8, static_cast<std::size_t>(size));
  }
  if (!PyErr_ExceptionMatches(PyExc_UnicodeEncodeError)) throw nb::python_error();
  PyErr_Clear();
  const auto bytes = made(PyUnicode_AsEncodedString(text.ptr(), "utf-8", "surrogatepass"));
  return std::string(PyBytes_AS_STRING(bytes.ptr()),
                     static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.ptr())));
}

nb::str from_utf8(std::string_view utf8) {
  const auto size = static_cast<Py_ssize_t>(utf8.size());
  return nb::borrow<nb::str>(made(PyUnicode_DecodeUTF8(utf8.data(), size, "surrogatepass")));
}

nb::dict make_dict(std::initializer_list<std::pair<const char*, nb::handle>> entries) {
  nb::dict dict;
  for (const auto& [key, value] : entries) put(dict, key, value);
  return dict;
}

nb::object item(nb::handle container, nb::handle key) {
  return host_call([&] { return made(PyObject_GetItem(container.ptr(), key.ptr())); });
}

// `tp_name` says the module as well where the type was made in C, and is not kept up to date.
std::string class_name(nb::handle object) {
  const PyTypeObject* type = Py_TYPE(object.ptr());
  if (PyType_HasFeature(Py_TYPE(object.ptr()), Py_TPFLAGS_HEAPTYPE) != 0) {
    return to_utf8(reinterpret_cast<const PyHeapTypeObject*>(type)->ht_name);
  }
  const std::string_view name = type->tp_name;
  return std::string(name.substr(name.rfind('.') + 1));
}

void clear_failure() {
  const bool passes =
      !PyErr_ExceptionMatches(PyExc_Exception) || PyErr_ExceptionMatches(PyExc_MemoryError);
  if (passes) throw nb::python_error();
  PyErr_Clear();
}

std::string text_form(nb::handle object) {
  const auto text = host_call([&] { return nb::steal(PyObject_Str(object.ptr())); });
  if (text.is_valid()) return to_utf8(text);
  clear_failure();
  return "<unprintable " + class_name(object) + " object>";
}

std::string literal(nb::handle value) {
  const bool plain = value.is_none() || PyUnicode_CheckExact(value.ptr()) ||
                     PyLong_Check(value.ptr()) || PyFloat_CheckExact(value.ptr());
  return plain ? to_utf8(nb::repr(value)) : "...";
}

nb::object attribute_or(nb::handle object, nb::handle name, nb::handle fallback) {
  auto found = host_call([&] { return nb::steal(PyObject_GetAttr(object.ptr(), name.ptr())); });
  if (found.is_valid()) return found;
  if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw nb::python_error();
  PyErr_Clear();
  return nb::borrow(fallback);
}

nb::object import(const char* module) {
  return host_call([&]() -> nb::object { return nb::module_::import_(module); });
}

void install_hooks() {
  install_blocking_hooks({release_interpreter, reacquire_interpreter, check_interrupt});
  text::install_lower_hook(lower);
}

}  // namespace tarvomeldric::host
