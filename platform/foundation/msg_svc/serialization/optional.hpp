#pragma once
// The serialized form of boost::optional<T> on this system's wires: "initialized" (bool); if it
// is true, "item_version" (the class version of T, written when the archive's library version is
// above 3), then "value". The optional itself has class version 0.
//
// Boost's own serializer writes class version 1 without "item_version"; its reader takes both
// forms, so archives written by either stay readable. Include this header instead of
// <boost/serialization/optional.hpp>, and declare the class version of each optional type that
// crosses a wire with ZN_OPTIONAL_WIRE_FORM(T) in T's header, at global scope, so that every
// translation unit sees the same form.
// Boost's optional serializer uses version<> without including its header.
#include <boost/serialization/version.hpp>

#include <boost/optional.hpp>
#include <boost/serialization/item_version_type.hpp>
#include <boost/serialization/library_version_type.hpp>
#include <boost/serialization/nvp.hpp>
#include <boost/serialization/optional.hpp>
#include <boost/serialization/split_free.hpp>

namespace boost {
namespace serialization {

template <class Archive, class T> struct free_saver<Archive, boost::optional<T>> {
    static void invoke(Archive& ar, boost::optional<T> const& t, unsigned int version) {
        bool const initialized = t.is_initialized();
        ar << boost::serialization::make_nvp("initialized", initialized);
        if (!initialized)
            return;
        if (version == 0 &&
            library_version_type(3) < library_version_type(ar.get_library_version())) {
            item_version_type const item_version(boost::serialization::version<T>::value);
            ar << BOOST_SERIALIZATION_NVP(item_version);
        }
        ar << boost::serialization::make_nvp("value", *t);
    }
};

} // namespace serialization
} // namespace boost

// Class version 0 for boost::optional<T>: the form with "item_version".
#define ZN_OPTIONAL_WIRE_FORM(T)                                                                   \
    namespace boost {                                                                              \
    namespace serialization {                                                                      \
    template <> struct version<boost::optional<T>> {                                               \
        typedef mpl::int_<0> type;                                                                 \
        typedef mpl::integral_c_tag tag;                                                           \
        BOOST_STATIC_CONSTANT(int, value = 0);                                                     \
    };                                                                                             \
    }                                                                                              \
    }
