#pragma once
// What the processes at the other ends of this process's exchanges listen to, so that an event
// nobody there listens to is not sent (notifyIfWatched through a remote event manager).
//
// A process tells a peer the tags it has subscriptions for (detail::InterestMessage) before the
// first message it sends there, and again before a later message whenever that set has changed
// since; when a tag gains its first subscription it tells every peer it has told at once, so that
// a subscription made while a peer works for it hears of what follows. A remote manager asks the
// table of its peer: what a peer never told (an older peer, one that has not written yet) counts
// as listening to everything, and so does a peer that failed, until it tells again. Answers err
// towards "yes", like local ones: the tags are of the whole process, not one identity.
//
// Threads: everything here may be called from any thread. Listeners run on the thread whose
// subscription gained a tag, under the registry's lock (they must not subscribe).
#include <foundation/msg_svc/eventmgr/typeinformation.hpp>
#include <foundation/msg_svc/exchange/message.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

namespace foundation {
namespace msg_svc {
namespace eventmgr {
namespace detail {

typedef std::set<ustring> TagSet;

// ---- This process's side

// Changes whenever a tag gains its first subscription or loses its last one.
std::uint64_t interestVersion();
// The tags that have subscriptions now.
TagVector watchedTags();
// Called by the counts (a tag's count went from 0 to 1, or from 1 to 0).
void interestGained();
void interestLost();
// Calls `listener` whenever a tag gains its first subscription, until the result is destroyed.
std::shared_ptr<void> addInterestListener(std::function<void()> listener);

// ---- The peers' side

// What `peer` listens to; null if it has not said (or failed since).
std::shared_ptr<TagSet const> peerInterest(std::string const& peer);
void setPeerInterest(std::string const& peer, TagVector const& tags);
void forgetPeerInterest(std::string const& peer);

// Tells the receiving exchange's process what the sending one listens to.
class InterestMessage : public exchange::Message {
public:
    explicit InterestMessage(TagVector tags);
    ~InterestMessage() override;

    boost::shared_ptr<exchange::Reply const>
    deliver(exchange::Routing const& routing) const override;
    std::ostream& toString(std::ostream& os, int indent) const override;
    TagVector const& getTags() const { return tags_; }

protected:
    InterestMessage() = default;
    bool protectedEquals(exchange::Message const& other) const override;

private:
    ZN_SERIALIZABLE()
    TagVector tags_;
};

} // namespace detail
} // namespace eventmgr
} // namespace msg_svc
} // namespace foundation

ZN_SERIALIZATION_TRAITS(foundation::msg_svc::eventmgr::detail::InterestMessage, 1)
BOOST_CLASS_EXPORT_KEY2(foundation::msg_svc::eventmgr::detail::InterestMessage,
                        "foundation::msg_svc::eventmgr::detail::InterestMessage")
