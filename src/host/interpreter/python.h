#pragma once

#include <cxxabi.h>
#include <nanobind/nanobind.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/shared_ptr.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace tarvomeldric::host {

namespace nb = nanobind;
using namespace nb::literals;

// Around every call below C++ frames that can give up the interpreter lock. A daemon thread that
// asks for the lock when the interpreter is going away is ended by an unwind that our frames cannot
// pass on; it is parked here instead, and the process leaves without it. (What it is caught by
// refers to nothing, which the sanitizer would mind.)
template <class F>
__attribute__((no_sanitize("null", "alignment"))) decltype(auto) host_call(F&& f) {
  try {
    return std::forward<F>(f)();
  } catch (abi::__forced_unwind&) {
    for (;;) pause();
  }
}

// What the interpreter made, or its error thrown where it made nothing.
inline nb::object made(PyObject* fresh) {
  if (!fresh) throw nb::python_error();
  return nb::steal(fresh);
}

// Calls what Python can call.
template <class... Args>
nb::object call(nb::handle callable, Args&&... args) {
  return host_call([&]() -> nb::object { return callable(std::forward<Args>(args)...); });
}
// A method, called by its name: no object is made that binds it.
template <class Attribute, class... Args>
nb::object call(const nb::detail::accessor<Attribute>& method, Args&&... args) {
  return host_call([&]() -> nb::object { return method(std::forward<Args>(args)...); });
}

// Texts cross as UTF-8, a lone surrogate in its three-byte form.
std::string to_utf8(nb::handle text);
nb::str from_utf8(std::string_view utf8);

// Clears the error of a step that may fail. What is no `Exception`, an interrupt among them, still
// passes, and so does a failed allocation.
void clear_failure();

// Python's text form of an object, and a stand-in where the object cannot give one.
std::string text_form(nb::handle object);

// A plain value as Python code writes it, "..." for any other object.
std::string literal(nb::handle value);

nb::object import(const char* module);

// What Python writes as container[key]; a missing one is a KeyError or an IndexError.
nb::object item(nb::handle container, nb::handle key);
inline nb::object item(nb::handle container, const char* key) {
  return item(container, from_utf8(key));
}

// A string literal as a template argument.
template <std::size_t N>
struct Literal {
  // NOLINTNEXTLINE(google-explicit-constructor): the point is to be written as a literal.
  constexpr Literal(const char (&text)[N]) { std::copy_n(text, N, value); }
  char value[N];
};

// "name"_key is Python's own text of that name, made once and kept as long as the process. On the
// call path it spares making a text and hashing it.
template <Literal Name>
nb::handle operator""_key() {
  static PyObject* const text = made(PyUnicode_InternFromString(Name.value)).release().ptr();
  return text;
}

// Sets one entry of a dictionary.
inline void put(nb::dict& dict, nb::handle key, nb::handle value) {
  if (PyDict_SetItem(dict.ptr(), key.ptr(), value.ptr()) < 0) throw nb::python_error();
}
inline void put(nb::dict& dict, const char* key, nb::handle value) {
  if (PyDict_SetItemString(dict.ptr(), key, value.ptr()) < 0) throw nb::python_error();
}

// A dictionary of these entries, in their order.
nb::dict make_dict(std::initializer_list<std::pair<const char*, nb::handle>> entries);

// The entry of a dictionary, or null.
inline nb::handle entry(nb::handle dict, nb::handle key) {
  PyObject* found = PyDict_GetItemWithError(dict.ptr(), key.ptr());
  if (!found && PyErr_Occurred()) throw nb::python_error();
  return found;
}
inline nb::handle entry(nb::handle dict, const char* key) { return entry(dict, from_utf8(key)); }

inline nb::object number(double value) { return made(PyFloat_FromDouble(value)); }
inline nb::object number(std::int64_t value) { return made(PyLong_FromLongLong(value)); }
inline nb::object truth(bool value) { return nb::borrow(value ? Py_True : Py_False); }
inline bool is_true(nb::handle object) {
  const int truthy = host_call([&] { return PyObject_IsTrue(object.ptr()); });
  if (truthy < 0) throw nb::python_error();
  return truthy != 0;
}
// What `type(object).__name__` says.
std::string class_name(nb::handle object);

// Lets go of an object. The place is empty before the object's end runs, which may look there
// again; the binding library's `reset` leaves it dangling meanwhile.
inline void drop(nb::object& place) { const nb::object gone = std::move(place); }

// The attribute, or `fallback` where the object has none. Any other failure passes, as it does in
// Python's own `getattr`; the binding library's would swallow it.
nb::object attribute_or(nb::handle object, nb::handle name, nb::handle fallback);
inline nb::object attribute_or(nb::handle object, const char* name, nb::handle fallback) {
  return attribute_or(object, from_utf8(name), fallback);
}

// Whether the object is a T. Throws a type error for one that a subclass left without constructing
// it.
template <class T>
bool is_made(nb::handle object) {
  if (!nb::isinstance<T>(object)) return false;
  if (nb::inst_ready(object)) return true;
  throw nb::type_error((class_name(object) + ".__init__() was not called").c_str());
}

// Keeps an error that is already set out of the way of what a destructor does.
using nb::error_scope;

// Installs what the core needs from the interpreter: waits without its lock, Ctrl-C, lower-casing.
void install_hooks();

}  // namespace tarvomeldric::host

// Texts cross the binding library as they cross everywhere; its own caster refuses lone surrogates.
template <>
struct nanobind::detail::type_caster<std::string> {
  NB_TYPE_CASTER(std::string, const_name("str"))
  bool from_python(handle text, std::uint32_t, cleanup_list*) {
    if (!PyUnicode_Check(text.ptr())) return false;
    value = tarvomeldric::host::to_utf8(text);
    return true;
  }
  static handle from_cpp(const std::string& text, rv_policy, cleanup_list*) {
    return tarvomeldric::host::from_utf8(text).release();
  }
};
