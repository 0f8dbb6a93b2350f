#pragma once
// Context: one execution context of the slot store, and ContextScope, the guard by which a
// thread enters it. A thread is inside at most one context at a time (the innermost scope);
// entering nests, and leaving restores the context entered before.
//
// A context owns the values in its slots; they are destroyed with the context (when the last
// shared pointer to it goes). Several threads may be inside one context at once: the slot table
// is guarded by the context's own mutex. A pointer returned by `find` stays valid until that slot
// is replaced or the context dies; replacing a slot that another thread is reading is the
// caller's race.
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <typeinfo>
#include <unordered_map>

namespace foundation {
namespace usm {

typedef void (*ValueDeleter)(void*);

class Context {
public:
    static std::shared_ptr<Context> create(std::string name = std::string());
    ~Context();
    Context(Context const&) = delete;
    Context& operator=(Context const&) = delete;

    std::string const& name() const { return name_; }

    // The innermost context the calling thread has entered, or null.
    static Context* current();

    // Null when the slot is empty. Throws std::logic_error if it holds another type.
    void* find(std::uint64_t slot, std::type_info const& type) const;
    // Takes ownership of `value`; a value already in the slot is destroyed.
    void insert(std::uint64_t slot, std::type_info const& type, void* value, ValueDeleter deleter);
    // Takes ownership of `value` unless the slot holds one already, in which case `value` is
    // destroyed; returns the value that stays. Throws std::logic_error on a type mismatch.
    void* findOrInsert(std::uint64_t slot, std::type_info const& type, void* value,
                       ValueDeleter deleter);
    // Destroys the slot's value if there is one; returns whether there was.
    bool erase(std::uint64_t slot);

private:
    explicit Context(std::string name);
    struct Entry {
        std::type_info const* type;
        void* value;
        ValueDeleter deleter;
    };
    std::string name_;
    mutable std::mutex mutex_;                       // guards slots_
    std::unordered_map<std::uint64_t, Entry> slots_; // owns each value
};

class ContextScope {
public:
    explicit ContextScope(std::shared_ptr<Context> context);
    ~ContextScope();
    ContextScope(ContextScope const&) = delete;
    ContextScope& operator=(ContextScope const&) = delete;

private:
    std::shared_ptr<Context> context_;
    Context* previous_;
};

} // namespace usm
} // namespace foundation
