#pragma once

#include <array>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "host/records/argument.h"

// Binding functions whose type errors name the argument. The binding library's own errors name
// none, so it is given parameters that take anything, and the conversion follows behind it.
//
//   def(cls, "acquire", &RateLimiter::acquire, "Takes tokens.", arg("tokens") = 1);
//
// Types come from the function's own signature, names and defaults from the `arg`s, one for each
// parameter but `self`, in order. Results cross by `Convert` where it knows them. A last parameter
// of the type nb::kwargs takes the keyword options that are no other parameter's.
namespace tarvomeldric::host {

// Whatever is given reaches the conversion, None included.
inline auto arg(const char* name) { return nb::arg(name).none(); }

using Dict = Annotated<"dict[str, typing.Any]">;
using CountDict = Annotated<"dict[str, int]">;

namespace detail {

// A parameter as Python gave it, and what becomes of it.
template <class P>
struct Given {
  using Value = std::conditional_t<
      std::is_same_v<std::decay_t<P>, std::string_view>, std::string,
      std::conditional_t<std::is_same_v<P, nb::handle>, nb::object, std::decay_t<P>>>;
  static constexpr const char* kType = Convert<Value>::kName.text;

  nb::handle object;

  Value take(const char* name) const { return convert_argument<Value>(object, name); }
};

// What the binding library is to pass: keyword options as they are, and everything else
// unconverted.
template <class P>
using Passed =
    std::conditional_t<std::is_same_v<std::decay_t<P>, nb::kwargs>, nb::kwargs, Given<P>>;
template <class P>
auto taken(const Given<P>& given, const char* name) {
  return given.take(name);
}
inline nb::kwargs taken(nb::kwargs& options, const char*) { return std::move(options); }

// The type of a parameter in signatures, null for keyword options.
template <class P>
constexpr const char* parameter_type() {
  if constexpr (std::is_same_v<Passed<P>, nb::kwargs>) {
    return nullptr;
  } else {
    return Given<P>::kType;
  }
}

template <class R>
concept Convertible = requires(const R& result) {
  Convert<R>::to(result);
};
template <class R>
constexpr const char* result_type() {
  if constexpr (std::is_void_v<R>) {
    return "None";
  } else if constexpr (Convertible<R>) {
    return Convert<R>::kName.text;
  } else if constexpr (requires { python_name(Named<R>{}); }) {
    return kPythonName<R>.text;
  } else {
    return nb::detail::make_caster<R>::Name.text;
  }
}

// A parameter as an `arg` describes it; no default is null, no type stands for keyword options.
struct Parameter {
  const char* type;
  const char* name;
  nb::object value;
};
template <class A>
Parameter parameter(const char* type, const A& argument) {
  if constexpr (requires { argument.value; }) {
    return {type, argument.name_, argument.value};
  } else {
    return {type, argument.name_, nb::object()};
  }
}
std::string signature(const char* name, bool method, std::initializer_list<Parameter> parameters,
                      const char* result);

// A function with its signature: what the binding library takes.
template <class F>
struct Binding {
  F function;
  std::string signature;
};

// `Before` is what comes before the parameters: `self`, or nothing.
template <class... Before>
struct Binder {
  template <class R, class... P, class F, class... A>
  static auto bind(const char* name, F function, const A&... args) {
    const std::array<const char*, sizeof...(P)> names{args.name_...};
    auto converting = [function, names](Before... before, Passed<P>... given) -> decltype(auto) {
      const auto invoked = [&]<std::size_t... I>(std::index_sequence<I...>)->decltype(auto) {
        // In braces, so that arguments are converted from left to right.
        std::tuple<decltype(taken(given, ""))...> values{taken(given, names[I])...};
        return std::invoke(function, std::forward<Before>(before)..., std::get<I>(values)...);
      };
      if constexpr (Convertible<std::decay_t<R>>) {
        return Convert<std::decay_t<R>>::to(invoked(std::index_sequence_for<P...>()));
      } else {
        return invoked(std::index_sequence_for<P...>());
      }
    };
    return Binding<decltype(converting)>{
        converting,
        signature(name, sizeof...(Before) != 0, {parameter(parameter_type<P>(), args)...},
                  result_type<std::decay_t<R>>())};
  }
};

// One overload for each way of writing a method: a member function of C or of a base of it, a
// function with `self` in front, or a lambda, which is one.
template <class C, class R, class B, class... P, class... A>
auto method(const char* name, R (B::*function)(P...), const A&... args) {
  return Binder<C&>::template bind<R, P...>(name, function, args...);
}
template <class C, class R, class B, class... P, class... A>
auto method(const char* name, R (B::*function)(P...) const, const A&... args) {
  return Binder<const C&>::template bind<R, P...>(name, function, args...);
}
template <class C, class R, class Self, class... P, class... A>
auto method(const char* name, R (*function)(Self, P...), const A&... args) {
  return Binder<Self>::template bind<R, P...>(name, function, args...);
}
template <class C, class L, class... A>
auto method(const char* name, L lambda, const A&... args) {
  return method<C>(name, +lambda, args...);
}
template <class R, class... P, class... A>
auto function(const char* name, R (*free)(P...), const A&... args) {
  return Binder<>::bind<R, P...>(name, free, args...);
}

}  // namespace detail

template <class C, class... Extra, class F, class... A>
void def(nb::class_<C, Extra...>& cls, const char* name, F function, const char* doc,
         const A&... args) {
  const auto bound = detail::method<C>(name, function, args...);
  cls.def(name, bound.function, doc, args..., nb::sig(bound.signature.c_str()));
}
template <class F, class... A>
void def(nb::module_& module, const char* name, F function, const char* doc, const A&... args) {
  const auto bound = detail::function(name, +function, args...);
  module.def(name, bound.function, doc, args..., nb::sig(bound.signature.c_str()));
}

}  // namespace tarvomeldric::host

template <class P>
struct nanobind::detail::type_caster<tarvomeldric::host::detail::Given<P>> {
  using Parameter = tarvomeldric::host::detail::Given<P>;
  NB_TYPE_CASTER(Parameter, const_name("object"))
  bool from_python(handle src, std::uint32_t, cleanup_list*) noexcept {
    value.object = src;
    return true;
  }
};
