#include <vector>

#include "_engine/rooms.h"
#include "diagnosis/fault_patterns.h"
#include "host/interpreter/signatures.h"
#include "support/version.h"

namespace nb = nanobind;
using namespace tarvomeldric;
using namespace tarvomeldric::host;

NB_MODULE(engine, module) {
  module.doc() =
      "The engine of TarvoMeldric: calls to hosted model providers that heal themselves.";
  module.attr("__version__") = kVersion;
  // A user's exit prints nothing, whatever is still alive in daemon threads.
  nb::set_leak_warnings(false);
  module.def("_warn_of_leaks", nb::set_leak_warnings, nb::arg("on"),
             "Whether the end of the program tells which objects of the module are still alive.");
  install_hooks();
  bind_enums(module);
  bind_errors(module);
  bind_views(module);
  bind_locks(module);
  bind_diagnosis(module);
  bind_guards(module);
  bind_semantic(module);
  bind_contracts(module);
  bind_flywheel(module);
  bind_observability(module);
  bind_providers(module);
  bind_events(module);
  bind_policy(module);
  bind_results(module);
  bind_coroutine(module);
  bind_stream(module);
  bind_engine(module);
  bind_view(module);
  bind_live(module);
  bind_dashboard(module);
  bind_quick_start(module);
  bind_tables(module);
  bind_signatures(module.attr("SemanticTopology"), "classify_request", module.attr("__getattr__"));
  warm_fault_patterns();
}

namespace {

// The module's types and hooks are the process's: another interpreter would put its own in their
// place, and this one would be left with strangers. The binding library puts its own there before
// the module's body runs, hence a step of our own in front of it.
int refuse_sub_interpreter(PyObject*) {
  if (PyInterpreterState_Get() == PyInterpreterState_Main()) return 0;
  PyErr_SetString(PyExc_ImportError, "tarvomeldric cannot be loaded in a sub-interpreter");
  return -1;
}

std::vector<PyModuleDef_Slot> steps_of(const PyModuleDef& definition) {
  std::vector<PyModuleDef_Slot> steps{
      {Py_mod_exec, reinterpret_cast<void*>(refuse_sub_interpreter)}};
  for (const PyModuleDef_Slot* slot = definition.m_slots; slot->slot != 0; ++slot) {
    steps.push_back(*slot);
  }
  steps.push_back({});
  return steps;
}

}  // namespace

extern "C" NB_EXPORT PyObject* PyInit__engine() {
  PyObject* made = PyInit_engine();
  if (!made) return nullptr;
  auto& definition = *reinterpret_cast<PyModuleDef*>(made);
  static auto* steps = new std::vector<PyModuleDef_Slot>(steps_of(definition));  // as long as it
  definition.m_slots = steps->data();
  return made;
}
