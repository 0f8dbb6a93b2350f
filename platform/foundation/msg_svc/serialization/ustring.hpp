#pragma once
// The serialized form of ustring: converted to std::wstring and written as the archive's
// primitive wide string, so that in XML the text stands directly inside the field's element.
// Reading converts back. Class version 0, no class information, never tracked.
#include <fl/i18n/conversions.hpp>

#include <boost/serialization/level.hpp>
#include <boost/serialization/nvp.hpp>
#include <boost/serialization/split_free.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/tracking.hpp>

namespace boost {
namespace serialization {

template <class Archive>
void save(Archive& ar, std::basic_string<char16_t> const& text, unsigned int) {
    std::wstring const wide = fl::i18n::to_wstring(text);
    ar << boost::serialization::make_nvp(static_cast<char const*>(nullptr), wide);
}

template <class Archive> void load(Archive& ar, std::basic_string<char16_t>& text, unsigned int) {
    std::wstring wide;
    ar >> boost::serialization::make_nvp(static_cast<char const*>(nullptr), wide);
    text = fl::i18n::to_ustring(wide);
}

template <class Archive>
void serialize(Archive& ar, std::basic_string<char16_t>& text, unsigned int version) {
    split_free(ar, text, version);
}

} // namespace serialization
} // namespace boost

BOOST_CLASS_IMPLEMENTATION(std::basic_string<char16_t>, boost::serialization::object_serializable)
BOOST_CLASS_TRACKING(std::basic_string<char16_t>, boost::serialization::track_never)
