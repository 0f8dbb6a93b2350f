// Writes archives of the old forms of the state and completion events with classes laid out as
// those versions were, registered under the same export keys: IIPStateEvent version 0 (no id)
// and IIPCompletedEvent version 1 (a status instead of the exception).
#include <tests/golden/goldenwriter.hpp>

#include <boost/serialization/base_object.hpp>
#include <boost/serialization/export.hpp>
#include <boost/serialization/nvp.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/vector.hpp>

#include <iostream>
#include <string>
#include <vector>

using boost::serialization::base_object;
using boost::serialization::make_nvp;

namespace old {

struct IDType {
    int origin = 0;
    long long serial = 0;
    template <class A> void serialize(A& ar, unsigned) {
        ar& make_nvp("origin", origin);
        ar& make_nvp("serial", serial);
    }
};

struct BaseEvent {
    virtual ~BaseEvent() = default;
    virtual void clone() const = 0; // abstract, as the real base is
    std::vector<std::wstring> userTags;
    template <class A> void serialize(A& ar, unsigned) { ar& make_nvp("userTags", userTags); }
};

// IIPStateEvent at version 0: the base only.
struct StateEventV0 : BaseEvent {
    void clone() const override {}
    template <class A> void serialize(A& ar, unsigned) {
        ar& make_nvp("BaseEvent", base_object<BaseEvent>(*this));
    }
};

struct DiscardedOnV0 : StateEventV0 {
    template <class A> void serialize(A& ar, unsigned) {
        ar& make_nvp("IIPEvent", base_object<StateEventV0>(*this));
    }
};

struct StateEventV1 : BaseEvent {
    void clone() const override {}
    IDType id;
    template <class A> void serialize(A& ar, unsigned) {
        ar& make_nvp("BaseEvent", base_object<BaseEvent>(*this));
        ar& make_nvp("IIP", id);
    }
};

struct CompletedBase : StateEventV1 {
    template <class A> void serialize(A& ar, unsigned) {
        ar& make_nvp("IIPEvent", base_object<StateEventV1>(*this));
    }
};

// IIPCompletedEvent at version 1: a status instead of the exception.
struct CompletedV1 : CompletedBase {
    int status = 0;
    template <class A> void serialize(A& ar, unsigned) {
        ar& make_nvp("IIPEvent", base_object<CompletedBase>(*this));
        ar& make_nvp("status", status);
    }
};

} // namespace old

BOOST_CLASS_VERSION(old::IDType, 1)
BOOST_CLASS_VERSION(old::BaseEvent, 3)
BOOST_CLASS_VERSION(old::StateEventV0, 0)
BOOST_CLASS_VERSION(old::DiscardedOnV0, 1)
BOOST_CLASS_VERSION(old::StateEventV1, 1)
BOOST_CLASS_VERSION(old::CompletedBase, 1)
BOOST_CLASS_VERSION(old::CompletedV1, 1)
BOOST_SERIALIZATION_ASSUME_ABSTRACT(old::BaseEvent)
BOOST_CLASS_EXPORT_GUID(old::DiscardedOnV0, "cmddistributor::IIPDiscardedEvent")
BOOST_CLASS_EXPORT_GUID(old::CompletedBase, "cmddistributor::BaseCompletedEventType")
BOOST_CLASS_EXPORT_GUID(old::CompletedV1, "cmddistributor::IIPCompletedEvent")

namespace {
template <class T>
void writeBoth(std::string const& dir, std::string const& stem, T const& object) {
    quorl_golden::writeArchives(dir + "/" + stem, "object",
                                static_cast<old::BaseEvent const*>(&object), false);
}
} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: golden_stateevents_generate <golden folder>\n";
        return 2;
    }
    std::string const dir = argv[1];
    writeBoth(dir, "iipdiscardedevent.statev0", old::DiscardedOnV0());
    old::CompletedV1 ok;
    ok.id = old::IDType{77, 5};
    writeBoth(dir, "iipcompletedevent.v1.status0", ok);
    old::CompletedV1 failed;
    failed.id = old::IDType{77, 6};
    failed.status = 2;
    writeBoth(dir, "iipcompletedevent.v1.status2", failed);
    return 0;
}
