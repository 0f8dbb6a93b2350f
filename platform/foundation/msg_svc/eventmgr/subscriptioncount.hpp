#pragma once
// Subscription counts: how publishers learn, without publishing, whether anyone listens.
//
// Counts are kept per tag (a type name or a user tag), process-wide, in cells that live for the
// whole process; reading one is a relaxed atomic load. A subscription of type T counts under
// T's name; one with tags counts under each tag. SubscriptionCountByType<T> answers for T and
// all its bases, since their subscribers receive T's events too. Answers are snapshots and err
// only towards "yes" (a subscriber on another manager identity counts as well).
//
// Count objects that notifyIfWatched makes and drops on every publication come from a
// per-thread free list, so asking costs no heap allocation once warm.
#include <foundation/msg_svc/eventmgr/typeinformation.hpp>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

namespace foundation {
namespace msg_svc {
namespace eventmgr {
namespace detail {

// A count cell of one tag, owned by the process-wide table; never freed.
std::atomic<std::uint64_t>* countCell(ustring const& tag);
// Count a subscription in or out of a cell, telling the remote-interest registry when the tag
// gains its first subscription or loses its last.
void countUp(std::atomic<std::uint64_t>* cell);
void countDown(std::atomic<std::uint64_t>* cell);

class SubscriptionCount {
public:
    virtual ~SubscriptionCount();
    virtual bool hasSubscriptions() const = 0;
    virtual std::uint64_t getSubscriptionCount() const = 0;
    virtual void incrementSubscriptionCount() = 0;
    virtual void decrementSubscriptionCount() = 0;
    // The tags a subscription with this count matches: an event is delivered to it when its
    // getTags() hold all of them.
    virtual TagVector const& matchTags() const = 0;
    // True if this count's answer covers one of `tags` (the tags another process listens to).
    virtual bool coversAnyOf(std::set<ustring> const& tags) const {
        TagVector const& own = matchTags();
        return std::any_of(own.begin(), own.end(),
                           [&](ustring const& t) { return tags.count(t) != 0; });
    }
};

// Answers yes, counts nothing: used while leak checking, when counting must not allocate cells.
class YesSubscriptionCount : public SubscriptionCount {
public:
    explicit YesSubscriptionCount(TagVector tags = TagVector()) : tags_(std::move(tags)) {}
    bool hasSubscriptions() const override { return true; }
    std::uint64_t getSubscriptionCount() const override { return 1; }
    void incrementSubscriptionCount() override {}
    void decrementSubscriptionCount() override {}
    TagVector const& matchTags() const override { return tags_; }
    bool coversAnyOf(std::set<ustring> const&) const override { return true; }

private:
    TagVector tags_;
};

struct LeakCheck {
    static bool isLeakChecking();
    static void setLeakChecking(bool on);
};

class SubscriptionCountByTag : public SubscriptionCount {
public:
    explicit SubscriptionCountByTag(ustring const& tag) : tags_{tag}, cell_(countCell(tag)) {}
    SubscriptionCountByTag(SubscriptionCountByTag const&) = default;
    static std::unique_ptr<SubscriptionCount> instanceFactory(ustring const& tag) {
        return std::unique_ptr<SubscriptionCount>(new SubscriptionCountByTag(tag));
    }
    bool hasSubscriptions() const override { return cell_->load(std::memory_order_relaxed) != 0; }
    std::uint64_t getSubscriptionCount() const override {
        return cell_->load(std::memory_order_relaxed);
    }
    void incrementSubscriptionCount() override { countUp(cell_); }
    void decrementSubscriptionCount() override { countDown(cell_); }
    TagVector const& matchTags() const override { return tags_; }

private:
    TagVector tags_;
    std::atomic<std::uint64_t>* cell_;
};

class SubscriptionCountByTypedInstance : public SubscriptionCount {
public:
    SubscriptionCountByTypedInstance(TagIterator begin, TagIterator end);
    bool hasSubscriptions() const override;
    std::uint64_t getSubscriptionCount() const override;
    void incrementSubscriptionCount() override;
    void decrementSubscriptionCount() override;
    TagVector const& matchTags() const override { return tags_; }

private:
    TagVector tags_;
    std::vector<SubscriptionCountByTag> counts_;
};

// Per-thread recycling of small count objects (see above).
void* allocateCountObject(std::size_t size);
void releaseCountObject(void* p, std::size_t size) noexcept;

// The cells of T's chain, looked up once per type.
template <class T> struct TypeCountCells {
    static std::vector<std::atomic<std::uint64_t>*> const& cells() {
        // Never destroyed, like the type records it is made from.
        static std::vector<std::atomic<std::uint64_t>*> const* const c = [] {
            auto* v = new std::vector<std::atomic<std::uint64_t>*>;
            for (ustring const& name : TypeNameChain<T>::names())
                v->push_back(countCell(name));
            return v;
        }();
        return *c;
    }
};

template <class T> class SubscriptionCountByType : public SubscriptionCount {
public:
    SubscriptionCountByType() : cells_(TypeCountCells<T>::cells()) {}
    bool hasSubscriptions() const override {
        for (auto* c : cells_) {
            if (c->load(std::memory_order_relaxed) != 0)
                return true;
        }
        return false;
    }
    std::uint64_t getSubscriptionCount() const override {
        std::uint64_t n = 0;
        for (auto* c : cells_)
            n += c->load(std::memory_order_relaxed);
        return n;
    }
    void incrementSubscriptionCount() override { countUp(cells_.front()); }
    void decrementSubscriptionCount() override { countDown(cells_.front()); }
    TagVector const& matchTags() const override { return ownName(); }
    bool coversAnyOf(std::set<ustring> const& tags) const override {
        TagVector const& chain = TypeNameChain<T>::names();
        return std::any_of(chain.begin(), chain.end(),
                           [&](ustring const& t) { return tags.count(t) != 0; });
    }

    static void* operator new(std::size_t size) { return allocateCountObject(size); }
    static void operator delete(void* p, std::size_t size) noexcept { releaseCountObject(p, size); }

private:
    static TagVector const& ownName() {
        static TagVector const* const n = new TagVector{TypeNameChain<T>::names().front()};
        return *n;
    }
    std::vector<std::atomic<std::uint64_t>*> const& cells_;
};

// The factory the system passes for event type T (see EventMgr::CountFactory).
template <class T>
std::unique_ptr<SubscriptionCount> subscriptionCountFactory(TagIterator begin, TagIterator end,
                                                            std::string const&) {
    if (LeakCheck::isLeakChecking()) {
        TagVector tags =
            begin == end ? TagVector{TypeNameChain<T>::names().front()} : TagVector(begin, end);
        return std::unique_ptr<SubscriptionCount>(new YesSubscriptionCount(std::move(tags)));
    }
    if (begin == end)
        return std::unique_ptr<SubscriptionCount>(new SubscriptionCountByType<T>);
    // Checks the tags against T's rules ("cannot add user tags.").
    (void)DerivedTypeInformation<T>::instance()->withTags(begin, end);
    return std::unique_ptr<SubscriptionCount>(new SubscriptionCountByTypedInstance(begin, end));
}

} // namespace detail
} // namespace eventmgr
} // namespace msg_svc
} // namespace foundation
