#pragma once
// MatrixRefTable: the process's bookkeeping of matrix references. It holds the arrays handed
// out by reference (local entries, with a count of the references to each) and one entry per
// array received by reference from elsewhere (remote entries). When a remote entry's count
// reaches 0 it sends a ReleaseRefMessage to the exchange registered for the entry's remote
// context, so that the owner can free its array.
//
// Ownership: the table owns its entries and the arrays of its local entries. The process-wide
// table is made by refInitMatrixReferences; hosts and tests may make further ones (for example
// one per simulated process) with an exchange of their own.
// Threads: any thread may call any operation. One boost::mutex guards all maps and counts, held
// for each operation's whole length, including the submission of a release (which does not
// wait). The lock is not recursive: arrays that an operation removes are destroyed after it has
// been given up, because destroying one may release references held inside it, which re-enters
// the table.
// Errors: none. Unknown tags give 0 or null; failures of sending a release are swallowed (the
// owner's array then lives until its context is cleared).
#include <quorl/matrixref/matrixreference.hpp>

#include <foundation/core/log/diagnosticlogger.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <cstddef>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace quorl {
namespace matrixref {

class MatrixRefTable {
public:
    // `sizeHint` 0 means 1000. The exchange is the process's (ExchangeApi::instance()).
    explicit MatrixRefTable(std::size_t sizeHint = 0);
    // As above, sending releases through `exchange`.
    MatrixRefTable(std::size_t sizeHint,
                   boost::shared_ptr<foundation::msg_svc::exchange::ExchangeApi> exchange);
    // Abandons the arrays of local entries (clearTable(true)): at process end the array library
    // may already be gone.
    ~MatrixRefTable();
    MatrixRefTable(MatrixRefTable const&) = delete;
    MatrixRefTable& operator=(MatrixRefTable const&) = delete;

    // A local entry for `array`, count 1, taking the array out of the caller's pointer. If the
    // array already has an entry its count rises by 1 and `array` is left as it was: it then
    // aliases the table's array, and the caller must release it rather than destroy it. A null
    // array gets no entry: UndefinedRefTag.
    RefTag insertLocal(contextmgr::TarnID const& tarn, HvArrayPtr& array);
    // One entry per (remoteTag, remoteTarn): a repeated arrival raises its count by 1.
    RefTag insertRemote(contextmgr::TarnID const& tarn, RefTag remoteTag,
                        contextmgr::TarnID const& remoteTarn, std::string const& className,
                        std::vector<std::size_t> const& dimensions, bool indexable);
    // Adds a count; the tag, or UndefinedRefTag when it is unknown.
    RefTag addReference(RefTag tag);
    boost::shared_ptr<MatrixReference> find(RefTag tag) const;
    // The array of a local entry, after taking one count off when `decrement` is set: a shared
    // copy while counts remain, the array itself (and the entry removed) at 0. Null for an
    // unknown tag or a remote entry.
    HvArrayPtr takeArray(RefTag tag, bool decrement);
    // Takes min(n, count) off. At 0 the entry goes: a local array is destroyed, a remote one
    // sends its release to the registered exchange, if any.
    void releaseTag(RefTag tag, std::uint64_t n);
    // A release has arrived for `tag`: one count off a local entry; remote and unknown tags are
    // ignored, so late and repeated releases are harmless.
    void releaseServiceTag(RefTag tag);
    // Removes every entry of `tarn` (destroying local arrays) without sending anything.
    void clearTarn(contextmgr::TarnID const& tarn);
    // Removes all entries; local arrays are destroyed, or abandoned when `keepArrays` is set.
    // Registered exchanges stay.
    void clearTable(bool keepArrays);
    void registerExchange(contextmgr::TarnID const& tarn, std::string const& name);
    void releaseExchange(contextmgr::TarnID const& tarn);
    std::size_t countActive(bool localOnly) const;
    std::uint64_t countTotal(bool localOnly) const;

private:
    struct PairHash {
        std::size_t operator()(std::pair<RefTag, contextmgr::TarnID> const& k) const {
            return std::hash<RefTag>()(k.first) * 31u ^ std::hash<contextmgr::TarnID>()(k.second);
        }
    };
    typedef boost::shared_ptr<MatrixReference> EntryPtr;

    static RefTag newTag();
    // Unlinks `entry` from every map; its array, if any, is moved to `doomed`.
    void removeLocked(EntryPtr const& entry, std::vector<HvArrayPtr>& doomed);
    void sendReleaseLocked(RemoteRefInfo const& info);

    mutable boost::mutex lock_; // guards everything below
    std::unordered_map<RefTag, EntryPtr> refsByTag_;
    std::unordered_map<hvArray_tag const*, RefTag> tagsByArray_;
    std::unordered_map<std::pair<RefTag, contextmgr::TarnID>, RefTag, PairHash> tagsByRemote_;
    std::unordered_map<contextmgr::TarnID, std::string> exchangesByTarn_;
    boost::shared_ptr<foundation::msg_svc::exchange::ExchangeApi> exchange_;
    foundation::core::log::diagnostic_logger log_{"matrixref::MatrixRefTable"};
};

} // namespace matrixref
} // namespace quorl
