#pragma once
// ConcurrentMap<K, V>: an abstract thread-safe keyed map. Operations on one key may run
// concurrently; operations on the whole table (clear, forEach, size) see no key in motion.
// Values are returned by copy; no user code runs under the map's locks except the creation
// function of getOrCreate and the visitor of forEach.
#include <boost/function.hpp>
#include <boost/optional.hpp>

#include <cstddef>
#include <utility>

namespace foundation {
namespace msg_svc {
namespace threadutil {

template <class K, class V> class ConcurrentMap {
public:
    typedef K key_type;
    typedef V mapped_type;

    virtual ~ConcurrentMap() = default;
    // Empties the map; the old values are destroyed after the lock is released.
    virtual void clear() = 0;
    // Takes the value out; empty if absent or if another thread removed it first.
    virtual boost::optional<V> remove(K const& key) = 0;
    virtual boost::optional<V> find(K const& key) const = 0;
    // The value of `key`, made by `create` if absent; `create` runs at most once per key.
    // Throws std::logic_error "neither inserted nor found?" if the map is inconsistent.
    virtual V getOrCreate(K const& key, boost::function<V()> const& create) = 0;
    virtual void forEach(boost::function<void(std::pair<K const, V>&)> const& visit) = 0;
    virtual void
    forEach(boost::function<void(std::pair<K const, V> const&)> const& visit) const = 0;
    // False when the key exists; the old value stays.
    virtual bool insert(std::pair<K, V> const& entry) = 0;
    virtual std::size_t size() const = 0;
};

} // namespace threadutil
} // namespace msg_svc
} // namespace foundation
