// How every facade shares its implementation between threads.
//
// A facade's mutex guards nothing but its implementation pointer. An operation takes a shared
// reference to the implementation under the lock and does its work after releasing it, so no
// thread waits behind another's parsing, printing or downloading. That is safe because an
// implementation that readers can reach is never changed: a change builds a new one and
// installs it. Readers keep what they took alive, so an assignment cannot free it under them,
// and the implementation an assignment replaces is destroyed after the lock is released.
//
// Nothing but pointer work runs under a facade's lock, so no operation ever holds two facade
// locks, or calls another facade while holding one.
#pragma once

#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

namespace foundation::certificates::detail {

struct FacadeAccess {
    // The implementation; throws the facade's "uninitialized" message for a moved-from facade.
    template <typename Facade>
    static auto current(const Facade& facade) {
        const std::lock_guard<std::mutex> lock(facade.mutex);
        facade.throwIfImplEmpty();
        return facade.impl;
    }

    // The implementation, null for a moved-from facade.
    template <typename Facade>
    static auto currentOrNull(const Facade& facade) {
        const std::lock_guard<std::mutex> lock(facade.mutex);
        return facade.impl;
    }

    // A facade over an implementation that is already shared (an element of a list).
    template <typename Facade, typename Pointer>
    static Facade wrap(Pointer impl) noexcept {
        return Facade(std::move(impl));
    }

    // Runs a read-only operation on the implementation, without the lock. The result is returned
    // by value: nothing may point into an implementation the caller no longer holds.
    template <typename Facade, typename Operation>
    static auto read(const Facade& facade, Operation&& operation) {
        const auto impl = current(facade);
        return std::forward<Operation>(operation)(*impl);
    }

    // Installs the implementation that `change` builds from the current one (null for a
    // moved-from facade) and returns it. The change runs under the lock, so it must be quick
    // and must not touch another facade; returning the current pointer changes nothing.
    template <typename Facade, typename Change>
    static auto change(Facade& facade, Change&& change) {
        using Pointer = std::decay_t<decltype(facade.impl)>;
        Pointer installed;
        Pointer retired;  // destroyed after the lock is released
        {
            const std::lock_guard<std::mutex> lock(facade.mutex);
            installed = std::forward<Change>(change)(std::as_const(facade.impl));
            retired = std::exchange(facade.impl, installed);
        }
        return installed;
    }

    // Installs an implementation; what it replaces is destroyed after the lock is released.
    template <typename Facade, typename Pointer>
    static void install(Facade& facade, Pointer&& impl) noexcept {
        std::decay_t<decltype(facade.impl)> retired(std::forward<Pointer>(impl));
        const std::lock_guard<std::mutex> lock(facade.mutex);
        facade.impl.swap(retired);
    }

    // Takes the implementation out, leaving the facade moved-from.
    template <typename Facade>
    static auto release(Facade& facade) noexcept {
        const std::lock_guard<std::mutex> lock(facade.mutex);
        return std::exchange(facade.impl, nullptr);
    }

    // Copy assignment for facades whose copies share the implementation. Each side is locked on
    // its own, one after the other.
    template <typename Facade>
    static void assign(Facade& target, const Facade& source) {
        if (&target != &source) install(target, current(source));
    }

    // Also move assignment, which exchanges. Two assignments, each atomic on its own: a reader of
    // either object sees one of the two values, never a moved-from object. Holding both locks at
    // once would break the rule above.
    template <typename Facade>
    static void swap(Facade& first, Facade& second) noexcept {
        if (&first == &second) return;
        auto firstImpl = currentOrNull(first);
        {
            const std::lock_guard<std::mutex> lock(second.mutex);
            second.impl.swap(firstImpl);  // firstImpl now holds the second's
        }
        install(first, std::move(firstImpl));
    }
};

}  // namespace foundation::certificates::detail
