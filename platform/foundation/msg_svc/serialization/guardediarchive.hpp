#pragma once
// GuardedIArchive: the binary input archive for bytes from another process. It reads what the
// binary archive writes, and refuses, before Boost.Serialization acts on them, the values with
// which hostile bytes would make Boost read or write out of bounds, confuse types, or allocate
// without limit:
//  - a class id that is neither the null pointer's nor one of the classes met so far (or the
//    next one);
//  - a reference back to an object loaded before (the wire forms never share objects, and a
//    reference could name an object of another type or the enclosing one);
//  - a string length or element count larger than the bytes left in the buffer;
//  - a bool byte other than 0 or 1;
//  - a class named for a pointer that is not a kind of the pointer's class (Boost would make the
//    object, fail to convert the pointer, and lose the object), where that class is known: the
//    outermost pointer's (expectPointerTo) and that of any pointer to a class with a loader;
//  - an archive of another library version than the ones this Boost writes.
// Each refusal is an archive_exception-free std::runtime_error naming the problem. What a failed
// load made is freed: the object of a pointer whose load threw, and the object of an inner pointer
// to an abstract class that Boost loaded and then could not convert (such inner pointers are read
// through smart-pointer helpers, whose raw pointer no object holds yet).
//
// Use it through PolymorphicGuardedIArchive (classes are instantiated for the polymorphic
// archive), over a GuardedIArchive::Buffer holding the bytes. One archive per thread; it reads
// the buffer it was given and keeps no global state.
#include <boost/archive/binary_iarchive_impl.hpp>
#include <boost/archive/detail/polymorphic_iarchive_route.hpp>
#include <boost/serialization/extended_type_info.hpp>

#include <cstdint>
#include <istream>
#include <set>
#include <streambuf>
#include <string>
#include <vector>

namespace foundation {
namespace msg_svc {
namespace serialization {

class GuardedIArchive
    : public boost::archive::binary_iarchive_impl<GuardedIArchive, char, std::char_traits<char>> {
public:
    // The bytes an archive reads, and how many of them are left.
    class Buffer : public std::streambuf {
    public:
        Buffer(char const* data, std::size_t size);
        std::size_t left() const { return static_cast<std::size_t>(egptr() - gptr()); }
    };

    explicit GuardedIArchive(std::istream& is, unsigned int flags = 0);

    // The class the outermost pointer read must be a kind of.
    void expectPointerTo(boost::serialization::extended_type_info const& type) {
        expectedOuter_ = &type;
    }

    typedef boost::archive::binary_iarchive_impl<GuardedIArchive, char, std::char_traits<char>>
        Base;
    friend class boost::archive::detail::interface_iarchive<GuardedIArchive>;
    friend class boost::archive::detail::common_iarchive<GuardedIArchive>;
    friend class boost::archive::basic_binary_iarchive<GuardedIArchive>;
    friend class boost::archive::load_access;

    using Base::load;
    void load(bool& t);
    void load(std::string& s);
    void load(std::wstring& s);
    void load(unsigned long& t);
    void load(unsigned int& t);
    void load(unsigned long long& t);

    void load_start(char const* name);
    void load_end(char const* name);

    using Base::load_override;
    void load_override(boost::archive::class_id_type& t);
    void load_override(boost::archive::class_id_reference_type& t);
    void load_override(boost::archive::object_id_type& t);
    void load_override(boost::archive::class_name_type& t);

    // Boost registers a class in the archive on these three roads; the archive keeps the same
    // set, so that it knows which class ids exist.
    typedef boost::archive::detail::basic_pointer_iserializer const* (*Finder)(
        boost::serialization::extended_type_info const&);
    void load_object(void* t, boost::archive::detail::basic_iserializer const& bis);
    boost::archive::detail::basic_pointer_iserializer const*
    load_pointer(void*& t, boost::archive::detail::basic_pointer_iserializer const* bpis,
                 Finder finder);
    void register_basic_serializer(boost::archive::detail::basic_iserializer const& bis);

private:
    template <class T> void checkCount(T value);
    std::size_t left() const;

    struct PointerLoad {
        boost::archive::detail::basic_pointer_iserializer const* bpis;
        Finder finder;
        bool newClassNamed; // a new class id was read; its name comes next
        bool classChecked;  // the class named was checked against the pointer's
        // The object Boost made for the pointer, once its load began: destroyed if the load
        // fails, since Boost would leave it (and all it holds) behind.
        void* object;
        boost::archive::detail::basic_iserializer const* objectType;
    };

    // Refuses a class for the pointer being loaded that the pointer cannot hold.
    void checkClass(PointerLoad& load, boost::serialization::extended_type_info const& type);

    // An object loaded for an inner pointer whose class the archive could not check: until the
    // next object or pointer is read, Boost may still fail to convert the pointer and drop it.
    struct Unclaimed {
        void* object = nullptr;
        boost::archive::detail::basic_iserializer const* type = nullptr;
    };

    Buffer* buffer_;
    boost::serialization::extended_type_info const* expectedOuter_ = nullptr;
    Unclaimed unclaimed_;
    // Adds a class Boost registers; false if it was registered already.
    bool known(boost::archive::detail::basic_iserializer const* bis);

    std::set<void const*> classes_; // the serializers Boost has registered, as it does
    std::vector<boost::archive::detail::basic_iserializer const*> byId_; // in order: class ids
    std::vector<PointerLoad> pointers_; // the pointer loads under way, innermost last
    std::uint32_t objectsMet_ = 0;      // tracked objects loaded so far
    bool readingCount_ = false;         // the value being read is an element count
};

typedef boost::archive::detail::polymorphic_iarchive_route<GuardedIArchive>
    PolymorphicGuardedIArchive;

} // namespace serialization
} // namespace msg_svc
} // namespace foundation
