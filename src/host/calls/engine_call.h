#pragma once

#include "host/calls/engine.h"
#include "host/interpreter/python.h"

namespace tarvomeldric::host {

// The arguments of `call` and `call_sync` as Python code gave them.
struct CallArguments {
  nb::handle prompt;
  nb::handle model;
  nb::handle task_type;
  nb::handle has_schema;
  nb::handle semantic_domain;
  nb::handle contract;
  nb::handle api_type;
  nb::kwargs options;
};

// Both throw a type error that names the argument before anything of the call happens.
nb::object call_blocking(nb::handle engine, const CallArguments& arguments);
nb::object call_coroutine(nb::handle engine, const CallArguments& arguments);

// The arguments of `_execute_sync`, `_execute` and `_execute_stream`.
struct ExecuteArguments {
  nb::handle cfg;
  nb::handle prompt;
  nb::handle model;
  nb::handle api_type;
  nb::kwargs extra;
};
nb::object execute_blocking(nb::handle engine, const ExecuteArguments& arguments);
nb::object execute_coroutine(nb::handle engine, const ExecuteArguments& arguments);
// The asynchronous generator of the events of a streamed answer.
nb::object execute_stream(nb::handle engine, const ExecuteArguments& arguments);

// The arguments of `_failover_sync` and `_failover`.
struct FailoverArguments {
  nb::handle prompt;
  nb::handle model;
  nb::handle failed_provider;
  nb::handle diag;
  nb::handle sem_class;
  nb::handle original_provider;
  nb::handle original_model;
  nb::handle request_id;
  nb::handle contract;
  nb::handle trace;
  nb::handle call_start;
  nb::kwargs options;
};
nb::object failover_blocking(nb::handle engine, const FailoverArguments& arguments);
nb::object failover_coroutine(nb::handle engine, const FailoverArguments& arguments);

}  // namespace tarvomeldric::host
