#include "host/calls/engine.h"
#include "host/interpreter/helpers.h"

// The HTTP clients of an engine. Which loop a client belongs to, and how it is closed, is the
// package's business; the pools are dictionaries of the engine's, into which any code may put its
// own.
namespace tarvomeldric::host {

nb::handle Engine::clients() {
  if (!clients_.is_valid()) {
    nb::object fresh = call(Helper::kHttpClients);
    // Importing may have let another thread run, and that thread may have been here.
    if (!clients_.is_valid()) clients_ = std::move(fresh);
  }
  return clients_;
}

// Code that holds the lock keeps the engine alive.
nb::object Engine::lock_object(Mutex& lock) {
  return nb::cast(&lock, nb::rv_policy::reference_internal, nb::find(this));
}

Any Engine::sync_client(const std::string& provider_name) {
  const nb::str name = from_utf8(provider_name);
  if (const nb::handle pooled = entry(sync_client_pool, name)) return nb::borrow(pooled);
  return call(clients().attr("blocking"), sync_client_pool, lock_object(sync_client_lock), name);
}

nb::object Engine::find_session(const std::string& provider_name) {
  return call(clients().attr("find"), http_pool, from_utf8(provider_name));
}

Awaitable<Any> Engine::session(const std::string& provider_name) {
  return call(clients().attr("session"), http_pool, lock_object(pool_lock),
              from_utf8(provider_name));
}

void Engine::close_sync_clients() {
  if (clients_.is_valid() || nb::len(sync_client_pool) != 0) {
    call(clients().attr("close_blocking_clients"), sync_client_pool, lock_object(sync_client_lock));
  }
}

void Engine::close_sync() {
  if (clients_.is_valid() || nb::len(http_pool) != 0) {
    call(clients().attr("close_blocking"), http_pool, lock_object(pool_lock));
  }
  close_sync_clients();
}

Awaitable<void> Engine::close() {
  const nb::object self = nb::find(this);
  return call(clients().attr("close"), http_pool, lock_object(pool_lock),
              self.attr("_close_sync_clients"));
}

void Engine::after_fork() {
  call(Helper::kKeepAfterFork, clients_.is_valid() ? clients_ : nb::none(),
       call(http_pool.attr("copy")), call(sync_client_pool.attr("copy")));
  drop(clients_);
  call(http_pool.attr("clear"));
  call(sync_client_pool.attr("clear"));
}

}  // namespace tarvomeldric::host
