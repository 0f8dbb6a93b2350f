#pragma once
// IIPStateEvent: a packet changed state (started, suspended, resumed, discarded, requeued,
// reactivated, completed). Abstract base of the seven DefaultIIPStateEvent types. Immutable once
// published; never carries user tags.
//
// canBeSerialized() is true only for the null id or a packet that itself crossed an exchange:
// the far side of an exchange knows nothing of a packet that never left this process.
#include <foundation/msg_svc/eventmgr/baseevent.hpp>
#include <foundation/msg_svc/exchange/idtype.hpp>

namespace cmddistributor {

class IIPStateEvent : public foundation::msg_svc::eventmgr::BaseEvent,
                      public foundation::msg_svc::eventmgr::NoUserEventTags {
public:
    typedef foundation::msg_svc::eventmgr::BaseEvent EventBaseType;
    static ustring eventTypeName() { return u"::cmddistributor::IIPStateEvent"; }

    ~IIPStateEvent() override;
    foundation::msg_svc::eventmgr::BaseEvent* clone() const override = 0;
    bool canBeSerialized() const override;
    // The base text, then "IIP_ID " and the id, and a line end.
    std::ostream& fillStream(std::ostream& os) const override;

    foundation::msg_svc::exchange::IDType const& getIdOfChangedIIP() const { return iipId_; }
    void setIIPWasSerialized(bool was) { iipWasSerialized_ = was; }
    bool getIIPWasSerialized() const { return iipWasSerialized_; }
    bool fieldsEqual(IIPStateEvent const& o) const { return iipId_ == o.iipId_; }

protected:
    IIPStateEvent(boost::shared_ptr<foundation::msg_svc::eventmgr::TypeInformation> const& info,
                  foundation::msg_svc::exchange::IDType const& id);
    IIPStateEvent(IIPStateEvent const&) = default;

private:
    ZN_SERIALIZABLE()
    foundation::msg_svc::exchange::IDType iipId_;
    bool iipWasSerialized_;
};

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::IIPStateEvent, 1)
BOOST_SERIALIZATION_ASSUME_ABSTRACT(cmddistributor::IIPStateEvent)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::IIPStateEvent, "cmddistributor::IIPStateEvent")
