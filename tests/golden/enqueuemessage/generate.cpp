// Writes an IIPEnqueueMessage archive of version 2 (an "isMtFEval" flag, no id, no future flag,
// no dequeue mode) with classes laid out as that version was, under the same export key. The
// packet is null.
#include <tests/golden/goldenwriter.hpp>

#include <boost/serialization/base_object.hpp>
#include <boost/serialization/export.hpp>
#include <boost/serialization/nvp.hpp>
#include <boost/serialization/optional.hpp>

#include <iostream>
#include <string>

using boost::serialization::base_object;
using boost::serialization::make_nvp;

namespace old {

struct Message {
    virtual ~Message() = default;
    template <class A> void serialize(A&, unsigned) {}
};

struct IIP {
    virtual ~IIP() = default;
    template <class A> void serialize(A&, unsigned) {}
};

struct TarnID {
    unsigned long long value = 0;
    template <class A> void serialize(A& ar, unsigned) { ar& make_nvp("TarnID", value); }
};

template <int Version> struct Enqueue : Message {
    int fenn = 0;
    boost::optional<TarnID> tarn;
    bool hasFuture = false;
    int dequeueMode = 0;
    template <class A> void serialize(A& ar, unsigned) {
        ar& make_nvp("message", base_object<Message>(*this));
        ar& make_nvp("fennid", fenn);
        IIP* none = nullptr;
        ar& make_nvp("iip", none);
        ar& make_nvp("tarnid", tarn);
        if (Version >= 4) {
            ar& make_nvp("hasFuture", hasFuture);
        } else {
            bool isMtFEval = true;
            ar& make_nvp("isMtFEval", isMtFEval);
        }
        if (Version >= 3)
            ar& make_nvp("dequeueMode", dequeueMode);
    }
};

} // namespace old

BOOST_CLASS_VERSION(old::Message, 1)
BOOST_CLASS_VERSION(old::IIP, 1)
BOOST_CLASS_VERSION(old::TarnID, 1)
BOOST_CLASS_VERSION(old::Enqueue<2>, 2)
BOOST_CLASS_EXPORT_GUID(old::Enqueue<2>, "cmddistributor::IIPEnqueueMessage")

namespace {
template <class T>
void writeBoth(std::string const& dir, std::string const& stem, T const& object) {
    quorl_golden::writeArchives(dir + "/" + stem, "object",
                                static_cast<old::Message const*>(&object), false);
}
} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: golden_enqueuemessage_generate <golden folder>\n";
        return 2;
    }
    old::Enqueue<2> m;
    m.fenn = 7;
    m.tarn = old::TarnID{11};
    writeBoth(argv[1], "iipenqueuemessage.v2", m);
    return 0;
}
