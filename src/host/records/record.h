#pragma once

#include <string>
#include <utility>
#include <vector>

#include "host/interpreter/collected.h"
#include "host/records/argument.h"
#include "host/records/convert.h"
#include "host/records/views.h"
#include "support/guarded_record.h"

namespace tarvomeldric::host {

// Records of the core as Python's dataclasses: positional and keyword construction, readable and
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
  nb::object (*live)(nb::handle owner, void* fields);         // as Python sees it
  nb::object (*plain)(void* fields);                          // as it is copied and compared
  int (*traverse)(void* fields, visitproc visit, void* arg);  // shows the Python objects it keeps
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

// The way from a record's fields to one of them, through parts of the record where it has any.
template <class F, class M>
struct Step {
  using Fields = F;
};
template <class F, class M>
Step<F, M> step(M F::*);

template <auto First, auto... Rest>
struct Path {
  static auto& follow(void* fields) {
    using F = typename decltype(step(First))::Fields;
    return ((static_cast<F*>(fields)->*First).*....*Rest);
  }
  using Member = std::remove_reference_t<decltype(follow(nullptr))>;
};

}  // namespace detail

// `doc` says what the field means, with its unit; `type` what one that takes any object is meant to
// hold. A field of a part is named by the way to it: field<&CallResult::answer, &Answer::model>.
template <auto... Pointers>
Field field(const char* name, const char* doc, const char* type = nullptr) {
  using Path = detail::Path<Pointers...>;
  using M = typename Path::Member;
  Field made{};
  made.name = name;
  made.doc = doc;
  made.type = type ? type : Convert<M>::kName.text;
  made.set = [](void* fields, nb::handle value) {
    M converted{};
    if (!Convert<M>::from(value, converted)) return false;
    std::swap(Path::follow(fields), converted);  // the old one ends after that
    return true;
  };
  made.live = [](nb::handle owner, void* fields) { return live(owner, Path::follow(fields)); };
  made.plain = [](void* fields) -> nb::object { return Convert<M>::to(Path::follow(fields)); };
  made.traverse = [](void* fields, visitproc visit, void* arg) {
    return visit_python(Path::follow(fields), visit, arg);
  };
  if constexpr (requires(M & member) { drop(member); }) {
    made.drop = [](void* fields) { drop(Path::follow(fields)); };
  }
  return made;
}

template <auto... Pointers>
Field required(const char* name, const char* doc, const char* type = nullptr) {
  Field made = field<Pointers...>(name, doc, type);
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

// The lock of a guarded record, which Python code may hold.
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
  if constexpr (requires { record.interpreter_locked_fields(); }) {
    return record.interpreter_locked_fields();
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
  std::vector<Field> beside = {};  // kept by copies and pickles, and in nothing else

  // Fills fresh fields from constructor arguments; type errors name the field.
  void fill(void* fields, const nb::args& args, const nb::kwargs& kwargs) const;
  nb::object repr(PyObject* self) const;
  nb::object equals(PyObject* self, PyObject* other) const;
  nb::object reduce(PyObject* self) const;
  // Takes back what `reduce` gave beside the constructor's arguments.
  void restore(nb::handle self, nb::handle state) const;
  Py_hash_t hash(PyObject* self) const;
  // The fields whose names do not begin with an underscore, as a fresh dictionary.
  nb::dict dict(void* fields) const;
  // Makes one from a dictionary: unknown keys are left out, missing ones are the constructor's
  // business.
  nb::object from_dict(nb::handle cls, nb::handle entries) const;
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

// Sets a field from a Python value; the type error names class and field.
void assign_field(const char* class_name, void* fields, const Field& field, nb::handle value);

}  // namespace tarvomeldric::host
