#pragma once

#include <coroutine>
#include <exception>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

namespace tarvomeldric {

template <class T>
class [[nodiscard]] Task;

namespace detail {

// What the promises of all tasks have in common: what goes on when the task is done.
struct TaskPromiseBase {
  // Hands over to what awaits the finished task, without growing the stack.
  struct FinalAwaiter {
    bool await_ready() const noexcept { return false; }
    template <class P>
    std::coroutine_handle<> await_suspend(std::coroutine_handle<P> done) const noexcept {
      auto waiter = done.promise().continuation;
      return waiter ? waiter : std::noop_coroutine();
    }
    void await_resume() const noexcept {}
  };

  std::suspend_always initial_suspend() const noexcept { return {}; }
  FinalAwaiter final_suspend() const noexcept { return {}; }

  std::coroutine_handle<> continuation;
};

template <class T>
struct TaskPromise : TaskPromiseBase {
  Task<T> get_return_object() noexcept;
  template <class U>
  void return_value(U&& value) {
    result.template emplace<1>(std::forward<U>(value));
  }
  void unhandled_exception() noexcept { result.template emplace<2>(std::current_exception()); }
  T take() {
    if (result.index() == 2) std::rethrow_exception(std::get<2>(result));
    return std::move(std::get<1>(result));
  }

  std::variant<std::monostate, T, std::exception_ptr> result;
};

template <>
struct TaskPromise<void> : TaskPromiseBase {
  Task<void> get_return_object() noexcept;
  void return_void() const noexcept {}
  void unhandled_exception() noexcept { failure = std::current_exception(); }
  void take() const {
    if (failure) std::rethrow_exception(failure);
  }

  std::exception_ptr failure;
};

}  // namespace detail

// A lazy coroutine: nothing of its body runs before it is awaited or started. Awaiting it runs it
// to its first suspension; its result, or the exception that ended it, reaches the awaiter.
// Destroying an unfinished task destroys its frame, so what its locals own is given back.
//
//   Task<int> answer() { co_return 42; }
//   Task<void> caller() { int n = co_await answer(); ... }
//
// One thread at a time.
template <class T>
class [[nodiscard]] Task {
 public:
  using promise_type = detail::TaskPromise<T>;
  using Handle = std::coroutine_handle<promise_type>;

  // Done already: of a step that had nothing to wait for, and so needs no frame.
  Task() noexcept requires std::is_void_v<T>
  = default;
  explicit Task(Handle handle) noexcept : handle_(handle) {}
  Task(Task&& other) noexcept : handle_(std::exchange(other.handle_, {})) {}
  Task& operator=(Task&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~Task() {
    if (handle_) handle_.destroy();
  }

  // For the driver at the bottom: runs to the first suspension, or to the end.
  void start() {
    if (handle_) handle_.resume();
  }
  bool done() const { return !handle_ || handle_.done(); }
  // The result of a finished task; rethrows what ended it. Once.
  T take() {
    if constexpr (std::is_void_v<T>) {
      if (!handle_) return;
    }
    return handle_.promise().take();
  }

  auto operator co_await() const noexcept {
    struct Awaiter {
      Handle task;
      bool await_ready() const noexcept { return !task; }
      std::coroutine_handle<> await_suspend(std::coroutine_handle<> waiter) const noexcept {
        task.promise().continuation = waiter;
        return task;
      }
      T await_resume() const {
        if constexpr (std::is_void_v<T>) {
          if (!task) return;
        }
        return task.promise().take();
      }
    };
    return Awaiter{handle_};
  }

 private:
  Handle handle_;
};

template <class T>
Task<T> detail::TaskPromise<T>::get_return_object() noexcept {
  return Task<T>(std::coroutine_handle<TaskPromise>::from_promise(*this));
}
inline Task<void> detail::TaskPromise<void>::get_return_object() noexcept {
  return Task<void>(std::coroutine_handle<TaskPromise>::from_promise(*this));
}

// Runs a task whose every await is ready at once (or that waits by blocking) to its end.
template <class T>
T run_blocking(Task<T> task) {
  task.start();
  return task.take();
}

}  // namespace tarvomeldric
