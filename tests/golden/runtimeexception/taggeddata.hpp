#pragma once
// TaggedData: additional data of a RuntimeException used by the golden archives and the tests
// that read them. One text field; equal when the tags are equal. Its export key is part of the
// golden archives. Each program that uses it writes BOOST_CLASS_EXPORT_IMPLEMENT once.
#include <quorl/cmddistributor/runtimeexception.hpp>

#include <boost/serialization/base_object.hpp>
#include <boost/serialization/string.hpp>

#include <string>

namespace quorl_golden {

class TaggedData : public cmddistributor::RuntimeException::AdditionalData {
public:
    TaggedData() = default;
    explicit TaggedData(std::string tag) : tag(std::move(tag)) {}

    bool isEqual(AdditionalData const& other) const override {
        return AdditionalData::isEqual(other) && static_cast<TaggedData const&>(other).tag == tag;
    }

    std::string tag;

private:
    friend class boost::serialization::access;
    template <class Archive> void serialize(Archive& ar, unsigned int) {
        ar& boost::serialization::make_nvp(
            "AdditionalData", boost::serialization::base_object<AdditionalData>(*this));
        ar& boost::serialization::make_nvp("tag", tag);
    }
};

} // namespace quorl_golden

BOOST_CLASS_EXPORT_KEY2(quorl_golden::TaggedData, "quorl_golden::TaggedData")
