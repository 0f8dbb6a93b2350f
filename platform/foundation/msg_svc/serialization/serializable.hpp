#pragma once
// Declarations a serialized class needs in its header: the forwarding serialize hook, the
// declaration of serializeExplicit (defined and instantiated in the class's source file), and
// the traits every class of the system has (object_class_info, track_selectively).
//
// Inside the class:      ZN_SERIALIZABLE()
// After the class:       ZN_SERIALIZATION_TRAITS(Class, version)
// For a polymorphic class with an export key, also BOOST_CLASS_EXPORT_KEY2(Class, "key").
#include <boost/serialization/access.hpp>
#include <boost/serialization/level.hpp>
#include <boost/serialization/nvp.hpp>
#include <boost/serialization/tracking.hpp>
#include <boost/serialization/version.hpp>

#define ZN_SERIALIZABLE()                                                                          \
    friend class boost::serialization::access;                                                     \
    template <class Archive> void serialize(Archive& ar, unsigned int version) {                   \
        serializeExplicit(ar, version);                                                            \
    }                                                                                              \
    template <class Archive> void serializeExplicit(Archive& ar, unsigned int version);

#define ZN_SERIALIZATION_TRAITS(Class, Version)                                                    \
    BOOST_CLASS_VERSION(Class, Version)                                                            \
    BOOST_CLASS_IMPLEMENTATION(Class, boost::serialization::object_class_info)                     \
    BOOST_CLASS_TRACKING(Class, boost::serialization::track_selectively)
