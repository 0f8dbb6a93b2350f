#pragma once
// FEvalCompletedEvent: the completion of a function call. Beside the outcome of its base it
// carries the results in one of four forms:
//   0  boost::any: the client's own form, in one process (empty for a call without results);
//   1  byte vectors made by hvSerialize;
//   2  EDI arrays (foundation::extdata::Array) in a heap vector;
//   3  ResultsAlreadyMoved: the results were taken out (takeResults), or the event crossed a
//      process boundary from form 0, whose value never travels.
// On the wire, forms 1 and 2 are written as bytes and as the EDI payload list; 0 and 3 as
// ResultsAlreadyMoved.
//
// Ownership: the event owns its results until they are taken. Threads: a clone, the text form
// and takeResults hold resultsMutex; canBeSerialized and saving read the form without it, so an
// event being saved must not be read elsewhere at the same time. Errors: saving and loading
// raise what the payload form and the archive raise (an unknown "which" is Boost's
// archive_exception); takeResults never throws.
#include <quorl/cmddistributor/edidatawrapper.hpp>
#include <quorl/cmddistributor/fevalarrays.hpp>
#include <quorl/cmddistributor/iipcompletedevent.hpp>

#include <boost/any.hpp>
#include <boost/thread/lock_types.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/variant.hpp>

#include <cstdint>
#include <memory>
#include <vector>

namespace cmddistributor {

class FEvalCompletedEvent : public IIPCompletedEvent {
public:
    typedef IIPCompletedEvent EventBaseType;
    static ustring eventTypeName() { return u"::cmddistributor::FEvalCompletedEvent"; }

    struct ResultsAlreadyMoved {
        template <class Archive> void serialize(Archive&, unsigned int) {}
    };
    typedef std::vector<std::vector<std::uint8_t>> Bytes;
    typedef std::unique_ptr<std::vector<foundation::extdata::Array>, DataArraysDeleter> DataArrays;
    typedef boost::variant<boost::any, Bytes, DataArrays, ResultsAlreadyMoved> Results;
    enum ResultsForm { InMemory = 0, SerializedBytes = 1, EDIArrays = 2, AlreadyMoved = 3 };

    FEvalCompletedEvent(const foundation::msg_svc::exchange::IDType& id,
                        std::vector<foundation::extdata::Array>&& arrays);
    FEvalCompletedEvent(const foundation::msg_svc::exchange::IDType& id, Bytes bytes);
    FEvalCompletedEvent(const foundation::msg_svc::exchange::IDType& id, DataArrays&& arrays);
    FEvalCompletedEvent(const foundation::msg_svc::exchange::IDType& id, boost::any&& results);
    ~FEvalCompletedEvent() override;

    foundation::msg_svc::eventmgr::BaseEvent* clone() const override;
    bool canBeSerialized() const override;
    // The state event's text, "EXECUTION_STATUS " and the status, "typeid: " and the readable
    // name of the results' type, each line ended.
    std::ostream& fillStream(std::ostream& os) const override;

    ResultsForm getResultsForm() const;
    // Moves the results out, leaving ResultsAlreadyMoved; takes resultsMutex.
    Results takeResults() const;

private:
    FEvalCompletedEvent();
    FEvalCompletedEvent(const FEvalCompletedEvent& other);

    typedef boost::variant<Bytes, quorl::cmddistributor::EDIDataWrapper, ResultsAlreadyMoved>
        WireResults;

    ZN_SERIALIZABLE()
    mutable Results results_; // guarded by resultsMutex_ for clones, text and takes
    mutable boost::mutex resultsMutex_;
};

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::FEvalCompletedEvent, 1)
ZN_SERIALIZATION_TRAITS(cmddistributor::FEvalCompletedEvent::ResultsAlreadyMoved, 0)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::FEvalCompletedEvent, "cmddistributor::FEvalCompletedEvent")
