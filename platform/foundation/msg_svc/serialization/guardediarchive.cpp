#include <foundation/msg_svc/serialization/guardediarchive.hpp>

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/detail/basic_iserializer.hpp>
#include <boost/archive/detail/basic_pointer_iserializer.hpp>
#include <boost/archive/impl/archive_serializer_map.ipp>
#include <boost/archive/impl/basic_binary_iarchive.ipp>
#include <boost/archive/impl/basic_binary_iprimitive.ipp>
#include <boost/serialization/extended_type_info.hpp>
#include <boost/serialization/void_cast.hpp>

#include <cstddef>
#include <exception>

#include <cstring>
#include <stdexcept>

namespace foundation {
namespace msg_svc {
namespace serialization {

namespace {
// Library versions of the binary archives this Boost writes and reads unchanged.
constexpr unsigned kOldestLibraryVersion = 14;

[[noreturn]] void refuse(std::string const& what) {
    throw std::runtime_error("refused archive: " + what);
}

// Whether a pointer to `derived` converts to one to `base`, as Boost will try after the load.
bool isKindOf(boost::serialization::extended_type_info const& derived,
              boost::serialization::extended_type_info const& base) {
    if (&derived == &base)
        return true;
    // The conversion only adds offsets: any address inside a buffer answers.
    alignas(std::max_align_t) static char const probe[256] = {};
    return boost::serialization::void_upcast(derived, base, probe + 128) != nullptr;
}
bool isUnconvertedPointer(std::exception_ptr const& e) {
    try {
        std::rethrow_exception(e);
    } catch (boost::archive::archive_exception const& x) {
        return x.code == boost::archive::archive_exception::unregistered_class;
    } catch (...) {
        return false;
    }
}
} // namespace

GuardedIArchive::Buffer::Buffer(char const* data, std::size_t size) {
    char* p = const_cast<char*>(data); // read only: no put area, no putback
    setg(p, p, p + size);
}

GuardedIArchive::GuardedIArchive(std::istream& is, unsigned int flags)
    : Base(is, flags | boost::archive::no_header), buffer_(dynamic_cast<Buffer*>(is.rdbuf())) {
    if (!buffer_)
        throw std::invalid_argument("a guarded archive reads a GuardedIArchive::Buffer");
    if (!(flags & boost::archive::no_header)) {
        // Boost reads the header's version byte by byte without checking for the end (a debug
        // build asserts on it): the signature and version take 32 bytes.
        if (buffer_->left() < 32)
            refuse("a truncated header");
        init(flags);
        auto const version = static_cast<unsigned>(get_library_version());
        if (version < kOldestLibraryVersion ||
            version > static_cast<unsigned>(boost::archive::BOOST_ARCHIVE_VERSION()))
            refuse("library version " + std::to_string(version));
    }
}

std::size_t GuardedIArchive::left() const {
    return buffer_->left();
}

template <class T> void GuardedIArchive::checkCount(T value) {
    if (static_cast<unsigned long long>(value) > left())
        refuse("a count of " + std::to_string(value) + " with " + std::to_string(left()) +
               " bytes left");
}

void GuardedIArchive::load(bool& t) {
    unsigned char byte = 0;
    load_binary(&byte, 1);
    if (byte > 1)
        refuse("a bool byte of " + std::to_string(byte));
    t = byte == 1;
}

void GuardedIArchive::load(std::string& s) {
    std::size_t length = 0;
    Base::load(length);
    checkCount(length);
    s.resize(length);
    if (length)
        load_binary(&s[0], length);
}

void GuardedIArchive::load(std::wstring& s) {
    std::size_t length = 0;
    Base::load(length);
    if (length > left() / sizeof(wchar_t))
        refuse("a wide string of " + std::to_string(length) + " characters with " +
               std::to_string(left()) + " bytes left");
    s.resize(length);
    if (length)
        load_binary(&s[0], length * sizeof(wchar_t));
}

void GuardedIArchive::load(unsigned long& t) {
    Base::load(t);
    if (readingCount_)
        checkCount(t);
}

void GuardedIArchive::load(unsigned int& t) {
    Base::load(t);
    if (readingCount_)
        checkCount(t);
}

void GuardedIArchive::load(unsigned long long& t) {
    Base::load(t);
    if (readingCount_)
        checkCount(t);
}

void GuardedIArchive::load_start(char const* name) {
    readingCount_ = name && std::strcmp(name, "count") == 0;
}

void GuardedIArchive::load_end(char const*) {
    readingCount_ = false;
}

void GuardedIArchive::load_override(boost::archive::class_id_type& t) {
    Base::load_override(t);
    int const id = t;
    int const count = static_cast<int>(classes_.size());
    // -1 is the null pointer; an id up to the classes registered so far names one of them or
    // the next.
    if (id < -1 || id > count)
        refuse("class id " + std::to_string(id) + " with " + std::to_string(count) +
               " classes known");
    if (pointers_.empty() || id == -1)
        return;
    if (id < count) {
        // A class met before must be one that can be loaded through a pointer.
        if (!byId_[static_cast<std::size_t>(id)]->get_bpis_ptr())
            refuse("class id " + std::to_string(id) + " names a class never sent by pointer");
        checkClass(pointers_.back(), byId_[static_cast<std::size_t>(id)]->get_eti());
        return;
    }
    // A new class for the pointer being loaded: Boost registers it now, by its name if the
    // pointer is polymorphic or abstract, else as the pointer's own class.
    PointerLoad& load = pointers_.back();
    if (!load.bpis || load.bpis->get_basic_serializer().is_polymorphic())
        load.newClassNamed = true;
    else if (!known(&load.bpis->get_basic_serializer()))
        refuse("class id " + std::to_string(id) + " given to a class that has one");
    else
        load.classChecked = true; // the pointer's own class
}

void GuardedIArchive::checkClass(PointerLoad& load,
                                 boost::serialization::extended_type_info const& type) {
    // The pointer's own class, where known: the outermost one's, or that of its loader.
    auto const* expected = pointers_.size() == 1 && expectedOuter_ ? expectedOuter_
                           : load.bpis                             ? &load.bpis->get_eti()
                                                                   : nullptr;
    if (!expected)
        return;
    if (!isKindOf(type, *expected))
        refuse(std::string("class '") + (type.get_key() ? type.get_key() : "?") +
               "' is not a kind of '" + (expected->get_key() ? expected->get_key() : "?") + "'");
    load.classChecked = true;
}

bool GuardedIArchive::known(boost::archive::detail::basic_iserializer const* bis) {
    if (!classes_.insert(bis).second)
        return false;
    byId_.push_back(bis);
    return true;
}

void GuardedIArchive::load_override(boost::archive::class_id_reference_type& t) {
    load_override(static_cast<boost::archive::class_id_type&>(t));
}

void GuardedIArchive::load_override(boost::archive::class_name_type& t) {
    Base::load_override(t);
    if (pointers_.empty() || !pointers_.back().newClassNamed)
        return;
    PointerLoad& load = pointers_.back();
    load.newClassNamed = false;
    char const* key = t;
    auto const* type = boost::serialization::extended_type_info::find(key);
    if (!type)
        return; // Boost refuses an unknown class itself
    auto const* bpis = load.finder(*type);
    if (!bpis) // Boost would go on without a loader for it
        refuse("class '" + std::string(key) + "' cannot be loaded through a pointer");
    checkClass(load, *type);
    if (!known(&bpis->get_basic_serializer()))
        refuse("class '" + std::string(key) + "' sent as new but met before");
}

void GuardedIArchive::load_override(boost::archive::object_id_type& t) {
    Base::load_override(t);
    std::uint32_t const id = t;
    if (id != objectsMet_)
        refuse("object id " + std::to_string(id) + " where object " + std::to_string(objectsMet_) +
               " was due (references to loaded objects are not accepted)");
    ++objectsMet_;
}

void GuardedIArchive::load_object(void* t, boost::archive::detail::basic_iserializer const& bis) {
    unclaimed_ = Unclaimed(); // the last pointer read was converted: Boost goes on
    // The first object loaded within a pointer load is the object made for that pointer.
    if (!pointers_.empty() && !pointers_.back().object) {
        pointers_.back().object = t;
        pointers_.back().objectType = &bis;
    }
    known(&bis);
    Base::load_object(t, bis);
}

boost::archive::detail::basic_pointer_iserializer const* GuardedIArchive::load_pointer(
    void*& t, boost::archive::detail::basic_pointer_iserializer const* bpis, Finder finder) {
    unclaimed_ = Unclaimed();
    pointers_.push_back(PointerLoad{bpis, finder, false, false, nullptr, nullptr});
    try {
        auto const* loaded = Base::load_pointer(t, bpis, finder);
        PointerLoad const done = pointers_.back();
        pointers_.pop_back();
        if (!pointers_.empty() && !done.classChecked && done.object && t == done.object)
            unclaimed_ = Unclaimed{done.object, done.objectType};
        return loaded;
    } catch (...) {
        // Boost converts the pointer after its load and throws unregistered_class if it cannot;
        // the object it made is then in nobody's hands.
        Unclaimed const lost = unclaimed_;
        unclaimed_ = Unclaimed();
        if (lost.object && isUnconvertedPointer(std::current_exception()))
            lost.type->destroy(lost.object);
        PointerLoad failed = pointers_.back();
        pointers_.pop_back();
        if (failed.object) {
            // Boost has already stored the object in the caller's pointer: clear it, so that an
            // owner destroyed on the way out does not free it again.
            failed.objectType->destroy(failed.object);
            if (t == failed.object)
                t = nullptr;
        }
        throw;
    }
}

void GuardedIArchive::register_basic_serializer(
    boost::archive::detail::basic_iserializer const& bis) {
    known(&bis);
    Base::register_basic_serializer(bis);
}

} // namespace serialization
} // namespace msg_svc
} // namespace foundation

namespace boost {
namespace archive {
template class basic_binary_iprimitive<foundation::msg_svc::serialization::GuardedIArchive, char,
                                       std::char_traits<char>>;
template class basic_binary_iarchive<foundation::msg_svc::serialization::GuardedIArchive>;
template class binary_iarchive_impl<foundation::msg_svc::serialization::GuardedIArchive, char,
                                    std::char_traits<char>>;
template class detail::archive_serializer_map<foundation::msg_svc::serialization::GuardedIArchive>;
} // namespace archive
} // namespace boost
