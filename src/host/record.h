#pragma once

#include <string>
#include <utility>
#include <vector>

#include "host/argument.h"
#include "host/collected.h"
#include "host/convert.h"
#include "host/views.h"
#include "support/guarded_record.h"

namespace tarvomeldric::host {

// Records of the core as the host's dataclasses: positional and keyword construction, readable and
// assignable fields, `repr`, `==`, `__match_args__`, copy and pickle. One table of fields a record
// drives all of it.
//
//   bind_record<Diagnosis>(module, "The label of one failure.",
//                          {required<&Diagnosis::category>("category"), ...});

// How one field is read and written, free of its type.
struct Field {
  const char* name;
  const char* doc;
  std::string type;
  bool (*set)(void* fields, nb::handle value);                // false: a value of another type
  nb::object (*live)(nb::handle owner, void* fields);         // as the host sees it
  nb::object (*plain)(void* fields);                          // as it is copied and compared
  int (*traverse)(void* fields, visitproc visit, void* arg);  // shows the host objects it keeps
  void (*drop)(void* fields);                                 // lets go of one kept by reference
  bool required = false;
  bool shown = true;     // in `repr`
  bool compared = true;  // in `==` and in pickles
  bool assignable = true;
  bool secret = false;   // shown as asterisks
  bool own = false;      // made by the record itself
  bool varying = false;  // no two records start with the same value
};

namespace detail {

template <class F, class M>
struct MemberOf {
  using Fields = F;
  using Member = M;
};
template <class F, class M>
MemberOf<F, M> member_of(M F::*);

}  // namespace detail

// `doc` says what the field means, with its unit; `type` what one that takes any host object is
// meant to hold.
template <auto Pointer>
Field field(const char* name, const char* doc, const char* type = nullptr) {
  using Of = decltype(detail::member_of(Pointer));
  using F = typename Of::Fields;
  using M = typename Of::Member;
  Field made{};
  made.name = name;
  made.doc = doc;
  made.type = type ? type : Convert<M>::kName.text;
  made.set = [](void* fields, nb::handle value) {
    M converted{};
    if (!Convert<M>::from(value, converted)) return false;
    std::swap(static_cast<F*>(fields)->*Pointer, converted);  // the old one ends after that
    return true;
  };
  made.live = [](nb::handle owner, void* fields) -> nb::object {
    return live(owner, static_cast<F*>(fields)->*Pointer);
  };
  made.plain = [](void* fields) -> nb::object {
    return Convert<M>::to(static_cast<F*>(fields)->*Pointer);
  };
  made.traverse = [](void* fields, visitproc visit, void* arg) {
    return visit_host(static_cast<F*>(fields)->*Pointer, visit, arg);
  };
  if constexpr (requires(M & member) { drop(member); }) {
    made.drop = [](void* fields) { drop(static_cast<F*>(fields)->*Pointer); };
  }
  return made;
}

template <auto Pointer>
Field required(const char* name, const char* doc, const char* type = nullptr) {
  Field made = field<Pointer>(name, doc, type);
  made.required = true;
  return made;
}

// A part that every record makes for itself: one given at construction is not taken over, and none
// is shown, compared or copied.
inline Field own_part(Field part) {
  part.own = true;
  part.shown = part.compared = false;
  return part;
}

// The lock of a guarded record, as the host may hold it.
template <class T>
Field lock_field() {
  Field lock{};
  lock.name = "_lock";
  lock.doc = "held while the guarded fields change";
  lock.type = "Lock";
  lock.live = [](nb::handle owner, void*) -> nb::object {
    return nb::cast(&nb::inst_ptr<T>(owner)->mutex(), nb::rv_policy::reference_internal, owner);
  };
  lock.plain = [](void*) -> nb::object { return nb::none(); };
  lock.assignable = false;
  return own_part(lock);
}

inline Field varying(Field field) {
  field.varying = true;
  return field;
}

inline Field secret(Field field) {
  field.secret = true;
  return field;
}

// Where the fields of a record are: beside its lock, or the record itself.
template <class T>
auto& fields_of(T& record) {
  if constexpr (requires { record.host_fields(); }) {
    return record.host_fields();
  } else {
    return record;
  }
}

template <class T>
using FieldsOf = std::remove_reference_t<decltype(fields_of(std::declval<T&>()))>;

// A bound record's fields, and the way from an instance to them.
struct RecordTable {
  const char* name;
  std::vector<Field> fields;
  void* (*locate)(PyObject* self);

  // Fills fresh fields from constructor arguments; type errors name the field.
  void fill(void* fields, const nb::args& args, const nb::kwargs& kwargs) const;
  nb::object repr(PyObject* self) const;
  nb::object equals(PyObject* self, PyObject* other) const;
  nb::object reduce(PyObject* self) const;
  int traverse(PyObject* self, visitproc visit, void* arg) const;
  int clear(PyObject* self) const;
  // The text of the constructor's signature; `defaults` are fields as a record without arguments
  // has.
  std::string signature(void* defaults) const;
  // What the class documentation says of the fields.
  std::string manual(void* defaults) const;
  nb::tuple match_args() const;
};

// The table of each bound record lives as long as the module.
template <class T>
inline RecordTable* record_table = nullptr;

template <class T>
int traverse_record(PyObject* self, visitproc visit, void* arg) {
  return record_table<T>->traverse(self, visit, arg);
}
template <class T>
int clear_record(PyObject* self) {
  return record_table<T>->clear(self);
}

// Sets a field from a host value; the type error names class and field.
void assign_field(const char* class_name, void* fields, const Field& field, nb::handle value);

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
        assign_field(HostName<T>::value.text, &fields_of(self), *field, value);
      },
      nb::for_getter(nb::sig(getter.c_str())), nb::for_getter(field->doc),
      nb::for_setter(nb::sig(setter.c_str())), nb::for_setter(nb::arg("value").none()));
}

// `make_defaults` gives the fields that a record without arguments starts from.
template <class T>
nb::class_<T> bind_record(
    nb::module_& module, const std::string& doc, std::vector<Field> fields,
    FieldsOf<T> (*make_defaults)() = [] { return FieldsOf<T>{}; }) {
  const char* name = HostName<T>::value.text;
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
        table->fill(&filled, args, kwargs);
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
      "__reduce__", [table](nb::pointer_and_handle<T> self) { return table->reduce(self.h.ptr()); },
      nb::sig("def __reduce__(self) -> tuple[typing.Any, ...]"));
  cls.attr("__hash__") = nb::none();
  cls.attr("__match_args__") = table->match_args();
  return cls;
}

}  // namespace tarvomeldric::host
