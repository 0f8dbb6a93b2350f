#include <quorl/matrixref/matrixreftable.hpp>

#include <quorl/matrixref/matrixrefserviceapi.hpp>
#include <quorl/matrixref/releaserefmessage.hpp>

#include <hv/hvarray.hpp>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <atomic>

namespace quorl {
namespace matrixref {

using contextmgr::TarnID;
using foundation::msg_svc::exchange::Address;
using foundation::msg_svc::exchange::ExchangeApi;

namespace {
// Process-wide, so that no two tables of a process (nor one table over time) share a tag.
std::atomic<RefTag> nextTag{0};
} // namespace

RefTag MatrixRefTable::newTag() {
    return nextTag.fetch_add(1, std::memory_order_relaxed) + 1;
}

MatrixRefTable::MatrixRefTable(std::size_t sizeHint)
    : MatrixRefTable(sizeHint, ExchangeApi::instance()) {}

MatrixRefTable::MatrixRefTable(std::size_t sizeHint, boost::shared_ptr<ExchangeApi> exchange)
    : exchange_(std::move(exchange)) {
    std::size_t n = sizeHint == 0 ? 1000 : sizeHint;
    refsByTag_.max_load_factor(1.0f);
    tagsByArray_.max_load_factor(1.0f);
    tagsByRemote_.max_load_factor(1.0f);
    exchangesByTarn_.max_load_factor(1.0f);
    refsByTag_.reserve(n);
    tagsByArray_.reserve(n);
    tagsByRemote_.reserve(n);
    exchangesByTarn_.rehash(16);
}

MatrixRefTable::~MatrixRefTable() {
    clearTable(true);
}

RefTag MatrixRefTable::insertLocal(TarnID const& tarn, HvArrayPtr& array) {
    if (!array)
        return UndefinedRefTag;
    boost::lock_guard<boost::mutex> guard(lock_);
    auto known = tagsByArray_.find(array.get());
    if (known != tagsByArray_.end()) {
        ++refsByTag_.at(known->second)->count;
        return known->second;
    }
    auto entry = boost::make_shared<MatrixReference>();
    entry->tag = newTag();
    entry->kind = MatrixReference::Local;
    entry->tarn = tarn;
    entry->count = 1;
    hvArray_tag const* address = array.get();
    entry->payload = std::move(array);
    refsByTag_.emplace(entry->tag, entry);
    tagsByArray_.emplace(address, entry->tag);
    return entry->tag;
}

RefTag MatrixRefTable::insertRemote(TarnID const& tarn, RefTag remoteTag, TarnID const& remoteTarn,
                                    std::string const& className,
                                    std::vector<std::size_t> const& dimensions, bool indexable) {
    boost::lock_guard<boost::mutex> guard(lock_);
    auto key = std::make_pair(remoteTag, remoteTarn);
    auto known = tagsByRemote_.find(key);
    if (known != tagsByRemote_.end()) {
        ++refsByTag_.at(known->second)->count;
        return known->second;
    }
    auto entry = boost::make_shared<MatrixReference>();
    entry->tag = newTag();
    entry->kind = MatrixReference::Remote;
    entry->tarn = tarn;
    entry->count = 1;
    RemoteRefInfo info;
    info.remoteTag = remoteTag;
    info.remoteTarn = remoteTarn;
    info.className = className;
    info.dimensions = dimensions;
    info.indexable = indexable;
    entry->payload = std::move(info);
    refsByTag_.emplace(entry->tag, entry);
    tagsByRemote_.emplace(key, entry->tag);
    return entry->tag;
}

RefTag MatrixRefTable::addReference(RefTag tag) {
    boost::lock_guard<boost::mutex> guard(lock_);
    auto it = refsByTag_.find(tag);
    if (it == refsByTag_.end())
        return UndefinedRefTag;
    ++it->second->count;
    return tag;
}

boost::shared_ptr<MatrixReference> MatrixRefTable::find(RefTag tag) const {
    boost::lock_guard<boost::mutex> guard(lock_);
    auto it = refsByTag_.find(tag);
    return it == refsByTag_.end() ? EntryPtr() : it->second;
}

HvArrayPtr MatrixRefTable::takeArray(RefTag tag, bool decrement) {
    boost::lock_guard<boost::mutex> guard(lock_);
    auto it = refsByTag_.find(tag);
    if (it == refsByTag_.end() || !it->second->isLocal())
        return nullptr;
    EntryPtr entry = it->second;
    if (decrement && entry->count > 0)
        --entry->count;
    if (entry->count > 0)
        return HvArrayPtr(hvCreateSharedCopyNotOnArrayList(entry->array()));
    HvArrayPtr array = std::move(boost::get<HvArrayPtr>(entry->payload));
    tagsByArray_.erase(array.get());
    refsByTag_.erase(it);
    return array;
}

void MatrixRefTable::removeLocked(EntryPtr const& entry, std::vector<HvArrayPtr>& doomed) {
    if (entry->isLocal()) {
        HvArrayPtr& array = boost::get<HvArrayPtr>(entry->payload);
        tagsByArray_.erase(array.get());
        doomed.push_back(std::move(array));
    } else {
        RemoteRefInfo const* info = entry->remote();
        tagsByRemote_.erase(std::make_pair(info->remoteTag, info->remoteTarn));
    }
    refsByTag_.erase(entry->tag);
}

void MatrixRefTable::sendReleaseLocked(RemoteRefInfo const& info) {
    auto exchange = exchangesByTarn_.find(info.remoteTarn);
    if (exchange == exchangesByTarn_.end() || !exchange_)
        return;
    // A release is fire and forget: whatever fails here costs the owner an array that lives
    // until its context is cleared, and must not reach the reference's last holder.
    try {
        auto message = boost::make_shared<ReleaseRefMessage const>(info.remoteTag);
        exchange_->submit(message, Address(exchange->second, MatrixRefServiceAPI::serviceName));
    } catch (std::exception const& e) {
        ZN_LOG(log_, foundation::core::log::debug) << "release of tag " << info.remoteTag << " to "
                                                   << exchange->second << " failed: " << e.what();
    } catch (...) {
    }
}

void MatrixRefTable::releaseTag(RefTag tag, std::uint64_t n) {
    std::vector<HvArrayPtr> doomed;
    {
        boost::lock_guard<boost::mutex> guard(lock_);
        auto it = refsByTag_.find(tag);
        if (it == refsByTag_.end())
            return;
        EntryPtr entry = it->second;
        entry->count -= std::min(n, entry->count);
        if (entry->count > 0)
            return;
        if (!entry->isLocal())
            sendReleaseLocked(*entry->remote());
        removeLocked(entry, doomed);
    }
}

void MatrixRefTable::releaseServiceTag(RefTag tag) {
    if (tag == UndefinedRefTag)
        return;
    auto entry = find(tag);
    if (entry && entry->isLocal())
        releaseTag(tag, 1);
}

void MatrixRefTable::clearTarn(TarnID const& tarn) {
    std::vector<HvArrayPtr> doomed;
    {
        boost::lock_guard<boost::mutex> guard(lock_);
        std::vector<EntryPtr> leaving;
        for (auto const& entry : refsByTag_) {
            if (entry.second->tarn == tarn)
                leaving.push_back(entry.second);
        }
        for (auto const& entry : leaving)
            removeLocked(entry, doomed);
    }
}

void MatrixRefTable::clearTable(bool keepArrays) {
    std::vector<HvArrayPtr> doomed;
    {
        boost::lock_guard<boost::mutex> guard(lock_);
        tagsByArray_.clear();
        tagsByRemote_.clear();
        for (auto const& entry : refsByTag_) {
            if (auto array = boost::get<HvArrayPtr>(&entry.second->payload)) {
                if (keepArrays)
                    array->release();
                else
                    doomed.push_back(std::move(*array));
            }
        }
        refsByTag_.clear();
    }
}

void MatrixRefTable::registerExchange(TarnID const& tarn, std::string const& name) {
    boost::lock_guard<boost::mutex> guard(lock_);
    exchangesByTarn_[tarn] = name;
}

void MatrixRefTable::releaseExchange(TarnID const& tarn) {
    boost::lock_guard<boost::mutex> guard(lock_);
    exchangesByTarn_.erase(tarn);
}

std::size_t MatrixRefTable::countActive(bool localOnly) const {
    boost::lock_guard<boost::mutex> guard(lock_);
    if (!localOnly)
        return refsByTag_.size();
    return static_cast<std::size_t>(
        std::count_if(refsByTag_.begin(), refsByTag_.end(),
                      [](auto const& entry) { return entry.second->isLocal(); }));
}

std::uint64_t MatrixRefTable::countTotal(bool localOnly) const {
    boost::lock_guard<boost::mutex> guard(lock_);
    std::uint64_t total = 0;
    for (auto const& entry : refsByTag_) {
        if (!localOnly || entry.second->isLocal())
            total += entry.second->count;
    }
    return total;
}

} // namespace matrixref
} // namespace quorl
