#pragma once
// FuzzBlobMessage: a message of a few byte blocks, so that the seed corpus holds a frame whose
// blocks repeat (one sent, the other referring to it). Shared by the fuzz target and the program
// that writes its seeds.
#include <foundation/msg_svc/serialization/archives.hpp>

#include <foundation/msg_svc/exchange/message.hpp>
#include <foundation/msg_svc/exchange/reply.hpp>

#include <boost/serialization/base_object.hpp>
#include <boost/serialization/export.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/vector.hpp>

#include <string>
#include <vector>

class FuzzBlobMessage : public foundation::msg_svc::exchange::Message {
public:
    FuzzBlobMessage() = default;
    explicit FuzzBlobMessage(std::vector<std::string> b) : blobs(std::move(b)) {}
    boost::shared_ptr<foundation::msg_svc::exchange::Reply const>
    deliver(foundation::msg_svc::exchange::Routing const&) const override {
        return foundation::msg_svc::exchange::Reply::defaultReply();
    }
    std::vector<std::string> blobs;

private:
    friend class boost::serialization::access;
    template <class A> void serialize(A& ar, unsigned) {
        ar& boost::serialization::make_nvp(
            "message",
            boost::serialization::base_object<foundation::msg_svc::exchange::Message>(*this));
        ar& boost::serialization::make_nvp("blobs", blobs);
    }
};

BOOST_CLASS_EXPORT(FuzzBlobMessage)
