#include <foundation/usm/detail.hpp>

#include <boost/core/demangle.hpp>

#include <atomic>
#include <vector>

namespace foundation {
namespace usm {

namespace {
thread_local Context* tlsCurrent = nullptr;
std::atomic<std::uint64_t> nextSlot{1};

Context& active() {
    Context* c = tlsCurrent;
    if (!c)
        throw NoActiveContext();
    return *c;
}
} // namespace

std::shared_ptr<Context> Context::create(std::string name) {
    return std::shared_ptr<Context>(new Context(std::move(name)));
}

Context::Context(std::string name) : name_(std::move(name)) {}

Context::~Context() {
    // Values may refer to each other; destroy them outside the lock, in no particular order.
    std::unordered_map<std::uint64_t, Entry> slots;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        slots.swap(slots_);
    }
    for (auto& s : slots)
        s.second.deleter(s.second.value);
}

Context* Context::current() {
    return tlsCurrent;
}

void* Context::find(std::uint64_t slot, std::type_info const& type) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = slots_.find(slot);
    if (it == slots_.end())
        return nullptr;
    if (*it->second.type != type) {
        throw std::logic_error("slot " + std::to_string(slot) + " holds " +
                               boost::core::demangle(it->second.type->name()) + ", not " +
                               boost::core::demangle(type.name()));
    }
    return it->second.value;
}

void Context::insert(std::uint64_t slot, std::type_info const& type, void* value,
                     ValueDeleter deleter) {
    Entry old{nullptr, nullptr, nullptr};
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Entry& e = slots_[slot];
        old = e;
        e = Entry{&type, value, deleter};
    }
    if (old.value)
        old.deleter(old.value);
}

void* Context::findOrInsert(std::uint64_t slot, std::type_info const& type, void* value,
                            ValueDeleter deleter) {
    void* kept;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto inserted = slots_.emplace(slot, Entry{&type, value, deleter});
        if (inserted.second)
            return value;
        if (*inserted.first->second.type != type) {
            deleter(value);
            throw std::logic_error("slot " + std::to_string(slot) + " holds another type");
        }
        kept = inserted.first->second.value;
    }
    deleter(value);
    return kept;
}

bool Context::erase(std::uint64_t slot) {
    Entry old{nullptr, nullptr, nullptr};
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = slots_.find(slot);
        if (it == slots_.end())
            return false;
        old = it->second;
        slots_.erase(it);
    }
    old.deleter(old.value);
    return true;
}

ContextScope::ContextScope(std::shared_ptr<Context> context)
    : context_(std::move(context)), previous_(tlsCurrent) {
    if (!context_)
        throw std::invalid_argument("ContextScope: null context");
    tlsCurrent = context_.get();
}

ContextScope::~ContextScope() {
    tlsCurrent = previous_;
}

SlotNotFound::SlotNotFound(std::uint64_t slot, std::type_info const& type)
    : std::runtime_error("context slot " + std::to_string(slot) + " (" +
                         boost::core::demangle(type.name()) + ") is empty") {}

std::uint64_t Detail<scope::Tarn>::getNextID(std::type_info const&) {
    return nextSlot.fetch_add(1);
}

void* Detail<scope::Tarn>::find(std::uint64_t slot, std::type_info const& type) {
    Context* c = tlsCurrent;
    return c ? c->find(slot, type) : nullptr;
}

void* Detail<scope::Tarn>::findOrFail(std::uint64_t slot, std::type_info const& type) {
    void* v = active().find(slot, type);
    if (!v)
        throw SlotNotFound(slot, type);
    return v;
}

void Detail<scope::Tarn>::insert(std::uint64_t slot, std::type_info const& type, void* value,
                                 ValueDeleter deleter) {
    Context* c = tlsCurrent;
    if (!c) {
        deleter(value); // nothing is lost silently: the caller learns by the exception
        throw NoActiveContext();
    }
    c->insert(slot, type, value, deleter);
}

void* Detail<scope::Tarn>::findOrInsert(std::uint64_t slot, std::type_info const& type, void* value,
                                        ValueDeleter deleter) {
    Context* c = tlsCurrent;
    if (!c) {
        deleter(value);
        throw NoActiveContext();
    }
    return c->findOrInsert(slot, type, value, deleter);
}

} // namespace usm
} // namespace foundation
