#pragma once
// IIP: an input packet, the unit of work a distributor hands to an interpreter. Travels by
// shared pointer in one process and through an archive across processes. The sink traits are
// computed late, from the live sinks, on first demand (or when the packet is saved).
//
// IIP::EventMgrBypass lets an interpreter on the same exchange hand completion and discard
// straight to the distributor. It is shared by every holder of the packet; the distributor sets
// it before the packet is submitted, and nothing else writes it.
//
// Threads: the traits are guarded by a mutex; everything else is fixed after construction or
// loading. Loading a packet whose type cannot be serialized throws
// boost::archive::archive_exception (unregistered_cast).
#include <foundation/core/config/boostthreadversion.hpp>
#include <quorl/cmddistributor/defaultiipstateevent.hpp>
#include <quorl/cmddistributor/iqmstreamid.hpp>
#include <quorl/io/sinktraits.hpp>
#include <quorl/io/veldrasink.hpp>

#include <foundation/msg_svc/serialization/serializable.hpp>

#include <boost/function.hpp>
#include <boost/optional.hpp>
#include <boost/serialization/export.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <string>

namespace cmddistributor {

class IIPCompletedEvent;

class IIP {
public:
    class EventMgrBypass {
    public:
        typedef boost::function1<void, IIPCompletedEvent const&> CompletedHandler;
        typedef boost::function1<void, IIPDiscardedEvent const&> DiscardedHandler;

        EventMgrBypass() = default;
        EventMgrBypass(CompletedHandler completed, DiscardedHandler discarded)
            : completed_(std::move(completed)), discarded_(std::move(discarded)) {}

        explicit operator bool() const { return !completed_.empty() || !discarded_.empty(); }
        void operator()(IIPCompletedEvent const& event) const {
            if (completed_)
                completed_(event);
        }
        void operator()(IIPDiscardedEvent const& event) const {
            if (discarded_)
                discarded_(event);
        }

    private:
        CompletedHandler completed_;
        DiscardedHandler discarded_;
    };

    IIP(std::string const& pluginType, IqmStreamID streamID,
        boost::shared_ptr<quorl::io::VeldraSink> const& out,
        boost::shared_ptr<quorl::io::VeldraSink> const& err);
    IIP(std::string const& pluginType, IqmStreamID streamID, quorl::io::SinkTraits const& out,
        quorl::io::SinkTraits const& err);
    IIP(IIP const&) = delete;
    IIP& operator=(IIP const&) = delete;
    virtual ~IIP();

    // The text form for logs: plug-in type, stream, and both traits ("--" until computed).
    virtual void write(std::ostream& out) const;
    virtual bool canBeSerialized() const;

    IqmStreamID const& getStreamID() const { return streamID_; }
    std::string getPluginType() const { return pluginType_; }
    quorl::io::SinkTraits const& getOutTraits() const;
    quorl::io::SinkTraits const& getErrTraits() const;
    boost::shared_ptr<quorl::io::VeldraSink> const& getOutputSink() const { return outSink_; }
    boost::shared_ptr<quorl::io::VeldraSink> const& getErrorSink() const { return errSink_; }
    boost::shared_ptr<EventMgrBypass> const& getEventMgrBypass() const { return eventMgrBypass_; }
    void setEventMgrBypass(EventMgrBypass const& bypass) const { *eventMgrBypass_ = bypass; }
    bool wasSerialized() const { return wasSerializedFlag_; }
    std::string toString() const;

protected:
    IIP();

private:
    void assertIfCannotBeSerialized() const {}
    quorl::io::SinkTraits const&
    lateTraits(boost::optional<quorl::io::SinkTraits>& traits,
               boost::shared_ptr<quorl::io::VeldraSink> const& sink) const;

    ZN_SERIALIZABLE()
    IqmStreamID streamID_;
    std::string pluginType_;
    mutable boost::optional<quorl::io::SinkTraits> outTraits_;
    mutable boost::optional<quorl::io::SinkTraits> errTraits_;
    boost::shared_ptr<quorl::io::VeldraSink> outSink_;
    boost::shared_ptr<quorl::io::VeldraSink> errSink_;
    boost::shared_ptr<EventMgrBypass> eventMgrBypass_;
    mutable boost::mutex traitsMutex_; // guards outTraits_ and errTraits_
    bool wasSerializedFlag_;
};

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::IIP, 1)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::IIP, "cmddistributor::IIP")
