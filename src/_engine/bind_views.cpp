#include "_engine/def.h"
#include "_engine/rooms.h"
#include "flywheel/learner.h"
#include "host/interpreter/collected.h"
#include "host/records/records.h"
#include "host/records/views.h"

namespace tarvomeldric::host {
namespace {

using Methods = std::initializer_list<const char*>;

Py_ssize_t whole_index(nb::handle index) {
  const Py_ssize_t at = PyNumber_AsSsize_t(index.ptr(), PyExc_IndexError);
  if (at == -1 && PyErr_Occurred()) throw nb::python_error();
  return at;
}

// Operations that Python's own container does on a copy, which is written back if they change it.
template <class C>
void bind_readers(nb::class_<View<C>>& cls, Methods names) {
  for (const char* name : names) {
    cls.def(name, [name](const View<C>& self, const nb::args& args, const nb::kwargs& kwargs) {
      const nb::object copy = Convert<C>::to(*self.container);
      return host_call([&]() -> nb::object { return copy.attr(name)(*args, **kwargs); });
    });
  }
}
template <class C>
nb::object change(View<C>& view, const char* name, nb::handle args, nb::handle kwargs) {
  nb::object copy = Convert<C>::to(*view.container);
  nb::object result = host_call(
      [&] { return made(PyObject_Call(copy.attr(name).ptr(), args.ptr(), kwargs.ptr())); });
  if (!assign(*view.container, copy)) {
    throw nb::type_error((std::string(name) + ": an element is of the wrong type").c_str());
  }
  return result;
}
template <class C>
void bind_mutators(nb::class_<View<C>>& cls, Methods names) {
  for (const char* name : names) {
    cls.def(name, [name](View<C>& self, const nb::args& args, const nb::kwargs& kwargs) {
      return change(self, name, args, kwargs);
    });
  }
}

template <class C>
nb::class_<View<C>> bind_view(nb::module_& module, const char* name, const char* doc,
                              const char* protocol) {
  PyType_Slot slots[] = {{Py_tp_traverse, reinterpret_cast<void*>(traverse_object<View<C>>)},
                         {0, nullptr}};
  nb::class_<View<C>> cls(module, name, doc, nb::type_slots(slots), nb::is_final());
  cls.def("__len__", [](const View<C>& self) { return self.container->size(); });
  cls.def("clear", [](View<C>& self) { const C gone = std::exchange(*self.container, C{}); });
  bind_readers(cls, {"__repr__", "copy", "__reduce_ex__"});
  // A view equals what its copy equals; another view counts as its copy.
  cls.def(
      "__eq__",
      [](const View<C>& self, nb::handle other) {
        const nb::object mine = Convert<C>::to(*self.container);
        if (nb::isinstance<View<C>>(other)) {
          return mine.equal(Convert<C>::to(*nb::cast<View<C>&>(other).container));
        }
        return mine.equal(other);
      },
      nb::arg("other").none());
  cls.attr("__hash__") = nb::none();
  import("collections.abc").attr(protocol).attr("register")(cls);
  return cls;
}

template <class C>
nb::class_<View<C>> bind_elements(nb::module_& module, const char* name, const char* doc) {
  using Element = typename C::value_type;
  auto cls = bind_view<C>(module, name, doc, "MutableSequence");
  cls.def(
      "__getitem__",
      [](const View<C>& self, nb::handle index) -> nb::object {
        if (!PyIndex_Check(index.ptr())) return Convert<C>::to(*self.container)[index];
        const std::size_t at = place_in(*self.container, whole_index(index));
        return Convert<Element>::to((*self.container)[at]);
      },
      nb::arg("index").none());
  cls.def(
      "__contains__",
      [](const View<C>& self, nb::handle value) { return holds(*self.container, value); },
      nb::arg("value").none());
  cls.def("__iter__", [](nb::handle_t<View<C>> self) { return made(PySeqIter_New(self.ptr())); });
  def(
      cls, "append",
      [](View<C>& self, const Element& value) { append(*self.container, Element(value)); }, "",
      arg("value"));
  bind_mutators(cls, {"__setitem__", "extend", "insert", "remove", "reverse"});
  cls.def(
      "__delitem__",
      [](View<C>& self, nb::handle index) {
        if (PyIndex_Check(index.ptr())) {
          take_out(*self.container, whole_index(index));
        } else {
          change<C>(self, "__delitem__", nb::make_tuple(index), {});
        }
      },
      nb::arg("index").none());
  bind_readers(cls, {"count", "index", "__reversed__", "__add__"});
  return cls;
}

template <class T>
void bind_list(nb::module_& module, const char* name, const char* doc) {
  using C = std::vector<T>;
  auto cls = bind_elements<C>(module, name, doc);
  def(
      cls, "pop",
      [](View<C>& self, std::int64_t index) { return take_out(*self.container, index); }, "",
      arg("index") = -1);
}

template <class T, std::size_t N>
void bind_queue(nb::module_& module, const char* name, const char* doc) {
  using C = BoundedQueue<T, N>;
  auto cls = bind_elements<C>(module, name, doc);
  cls.def("pop", [](View<C>& self) { return take_out(*self.container, -1); });
  cls.def("popleft", [](View<C>& self) { return take_out(*self.container, 0); });
  bind_mutators(cls, {"appendleft", "extendleft", "rotate"});
  cls.def_prop_ro("maxlen", [](const View<C>&) { return N; });
}

template <class V>
void bind_map(nb::module_& module, const char* name, const char* doc) {
  using C = OrderedMap<V>;
  using Self = nb::pointer_and_handle<View<C>>;
  auto cls = bind_view<C>(module, name, doc, "MutableMapping");
  cls.def(
      "__contains__",
      [](const View<C>& self, nb::handle key) { return value_at(*self.container, key) != nullptr; },
      nb::arg("key").none());
  cls.def(
      "__getitem__",
      [](Self self, nb::handle key) {
        V* value = value_at(*self.p->container, key);
        if (!value) raise_key_error(key);
        return live(self.p->owner, *value);
      },
      nb::arg("key").none());
  cls.def(
      "get",
      [](Self self, nb::handle key, nb::handle otherwise) {
        V* value = value_at(*self.p->container, key);
        return value ? live(self.p->owner, *value) : nb::borrow(otherwise);
      },
      nb::arg("key").none(), nb::arg("default").none() = nb::none());
  cls.def(
      "pop",
      [](View<C>& self, nb::handle key, const nb::args& otherwise) {
        if (otherwise.size() > 1) throw nb::type_error("pop takes a key and at most one default");
        const nb::object fallback = otherwise.size() == 1 ? otherwise[0] : nb::object();
        return take_out(*self.container, key, fallback);
      },
      nb::arg("key").none(), nb::arg("default"));
  cls.def(
      "__delitem__",
      [](View<C>& self, nb::handle key) { take_out(*self.container, key, nb::handle()); },
      nb::arg("key").none());
  def(
      cls, "__setitem__",
      [](View<C>& self, std::string_view key, const V& value) {
        [[maybe_unused]] const V replaced = std::exchange((*self.container)[key], value);
      },
      "", arg("key"), arg("value"));
  bind_mutators(cls, {"popitem", "setdefault", "update"});
  bind_readers(cls, {"__iter__", "__reversed__", "__or__", "keys", "values", "items"});
}

}  // namespace

void bind_views(nb::module_& module) {
  bind_list<std::string>(module, "_TextList", "A live list of texts.");
  bind_list<double>(module, "_NumberList", "A live list of numbers.");
  bind_list<PhaseEntry>(module, "_PhaseList", "A live list of trace phases.");
  bind_queue<bool, 20>(module, "_OutcomeWindow", "The newest 20 outcomes, live.");
  bind_queue<double, 100>(module, "_LatencyQueue", "The newest 100 latencies, live.");
  bind_map<std::int64_t>(module, "_CounterMap", "A live map of counts.");
  bind_map<std::string>(module, "_TextMap", "A live map of texts.");
  bind_map<double>(module, "_GaugeMap", "A live map of numbers.");
  bind_map<std::shared_ptr<Samples>>(module, "_HistogramMap", "A live map of sample lists.");
  bind_map<BreakerPtr>(module, "_BreakerMap", "A live map of circuit breakers.");
  bind_map<RulePtr>(module, "_RuleMap", "A live map of learned rules.");
}

}  // namespace tarvomeldric::host
