#pragma once
// ConcurrentTBBHashMap<ConcurrentMap<K, V>>: ConcurrentMap on tbb::concurrent_hash_map.
//
// A boost::shared_mutex is used the other way round from its name: operations on one key take
// it shared and rely on the hash map's bucket locks; operations on the whole table take it
// exclusively. Keys need std::hash and operator==.
#include <foundation/core/config/boostthreadversion.hpp>
#include <foundation/msg_svc/threadutil/concurrentmap.hpp>

#include <foundation/core/memory/poolallocator.hpp>

#include <boost/thread/locks.hpp>
#include <boost/thread/shared_mutex.hpp>
#include <tbb/concurrent_hash_map.h>

#include <memory>
#include <stdexcept>

namespace foundation {
namespace msg_svc {
namespace threadutil {

template <class Map> class ConcurrentTBBHashMap;

template <class K, class V>
class ConcurrentTBBHashMap<ConcurrentMap<K, V>> : public ConcurrentMap<K, V> {
    struct HashCompare {
        static std::size_t hash(K const& k) { return std::hash<K>()(k); }
        static bool equal(K const& a, K const& b) { return a == b; }
    };
    // Nodes come from the pool allocator: inserted on one thread, often erased on another.
    typedef tbb::concurrent_hash_map<K, V, HashCompare,
                                     core::memory::PoolAllocator<std::pair<K const, V>>>
        Table;

public:
    explicit ConcurrentTBBHashMap(std::size_t buckets = 0) : table_(buckets) {}

    void clear() override {
        Table old;
        {
            boost::upgrade_lock<boost::shared_mutex> up(mutex_);
            boost::upgrade_to_unique_lock<boost::shared_mutex> lock(up);
            table_.swap(old);
        }
        // `old` dies here, outside the lock.
    }

    boost::optional<V> remove(K const& key) override {
        boost::optional<V> value;
        boost::shared_lock<boost::shared_mutex> lock(mutex_);
        typename Table::accessor acc;
        if (table_.find(acc, key)) {
            value = std::move(acc->second);
            table_.erase(acc);
        }
        return value;
    }

    boost::optional<V> find(K const& key) const override {
        boost::shared_lock<boost::shared_mutex> lock(mutex_);
        typename Table::const_accessor acc;
        if (table_.find(acc, key))
            return acc->second;
        return boost::none;
    }

    V getOrCreate(K const& key, boost::function<V()> const& create) override {
        boost::shared_lock<boost::shared_mutex> lock(mutex_);
        {
            typename Table::const_accessor acc;
            if (table_.find(acc, key))
                return acc->second;
        }
        typename Table::accessor acc;
        if (table_.insert(acc, key)) {
            try {
                acc->second = create();
            } catch (...) {
                table_.erase(acc);
                throw;
            }
            return acc->second;
        }
        if (acc.empty())
            throw std::logic_error("neither inserted nor found?");
        return acc->second;
    }

    void forEach(boost::function<void(std::pair<K const, V>&)> const& visit) override {
        boost::unique_lock<boost::shared_mutex> lock(mutex_);
        for (auto& entry : table_)
            visit(entry);
    }

    void forEach(boost::function<void(std::pair<K const, V> const&)> const& visit) const override {
        boost::unique_lock<boost::shared_mutex> lock(mutex_);
        for (auto const& entry : table_)
            visit(entry);
    }

    bool insert(std::pair<K, V> const& entry) override {
        boost::shared_lock<boost::shared_mutex> lock(mutex_);
        return table_.insert(entry);
    }

    std::size_t size() const override {
        boost::unique_lock<boost::shared_mutex> lock(mutex_);
        return table_.size();
    }

private:
    mutable boost::shared_mutex mutex_; // shared: per-key work; exclusive: whole table
    Table table_;
};

} // namespace threadutil
} // namespace msg_svc
} // namespace foundation
