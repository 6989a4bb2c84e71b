#pragma once

#include <memory>

/// Calls `release`, for std::unique_ptr.
template <auto release>
struct Release {
    template <typename Object>
    void operator()(Object* object) const {
        static_cast<void>(release(object));
    }
};

/// Owns an object of a C library, which `release` frees.
template <typename Object, auto release>
using Owner = std::unique_ptr<Object, Release<release>>;
