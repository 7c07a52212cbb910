#include "host/views.h"

#include <algorithm>
#include <array>
#include <memory>

#include "flywheel/learner.h"
#include "host/records.h"
#include "observability/metrics_collector.h"
#include "providers/provider_config.h"

namespace tarvomeldric::host {
namespace {

template <class C>
View<C>& view_of(PyObject* self) {
  return *nb::inst_ptr<View<C>>(self);
}

template <class C>
int traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  if (nb::inst_ready(self)) Py_VISIT(view_of<C>(self).owner.ptr());
  return 0;
}

// An operation of the host's container that changes it: done on a copy, which is then written back.
template <class C>
void bind_mutator(nb::class_<View<C>>& cls, const char* name) {
  cls.def(name, [name](View<C>& self, const nb::args& args, const nb::kwargs& kwargs) {
    nb::object copy = Convert<C>::to(*self.container);
    nb::object result = host_call([&]() -> nb::object { return copy.attr(name)(*args, **kwargs); });
    if (!assign(*self.container, copy)) {
      throw nb::type_error((std::string(name) + ": an element is of the wrong type").c_str());
    }
    return result;
  });
}

template <class C>
void bind_reader(nb::class_<View<C>>& cls, const char* name) {
  cls.def(name, [name](const View<C>& self, const nb::args& args, const nb::kwargs& kwargs) {
    const nb::object copy = Convert<C>::to(*self.container);
    return host_call([&]() -> nb::object { return copy.attr(name)(*args, **kwargs); });
  });
}

template <class C>
nb::class_<View<C>> bind_view(nb::module_& module, const char* name, const char* doc,
                              const char* protocol) {
  PyType_Slot slots[] = {{Py_tp_traverse, reinterpret_cast<void*>(traverse<C>)}, {0, nullptr}};
  nb::class_<View<C>> cls(module, name, doc, nb::type_slots(slots), nb::is_final());
  cls.def("__len__", [](const View<C>& self) { return self.container->size(); });
  for (const char* reader : {"__contains__", "__repr__", "copy", "__reduce_ex__"}) {
    bind_reader(cls, reader);
  }
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

std::size_t checked_index(Py_ssize_t index, std::size_t size) {
  if (index < 0) index += static_cast<Py_ssize_t>(size);
  if (index < 0 || static_cast<std::size_t>(index) >= size) throw nb::index_error("out of range");
  return static_cast<std::size_t>(index);
}

template <class C>
void bind_sequence(nb::module_& module, const char* name, const char* doc) {
  using Element = typename Shape<C>::Element;
  auto cls = bind_view<C>(module, name, doc, "MutableSequence");
  cls.def(
      "__getitem__",
      [](const View<C>& self, nb::handle index) -> nb::object {
        if (!PyIndex_Check(index.ptr())) return Convert<C>::to(*self.container)[index];
        const Py_ssize_t at = PyNumber_AsSsize_t(index.ptr(), PyExc_IndexError);
        if (at == -1 && PyErr_Occurred()) throw nb::python_error();
        return Convert<Element>::to((*self.container)[checked_index(at, self.container->size())]);
      },
      nb::arg("index").none());
  cls.def("__iter__",
          [](nb::handle_t<View<C>> self) { return nb::steal(PySeqIter_New(self.ptr())); });
  cls.def(
      "append",
      [](View<C>& self, Arg<Element, "value"> value) {
        Shape<C>::append(*self.container, value.get());
      },
      arg("value"));
  for (const char* mutator :
       {"__setitem__", "__delitem__", "extend", "insert", "pop", "remove", "clear", "reverse"}) {
    bind_mutator(cls, mutator);
  }
  for (const char* reader : {"count", "index", "__reversed__", "__add__"}) {
    bind_reader(cls, reader);
  }
}

template <class C>
void bind_queue(nb::module_& module, const char* name, const char* doc) {
  bind_sequence<C>(module, name, doc);
  nb::class_<View<C>> cls(nb::borrow<nb::class_<View<C>>>(nb::type<View<C>>()));
  for (const char* mutator : {"appendleft", "popleft", "extendleft", "rotate"}) {
    bind_mutator(cls, mutator);
  }
  cls.def_prop_ro("maxlen", [](const View<C>&) { return C::kCapacity; });
}

template <class V>
void bind_mapping(nb::module_& module, const char* name, const char* doc) {
  using C = OrderedMap<V>;
  auto cls = bind_view<C>(module, name, doc, "MutableMapping");
  cls.def(
      "__getitem__",
      [](nb::pointer_and_handle<View<C>> self, nb::handle key) {
        V* value = PyUnicode_Check(key.ptr()) ? self.p->container->find(to_utf8(key)) : nullptr;
        if (value) return live(self.p->owner, *value);
        PyErr_SetObject(PyExc_KeyError, key.ptr());
        throw nb::python_error();
      },
      nb::arg("key").none());
  cls.def(
      "__setitem__",
      [](View<C>& self, Arg<std::string, "key"> key, Arg<V, "value"> value) {
        V converted = value.get();
        (*self.container)[key.get()] = std::move(converted);
      },
      arg("key"), arg("value"));
  for (const char* mutator : {"__delitem__", "pop", "popitem", "setdefault", "update", "clear"}) {
    bind_mutator(cls, mutator);
  }
  for (const char* reader :
       {"__iter__", "__reversed__", "__or__", "get", "keys", "values", "items"}) {
    bind_reader(cls, reader);
  }
}

}  // namespace

void bind_views(nb::module_& module) {
  bind_sequence<std::vector<std::string>>(module, "_TextList", "A live list of texts.");
  bind_sequence<std::vector<double>>(module, "_NumberList", "A live list of numbers.");
  bind_sequence<std::vector<PhaseEntry>>(module, "_PhaseList", "A live list of trace phases.");
  bind_queue<BoundedQueue<bool, 20>>(module, "_OutcomeWindow", "The newest 20 outcomes, live.");
  bind_queue<BoundedQueue<double, 100>>(module, "_LatencyQueue", "The newest 100 latencies, live.");
  bind_mapping<std::int64_t>(module, "_CounterMap", "A live map of counts.");
  bind_mapping<double>(module, "_GaugeMap", "A live map of numbers.");
  bind_mapping<std::shared_ptr<Samples>>(module, "_HistogramMap", "A live map of sample lists.");
  bind_mapping<BreakerPtr>(module, "_BreakerMap", "A live map of circuit breakers.");
  bind_mapping<RulePtr>(module, "_RuleMap", "A live map of learned rules.");
}

}  // namespace tarvomeldric::host
