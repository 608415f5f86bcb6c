// How implementation classes reach a facade's implementation, and how every facade operation
// runs: under the facade's own mutex, after the "uninitialized" check, with the lock released
// however the operation leaves.
#pragma once

#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

namespace foundation::certificates::detail {

struct FacadeAccess {
    template <typename Facade, typename Operation>
    static decltype(auto) locked(const Facade& facade, Operation&& operation) {
        const std::lock_guard<std::mutex> lock(facade.mutex);
        facade.throwIfImplEmpty();
        const auto& impl = *facade.impl;
        return std::forward<Operation>(operation)(impl);
    }

    template <typename Facade, typename Operation>
    static decltype(auto) lockedMutable(Facade& facade, Operation&& operation) {
        const std::lock_guard<std::mutex> lock(facade.mutex);
        facade.throwIfImplEmpty();
        return std::forward<Operation>(operation)(*facade.impl);
    }

    // What a facade's copy constructor holds: a new implementation copied from the source's
    // while the source is locked (the lock guard proves it to the implementation). A moved-from
    // source has nothing to copy and throws its "uninitialized" message.
    template <typename Facade>
    static auto copiedImpl(const Facade& source) {
        const std::lock_guard<std::mutex> lock(source.mutex);
        source.throwIfImplEmpty();
        using Impl = std::decay_t<decltype(*source.impl)>;
        return std::make_unique<Impl>(*source.impl, lock);
    }

    template <typename Facade>
    static auto& implPointer(Facade& facade) {
        return facade.impl;
    }

    template <typename Facade>
    static std::mutex& mutex(const Facade& facade) {
        return facade.mutex;
    }
};

}  // namespace foundation::certificates::detail
