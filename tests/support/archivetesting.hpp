#pragma once
// Test helpers for wire forms: write an object in each of the eight archive types and read it
// back, and list the element names of an XML archive.
#include <foundation/msg_svc/serialization/archives.hpp>

#include <boost/archive/polymorphic_binary_iarchive.hpp>
#include <boost/archive/polymorphic_binary_oarchive.hpp>
#include <boost/archive/polymorphic_text_iarchive.hpp>
#include <boost/archive/polymorphic_text_oarchive.hpp>
#include <boost/archive/polymorphic_xml_iarchive.hpp>
#include <boost/archive/polymorphic_xml_oarchive.hpp>
#include <boost/serialization/nvp.hpp>
#include <boost/shared_ptr.hpp>

#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace quorl_testing {

// The archive families, each as a (write, read) pair over a string.
enum class Family { Binary, Text, Xml, PolyBinary, PolyText, PolyXml };

inline std::vector<Family> allFamilies() {
    return {Family::Binary,     Family::Text,     Family::Xml,
            Family::PolyBinary, Family::PolyText, Family::PolyXml};
}

inline char const* familyName(Family f) {
    switch (f) {
    case Family::Binary:
        return "binary";
    case Family::Text:
        return "text";
    case Family::Xml:
        return "xml";
    case Family::PolyBinary:
        return "polymorphic binary";
    case Family::PolyText:
        return "polymorphic text";
    case Family::PolyXml:
        return "polymorphic xml";
    }
    return "?";
}

template <class T> std::string write(Family f, T const& value, char const* name = "object") {
    std::ostringstream os;
    auto nvp = boost::serialization::make_nvp(name, value);
    switch (f) {
    case Family::Binary: {
        boost::archive::binary_oarchive a(os);
        a << nvp;
        break;
    }
    case Family::Text: {
        boost::archive::text_oarchive a(os);
        a << nvp;
        break;
    }
    case Family::Xml: {
        boost::archive::xml_oarchive a(os);
        a << nvp;
        break;
    }
    case Family::PolyBinary: {
        boost::archive::polymorphic_binary_oarchive a(os);
        static_cast<boost::archive::polymorphic_oarchive&>(a) << nvp;
        break;
    }
    case Family::PolyText: {
        boost::archive::polymorphic_text_oarchive a(os);
        static_cast<boost::archive::polymorphic_oarchive&>(a) << nvp;
        break;
    }
    case Family::PolyXml: {
        boost::archive::polymorphic_xml_oarchive a(os);
        static_cast<boost::archive::polymorphic_oarchive&>(a) << nvp;
        break;
    }
    }
    return os.str();
}

template <class T>
void read(Family f, std::string const& bytes, T& value, char const* name = "object") {
    std::istringstream is(bytes);
#define nvp boost::serialization::make_nvp(name, value)
    switch (f) {
    case Family::Binary: {
        boost::archive::binary_iarchive a(is);
        a >> nvp;
        break;
    }
    case Family::Text: {
        boost::archive::text_iarchive a(is);
        a >> nvp;
        break;
    }
    case Family::Xml: {
        boost::archive::xml_iarchive a(is);
        a >> nvp;
        break;
    }
    case Family::PolyBinary: {
        boost::archive::polymorphic_binary_iarchive a(is);
        static_cast<boost::archive::polymorphic_iarchive&>(a) >> nvp;
        break;
    }
    case Family::PolyText: {
        boost::archive::polymorphic_text_iarchive a(is);
        static_cast<boost::archive::polymorphic_iarchive&>(a) >> nvp;
        break;
    }
    case Family::PolyXml: {
        boost::archive::polymorphic_xml_iarchive a(is);
        static_cast<boost::archive::polymorphic_iarchive&>(a) >> nvp;
        break;
    }
    }
#undef nvp
}

// Writes `value` through a pointer to its base class Base and reads back a new object of the
// type the archive names, as a T (null when it is not one).
template <class Base, class T> boost::shared_ptr<T> roundTripThroughBase(Family f, T const& value) {
    Base const* p = &value;
    Base* back = nullptr;
    read(f, write(f, p), back);
    return boost::dynamic_pointer_cast<T>(boost::shared_ptr<Base>(back));
}

// The names of the XML elements in document order, without the archive's own root element.
inline std::vector<std::string> xmlElementNames(std::string const& xml) {
    std::vector<std::string> names;
    std::regex open("<([A-Za-z_][A-Za-z0-9_.:-]*)[ >/]");
    for (auto it = std::sregex_iterator(xml.begin(), xml.end(), open); it != std::sregex_iterator();
         ++it) {
        std::string n = (*it)[1];
        if (n != "boost_serialization")
            names.push_back(n);
    }
    return names;
}

} // namespace quorl_testing
