#pragma once
// BaseEvent: base class of every event. An event is immutable once published and is shared as
// boost::shared_ptr<BaseEvent const>; subscribers receive it by const reference on the event
// thread of the manager it was published on.
//
// Each event holds its type's TypeInformation (shared) and answers isKindOf for any name of its
// chain. Equality: same type information (type and user tags) and, through it, the fields the
// event type compares. Serialized: the user tags; the type comes from the export key.
#include <foundation/msg_svc/eventmgr/typeinformation.hpp>
#include <foundation/msg_svc/serialization/serializable.hpp>

#include <boost/serialization/export.hpp>

#include <ostream>

namespace foundation {
namespace msg_svc {
namespace eventmgr {

class BaseEvent {
public:
    typedef void EventBaseType;
    static ustring eventTypeName() { return u"foundation::msg_svc::eventmgr::BaseEvent"; }

    virtual ~BaseEvent();
    virtual BaseEvent* clone() const = 0;
    // Whether the event may cross to another exchange.
    virtual bool canBeSerialized() const;
    // The text form for logs: "EVENT <type name>" and a line end.
    virtual std::ostream& fillStream(std::ostream& os) const;
    virtual bool isVeldraClientsAllowed() const;

    bool operator==(BaseEvent const& other) const;
    bool operator!=(BaseEvent const& other) const { return !(*this == other); }
    bool isKindOf(ustring const& typeName) const;

    TypeInformation const& getTypeInformation() const { return *typeInfo_; }
    boost::shared_ptr<TypeInformation> const& getTypeInformationPtr() const { return typeInfo_; }
    // Adds tags to this event's type information (a copy); see TypeInformation::withTags.
    void addTags(TagIterator begin, TagIterator end);
    void addTag(ustring const& tag);

protected:
    explicit BaseEvent(boost::shared_ptr<TypeInformation> const& typeInfo);
    BaseEvent(BaseEvent const&) = default;
    BaseEvent& operator=(BaseEvent const&) = default;

private:
    ZN_SERIALIZABLE()
    boost::shared_ptr<TypeInformation> typeInfo_;
};

std::ostream& operator<<(std::ostream& os, BaseEvent const& event);

} // namespace eventmgr
} // namespace msg_svc
} // namespace foundation

ZN_SERIALIZATION_TRAITS(foundation::msg_svc::eventmgr::BaseEvent, 3)
BOOST_SERIALIZATION_ASSUME_ABSTRACT(foundation::msg_svc::eventmgr::BaseEvent)
BOOST_CLASS_EXPORT_KEY2(foundation::msg_svc::eventmgr::BaseEvent,
                        "foundation::msg_svc::eventmgr::BaseEvent")
