// SPDX-License-Identifier: MIT
// Fields that one thread writes and another reads without the caller taking a lock: whole loads and stores.
#pragma once

#include <memory>
#include <mutex>
#include <utility>

namespace kp {

/// A shared object field read and written from several threads: each load and store is whole (what an atomic
/// shared pointer gives), with no ordering beyond that.
template <typename T> class SharedField {
public:
    std::shared_ptr<T> load() const {
        std::lock_guard lock(_mutex);
        return _value;
    }
    void store(std::shared_ptr<T> value) {
        std::lock_guard lock(_mutex);
        _value.swap(value);
    }

private:
    mutable std::mutex _mutex;
    std::shared_ptr<T> _value;
};

/// A value field (a rectangle, an optional string, a weak reference) read and written from several threads: each
/// load and store is whole, so a reader never sees half of one write and half of another, with no ordering beyond
/// that (the semantics of a relaxed atomic, for values too large to be one).
template <typename T> class SharedValue {
public:
    SharedValue() = default;
    explicit SharedValue(T value) : _value(std::move(value)) {}
    T load() const {
        std::lock_guard lock(_mutex);
        return _value;
    }
    void store(T value) {
        std::lock_guard lock(_mutex);
        std::swap(_value, value);
    }

private:
    mutable std::mutex _mutex;
    T _value{};
};

} // namespace kp
