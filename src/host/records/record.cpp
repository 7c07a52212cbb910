#include "host/records/record.h"

#include <algorithm>

namespace tarvomeldric::host {
namespace {

[[noreturn]] void type_error(const std::string& message) { throw nb::type_error(message.c_str()); }

nb::object shown_value(const Field& field, void* fields) {
  if (!field.secret) return field.plain(fields);
  const nb::object value = field.plain(fields);
  return nb::len(value) == 0 ? value : nb::object(from_utf8("********"));
}

std::string repr_of(nb::handle object) {
  return to_utf8(host_call([&]() -> nb::object { return nb::repr(object); }));
}

// What every record starts with, where that is the same plain value for all.
std::string default_text(const Field& field, void* defaults) {
  return field.varying || !field.compared ? "..." : literal(field.plain(defaults));
}

}  // namespace

void assign_field(const char* class_name, void* fields, const Field& field, nb::handle value) {
  const std::string name = std::string(class_name) + "." + field.name;
  try {
    if (!field.set(fields, value)) refuse_argument(name, field.type.c_str(), value);
  } catch (nb::python_error& error) {
    if (!error.matches(PyExc_OverflowError)) throw;
    PyErr_SetString(PyExc_OverflowError, (name + " is too large").c_str());
    throw nb::python_error();
  }
}

void RecordTable::fill(void* target, const nb::args& args, const nb::kwargs& kwargs) const {
  const std::size_t given = args.size();
  if (given > fields.size()) {
    type_error(std::string(name) + "() takes at most " + std::to_string(fields.size()) +
               " arguments, not " + std::to_string(given));
  }
  std::size_t taken = 0;
  for (std::size_t i = 0; i < fields.size(); ++i) {
    const Field& field = fields[i];
    const nb::handle keyword = entry(kwargs, field.name);
    if (keyword) ++taken;
    if (keyword && i < given) {
      type_error(std::string(name) + "() got multiple values for argument '" + field.name + "'");
    }
    if (field.own) continue;
    if (i < given) {
      assign_field(name, target, field, args[i]);
    } else if (keyword) {
      assign_field(name, target, field, keyword);
    } else if (field.required) {
      type_error(std::string(name) + "() is missing the argument '" + field.name + "'");
    }
  }
  if (taken == kwargs.size()) return;
  for (auto [key, _] : kwargs) {
    const std::string keyword = to_utf8(key);
    if (std::ranges::find(fields, keyword, &Field::name) == fields.end()) {
      type_error(std::string(name) + "() got an unexpected keyword argument '" + keyword + "'");
    }
  }
}

nb::object RecordTable::repr(PyObject* self) const {
  std::string text = to_utf8(nb::handle(self).type().attr("__qualname__")) + "(";
  const char* separator = "";
  for (const Field& field : fields) {
    if (!field.shown) continue;
    text += separator + std::string(field.name) + "=" + repr_of(shown_value(field, locate(self)));
    separator = ", ";
  }
  return from_utf8(text + ")");
}

nb::object RecordTable::equals(PyObject* self, PyObject* other) const {
  if (Py_TYPE(self) != Py_TYPE(other) || !nb::inst_ready(other)) {
    return nb::borrow(Py_NotImplemented);
  }
  return truth(std::ranges::all_of(fields, [&](const Field& field) {
    if (!field.compared) return true;
    const nb::object mine = field.plain(locate(self));
    const nb::object theirs = field.plain(locate(other));
    return host_call([&] { return mine.equal(theirs); });
  }));
}

nb::object RecordTable::reduce(PyObject* self) const {
  nb::list values;
  for (const Field& field : fields) {
    values.append(field.compared ? field.plain(locate(self)) : nb::none());
  }
  const nb::handle object(self);
  nb::object state = attribute_or(object, "__dict__", nb::none());
  nb::dict kept;
  for (const Field& field : beside) {
    const nb::object value = field.plain(locate(self));
    if (is_true(value)) put(kept, field.name, value);
  }
  // Attributes of the instance, then what is set by name.
  if (nb::len(kept) != 0) state = nb::make_tuple(state, kept);
  return nb::make_tuple(object.type(), nb::tuple(values), state);
}

void RecordTable::restore(nb::handle self, nb::handle state) const {
  nb::object attributes = nb::borrow(state);
  if (PyTuple_Check(state.ptr())) {
    attributes = item(state, nb::int_(0));
    for (auto [key, value] : nb::borrow<nb::dict>(item(state, nb::int_(1)))) {
      const auto field = std::ranges::find(beside, to_utf8(key), &Field::name);
      if (field != beside.end()) assign_field(name, locate(self.ptr()), *field, value);
    }
  }
  if (!attributes.is_none()) call(self.attr("__dict__").attr("update"), attributes);
}

Py_hash_t RecordTable::hash(PyObject* self) const {
  nb::list values;
  for (const Field& field : fields) values.append(field.plain(locate(self)));
  const nb::tuple all(values);
  const Py_hash_t hash = host_call([&] { return PyObject_Hash(all.ptr()); });
  if (hash == -1) throw nb::python_error();
  return hash;
}

nb::dict RecordTable::dict(void* record) const {
  nb::dict entries;
  for (const Field& field : fields) {
    if (field.name[0] != '_') put(entries, field.name, field.plain(record));
  }
  return entries;
}

nb::object RecordTable::from_dict(nb::handle cls, nb::handle entries) const {
  if (!PyDict_Check(entries.ptr())) refuse_argument("d", "dict", entries);
  nb::dict known;
  for (const Field& field : fields) {
    if (const nb::handle value = entry(entries, field.name)) put(known, field.name, value);
  }
  return host_call([&]() -> nb::object { return cls(**known); });
}

int RecordTable::traverse(PyObject* self, visitproc visit, void* arg) const {
  Py_VISIT(Py_TYPE(self));
  if (!nb::inst_ready(self)) return 0;
  for (const Field& field : fields) {
    if (!field.traverse) continue;
    if (const int stop = field.traverse(locate(self), visit, arg)) return stop;
  }
  for (const Field& field : beside) {
    if (const int stop = field.traverse(locate(self), visit, arg)) return stop;
  }
  return 0;
}

int RecordTable::clear(PyObject* self) const {
  if (!nb::inst_ready(self)) return 0;
  for (const Field& field : fields) {
    if (field.drop) field.drop(locate(self));
  }
  for (const Field& field : beside) {
    if (field.drop) field.drop(locate(self));
  }
  return 0;
}

std::string RecordTable::signature(void* defaults) const {
  std::string text = "def __init__(self";
  for (const Field& field : fields) {
    text += ", " + std::string(field.name) + ": " + field.type;
    if (!field.required) text += " = " + default_text(field, defaults);
  }
  return text + ") -> None";
}

std::string RecordTable::manual(void* defaults) const {
  std::string text = "\n\nArgs:";
  for (const Field& field : fields) {
    if (field.own) continue;
    text += "\n    " + std::string(field.name);
    const std::string value = default_text(field, defaults);
    if (!field.required && value != "...") text += " (" + value + ")";
    text += ": " + std::string(field.doc);
  }
  return text;
}

nb::tuple RecordTable::match_args() const {
  nb::list names;
  for (const Field& field : fields) names.append(from_utf8(field.name));
  return nb::tuple(names);
}

}  // namespace tarvomeldric::host
