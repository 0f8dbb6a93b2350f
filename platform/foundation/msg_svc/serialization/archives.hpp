#pragma once
// The eight archive types every serialized class works with, and the macros that instantiate a
// class's serializeExplicit for all of them in the class's own source file.
//
// Include this header, then the class header, then write
//   ZN_SERIALIZE_EXPLICIT(Class)                 // the eight instantiations
//   BOOST_CLASS_EXPORT_IMPLEMENT(Class)          // for polymorphic classes with a key
// The archive headers must come before BOOST_CLASS_EXPORT_IMPLEMENT so that the export
// registers the pointer serializers of all eight archive types.
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/archive/polymorphic_iarchive.hpp>
#include <boost/archive/polymorphic_oarchive.hpp>
#include <boost/archive/text_iarchive.hpp>
#include <boost/archive/text_oarchive.hpp>
#include <boost/archive/xml_iarchive.hpp>
#include <boost/archive/xml_oarchive.hpp>
#include <boost/serialization/export.hpp>

#define ZN_SERIALIZE_EXPLICIT_ONE(Class, Archive)                                                  \
    template void Class::serializeExplicit<boost::archive::Archive>(boost::archive::Archive&,      \
                                                                    unsigned int);

#define ZN_SERIALIZE_EXPLICIT(Class)                                                               \
    ZN_SERIALIZE_EXPLICIT_ONE(Class, binary_oarchive)                                              \
    ZN_SERIALIZE_EXPLICIT_ONE(Class, binary_iarchive)                                              \
    ZN_SERIALIZE_EXPLICIT_ONE(Class, text_oarchive)                                                \
    ZN_SERIALIZE_EXPLICIT_ONE(Class, text_iarchive)                                                \
    ZN_SERIALIZE_EXPLICIT_ONE(Class, xml_oarchive)                                                 \
    ZN_SERIALIZE_EXPLICIT_ONE(Class, xml_iarchive)                                                 \
    ZN_SERIALIZE_EXPLICIT_ONE(Class, polymorphic_oarchive)                                         \
    ZN_SERIALIZE_EXPLICIT_ONE(Class, polymorphic_iarchive)
