#pragma once

#include "_engine/engine_class.h"
#include "host/calls/engine_view.h"
#include "host/calls/operation.h"
#include "host/interpreter/recursion.h"

namespace tarvomeldric::host {

template <class C>
using Self = nb::pointer_and_handle<C>;

inline Caller caller(Self<Engine> self) { return {self.h}; }
inline Caller caller(Self<EngineView> self) { return {self.p->engine, self.p->policy}; }

// The two forms of an operation on a class.
template <class C, auto Make, Literal Name, class Result>
struct Forms;
template <class C, class... P, OperationPtr (*Make)(const Caller&, P...), Literal Name,
          class Result>
struct Forms<C, Make, Name, Result> {
  static Result blocking(Self<C> self, P... given) {
    const RecursionScope scope;
    const OperationPtr operation = Make(caller(self), given...);
    run_blocking(operation->run(nullptr));
    return operation->result();
  }
  static Awaitable<Result> awaited(Self<C> self, P... given) {
    return make_coroutine(Make(caller(self), given...), Name.value);
  }
};

void bind_relay(nb::class_<EngineView>& cls);

}  // namespace tarvomeldric::host
