#pragma once

#include <string>
#include <utility>
#include <vector>

#include "_engine/def.h"
#include "host/records/record.h"

namespace tarvomeldric::host {

template <class T>
int traverse_record(PyObject* self, visitproc visit, void* arg) {
  return record_table<T>->traverse(self, visit, arg);
}
template <class T>
int clear_record(PyObject* self) {
  return record_table<T>->clear(self);
}

// Binds one field as a property. Also serves the members of classes that are no records.
template <class T, class... Extra>
void bind_field(nb::class_<T, Extra...>& cls, Field bound) {
  const auto* field = new Field(std::move(bound));  // as long as the class
  const std::string getter = "def " + std::string(field->name) + "(self) -> " + field->type;
  const auto get = [field](nb::pointer_and_handle<T> self) {
    return field->live(self.h, &fields_of(*self.p));
  };
  if (!field->assignable) {
    cls.def_prop_ro(field->name, get, nb::sig(getter.c_str()), field->doc);
    return;
  }
  const std::string setter =
      "def " + std::string(field->name) + "(self, value: " + field->type + ", /) -> None";
  cls.def_prop_rw(
      field->name, get,
      [field](T& self, nb::handle value) {
        assign_field(kPythonName<T>.text, &fields_of(self), *field, value);
      },
      nb::for_getter(nb::sig(getter.c_str())), nb::for_getter(field->doc),
      nb::for_setter(nb::sig(setter.c_str())), nb::for_setter(nb::arg("value").none()));
}

// `make_defaults` gives the fields that a record without arguments starts from.
template <class T>
nb::class_<T> bind_record(
    nb::module_& module, const std::string& doc, std::vector<Field> fields,
    FieldsOf<T> (*make_defaults)() = [] { return FieldsOf<T>{}; }) {
  const char* name = kPythonName<T>.text;
  auto* table = new RecordTable{name, std::move(fields), [](PyObject* self) -> void* {
                                  return &fields_of(*nb::inst_ptr<T>(self));
                                }};
  record_table<T> = table;
  PyType_Slot slots[] = {{Py_tp_traverse, reinterpret_cast<void*>(traverse_record<T>)},
                         {Py_tp_clear, reinterpret_cast<void*>(clear_record<T>)},
                         {0, nullptr}};
  auto defaults = make_defaults();
  nb::class_<T> cls(module, name, (doc + table->manual(&defaults)).c_str(), nb::type_slots(slots));
  cls.def(
      "__init__",
      [table, make_defaults](T* self, const nb::args& args, const nb::kwargs& kwargs) {
        auto filled = make_defaults();
        if constexpr (requires { filled.check(); }) {
          try {
            table->fill(&filled, args, kwargs);
          } catch (nb::python_error& error) {
            if (!error.matches(PyExc_OverflowError)) throw;
            throw nb::value_error(text_form(error.value()).c_str());
          }
          filled.check();
        } else {
          table->fill(&filled, args, kwargs);
        }
        new (self) T(std::move(filled));
      },
      nb::sig(table->signature(&defaults).c_str()),
      "Takes the fields in their order or by name; TypeError names one of the wrong type.");
  for (const Field& field : table->fields) bind_field(cls, field);
  cls.def(
      "__repr__",
      [](nb::pointer_and_handle<T> self) -> nb::object {
        if constexpr (requires { summary(*self.p); }) {
          return from_utf8(summary(*self.p));
        } else {
          return record_table<T>->repr(self.h.ptr());
        }
      },
      nb::sig("def __repr__(self) -> str"));
  cls.def(
      "__eq__",
      [table](nb::pointer_and_handle<T> self, nb::handle other) {
        return table->equals(self.h.ptr(), other.ptr());
      },
      nb::arg("other").none(), nb::sig("def __eq__(self, other: object, /) -> bool"));
  cls.def(
      "__setstate__",
      [table](nb::handle_t<T> self, nb::handle state) { table->restore(self, state); },
      nb::arg("state").none(), nb::sig("def __setstate__(self, state: typing.Any, /) -> None"));
  cls.def(
      "__reduce__", [table](nb::pointer_and_handle<T> self) { return table->reduce(self.h.ptr()); },
      nb::sig("def __reduce__(self) -> tuple[typing.Any, ...]"));
  cls.attr("__hash__") = nb::none();
  cls.attr("__match_args__") = table->match_args();
  return cls;
}

// Binds a record whose fields are read only. Records of equal values have equal hashes.
template <class T>
nb::class_<T> bind_frozen(nb::module_& module, const std::string& doc, std::vector<Field> fields) {
  for (Field& field : fields) field.assignable = false;
  auto cls = bind_record<T>(module, doc, std::move(fields));
  cls.def(
      "__hash__",
      [](nb::pointer_and_handle<T> self) { return record_table<T>->hash(self.h.ptr()); },
      nb::sig("def __hash__(self) -> int"));
  return cls;
}

// Binds a member of a class that is no record; type errors of the setter name it.
template <auto Member, class T>
void bind_member(nb::class_<T>& cls, const char* name) {
  using M = std::remove_reference_t<decltype(std::declval<T&>().*Member)>;
  const std::string type = Convert<M>::kName.text;
  const std::string getter = "def " + std::string(name) + "(self) -> " + type;
  const std::string setter = "def " + std::string(name) + "(self, value: " + type + ", /) -> None";
  cls.def_prop_rw(
      name, [](const T& self) { return Convert<M>::to(self.*Member); },
      [name](T& self, nb::handle value) { self.*Member = convert_argument<M>(value, name); },
      nb::for_getter(nb::sig(getter.c_str())), nb::for_setter(nb::sig(setter.c_str())),
      nb::for_setter(nb::arg("value").none()));
}

}  // namespace tarvomeldric::host
