#pragma once
// Detail<Scope>: the slot store's access functions for one kind of context. The only kind is
// scope::Tarn, the contexts that interpreter threads run in.
//
// Slots are numbered by getNextID, once per use site, and typed: each value is stored with its
// run-time type record, and reading it as another type is an error. All functions may be called
// from any thread; those that need an active context throw NoActiveContext outside one.
#include <foundation/usm/context.hpp>

#include <stdexcept>

namespace foundation {
namespace usm {

namespace scope {
struct Tarn;
}

class NoActiveContext : public std::logic_error {
public:
    NoActiveContext() : std::logic_error("no context is active on this thread") {}
};

class SlotNotFound : public std::runtime_error {
public:
    SlotNotFound(std::uint64_t slot, std::type_info const& type);
};

template <class Scope> class Detail;

template <> class Detail<scope::Tarn> {
public:
    static bool isRequiredContextActive() { return Context::current() != nullptr; }

    // A fresh slot number, unique in the process; `type` is recorded for diagnostics.
    static std::uint64_t getNextID(std::type_info const& type);

    // The slot's value in the active context, or null when the slot is empty.
    static void* find(std::uint64_t slot, std::type_info const& type);
    // As find, but an empty slot throws SlotNotFound.
    static void* findOrFail(std::uint64_t slot, std::type_info const& type);
    // Stores `value` (owned from now on, freed with `deleter`), replacing any earlier value.
    static void insert(std::uint64_t slot, std::type_info const& type, void* value,
                       ValueDeleter deleter);

    // Stores `value` unless the slot holds one; returns the value that stays (the given one is
    // freed when it loses).
    static void* findOrInsert(std::uint64_t slot, std::type_info const& type, void* value,
                              ValueDeleter deleter);

    // Typed conveniences over the above.
    template <class T> static T* findAs(std::uint64_t slot) {
        return static_cast<T*>(find(slot, typeid(T)));
    }
    template <class T> static T& findOrFailAs(std::uint64_t slot) {
        return *static_cast<T*>(findOrFail(slot, typeid(T)));
    }
    // Allocates only when the slot is empty, so repeated reads of a present value are cheap.
    template <class T> static T& findOrInsertValue(std::uint64_t slot, T const& value) {
        if (void* present = find(slot, typeid(T)))
            return *static_cast<T*>(present);
        return *static_cast<T*>(findOrInsert(slot, typeid(T), new T(value),
                                             [](void* p) { delete static_cast<T*>(p); }));
    }
    template <class T> static void insertValue(std::uint64_t slot, T const& value) {
        insert(slot, typeid(T), new T(value), [](void* p) { delete static_cast<T*>(p); });
    }
};

} // namespace usm
} // namespace foundation
