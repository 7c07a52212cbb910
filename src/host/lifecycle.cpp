#include "host/engine.h"

// Closing an engine's pools. The engine stays usable: the next request makes fresh clients.
namespace tarvomeldric::host {
namespace {

// A client that fails to close does not keep the next one open; an interrupt still passes.
void close_quietly(nb::handle client) {
  try {
    call(client.attr("close"));
  } catch (nb::python_error& failure) {
    if (!failure.matches(PyExc_Exception)) throw;
  }
}

}  // namespace

// The lock is held until the last one is closed: a thread that asks for a client meanwhile gets a
// fresh one afterwards.
void Engine::close_sync_clients() {
  MutexLock lock(sync_client_lock);
  const nb::list pooled(sync_client_pool.attr("values")());
  for (nb::handle client : pooled) close_quietly(client);
  sync_client_pool.attr("clear")();
}

void Engine::close_sync() {
  if (clients_.is_valid() || nb::len(http_pool) != 0) {
    call(clients().attr("close_blocking"), http_pool, pool_lock_object());
  }
  close_sync_clients();
}

nb::object Engine::close() {
  const nb::object self = nb::find(this);
  return call(clients().attr("close"), http_pool, pool_lock_object(),
              self.attr("_close_sync_clients"));
}

void Engine::after_fork() {
  counters.reset_after_fork();
  pool_lock.reset_after_fork();
  sync_client_lock.reset_after_fork();
  bound<Diagnoser>(diagnoser, "_diagnoser").mutex().reset_after_fork();
  bound<MetricsCollector>(metrics, "_metrics").mutex().reset_after_fork();
  for (const NamedProvider& entry : HostRegistry(providers).entries()) {
    entry.provider->reset_after_fork();
  }
  call(import("tarvomeldric._fork").attr("keep"), clients_.is_valid() ? clients_ : nb::none(),
       call(http_pool.attr("copy")), call(sync_client_pool.attr("copy")));
  drop(clients_);
  call(http_pool.attr("clear"));
  call(sync_client_pool.attr("clear"));
}

}  // namespace tarvomeldric::host
