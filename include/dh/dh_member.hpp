// Nodes that are bound to a member function of their owner at compile time.
#pragma once

#include "dh_error.hpp"

#include <cxxabi.h>

#include <cmath>
#include <cstdlib>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace dh::api {

namespace detail {

template <class Result, class Owner, class... Arguments>
struct member_types {
    using result = std::decay_t<Result>;
    using owner = Owner;
    using arguments = std::tuple<std::decay_t<Arguments>...>;
};

template <class T>
struct member_traits;
template <class R, class C, class... A>
struct member_traits<R (C::*)(A...)> : member_types<R, C, A...> {};
template <class R, class C, class... A>
struct member_traits<R (C::*)(A...) const> : member_types<R, C, A...> {};

template <class Tuple, class Indices>
struct first_elements;
template <class... T, std::size_t... I>
struct first_elements<std::tuple<T...>, std::index_sequence<I...>> {
    using type = std::tuple<std::tuple_element_t<I, std::tuple<T...>>...>;
};

// A setter's arguments: the leading ones are bound, the last one is the value.
template <class Arguments>
struct setter_arguments {
    static constexpr std::size_t leading_count = std::tuple_size_v<Arguments> - 1;
    using value = std::tuple_element_t<leading_count, Arguments>;
    using leading =
        typename first_elements<Arguments, std::make_index_sequence<leading_count>>::type;
};

}  // namespace detail

// Types of a getter `Result Owner::getter(bound...)`.
template <auto Getter>
struct getter_types {
    using traits = detail::member_traits<decltype(Getter)>;
    using owner = typename traits::owner;
    using value = typename traits::result;
    using bound = typename traits::arguments;
};

// Types of a setter `Result Owner::setter(bound..., value)`.
template <auto Setter>
struct setter_types {
    using traits = detail::member_traits<decltype(Setter)>;
    using owner = typename traits::owner;
    using result = typename traits::result;
    using value = typename detail::setter_arguments<typename traits::arguments>::value;
    using bound = typename detail::setter_arguments<typename traits::arguments>::leading;
};

// Calls the member function on the owner with the bound arguments and, for a
// setter, the new value. Throws dh_error -2 once the owner is gone.
template <auto Function, class Owner, class Bound, class... Value>
decltype(auto) call_owner(const std::weak_ptr<Owner>& weak_owner, const Bound& bound,
                          const Value&... value) {
    const std::shared_ptr<Owner> owner = weak_owner.lock();
    if (!owner)
        throw dh_error(dh_error_code::no_such_path, "Object has been removed");
    return std::apply(
        [&](const auto&... leading) -> decltype(auto) {
            return ((*owner).*Function)(leading..., value...);
        },
        bound);
}

// Throws dh_error -61 "`subject` is NaN." or "`subject` is infinite."; other
// types than float pass.
template <class T, class Subject>
void require_finite(const T& value, const Subject& subject) {
    if constexpr (std::is_same_v<T, float>) {
        if (std::isnan(value))
            throw dh_error(dh_error_code::bad_value, subject() + " is NaN.");
        if (std::isinf(value))
            throw dh_error(dh_error_code::bad_value, subject() + " is infinite.");
    }
}

template <class T>
void require_finite_argument(const T& value) {
    require_finite(value, [] { return std::string("Argument value"); });
}

// The demangled run-time name of T, without a leading asterisk; the raw name
// where it cannot be demangled.
template <class T>
std::string type_name() {
    const char* raw = typeid(T).name();
    if (*raw == '*')
        ++raw;
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(raw, nullptr, nullptr, &status), &std::free);
    return status == 0 && name ? std::string(name.get()) : std::string(raw);
}

}  // namespace dh::api
