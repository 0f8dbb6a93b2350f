#include <quorl/eventmgr/convertbaseeventtohvarray.hpp>

#include <fl/i18n/conversions.hpp>
#include <foundation/core/diag/terminate.hpp>
#include <hv/hvarray.hpp>

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/detail/common_oarchive.hpp>
#include <boost/archive/detail/polymorphic_oarchive_route.hpp>
#include <boost/archive/detail/register_archive.hpp>
#include <boost/archive/polymorphic_oarchive.hpp>
#include <boost/serialization/nvp.hpp>

#include <cstdint>
#include <cstring>
#include <deque>
#include <ostream>
#include <streambuf>
#include <string>

namespace quorl {
namespace eventmgr {
namespace detail {

namespace {

// The stream the archive base needs; everything written to it is dropped.
class NullStreambuf : public std::streambuf {
protected:
    int_type overflow(int_type c) override { return traits_type::not_eof(c); }
};

template <class T> struct ClassOf;
template <> struct ClassOf<bool> { static constexpr hvClassID value = hvLOGICAL_CLASS; };
template <> struct ClassOf<signed char> { static constexpr hvClassID value = hvINT8_CLASS; };
template <> struct ClassOf<unsigned char> { static constexpr hvClassID value = hvUINT8_CLASS; };
template <> struct ClassOf<short> { static constexpr hvClassID value = hvINT16_CLASS; };
template <> struct ClassOf<unsigned short> { static constexpr hvClassID value = hvUINT16_CLASS; };
template <> struct ClassOf<int> { static constexpr hvClassID value = hvINT32_CLASS; };
template <> struct ClassOf<long> { static constexpr hvClassID value = hvINT32_CLASS; };
template <> struct ClassOf<unsigned int> { static constexpr hvClassID value = hvUINT32_CLASS; };
template <> struct ClassOf<unsigned long> { static constexpr hvClassID value = hvUINT32_CLASS; };
template <> struct ClassOf<long long> { static constexpr hvClassID value = hvINT64_CLASS; };
template <> struct ClassOf<unsigned long long> {
    static constexpr hvClassID value = hvUINT64_CLASS;
};
template <> struct ClassOf<float> { static constexpr hvClassID value = hvSINGLE_CLASS; };
template <> struct ClassOf<double> { static constexpr hvClassID value = hvDOUBLE_CLASS; };

// Stores `value` at element `index` of a numeric or logical array of T's class.
template <class T> void store(hvArray* array, std::size_t index, T value) {
    void* data = hvGetData(array);
    switch (ClassOf<T>::value) {
    case hvLOGICAL_CLASS:
        static_cast<std::uint8_t*>(data)[index] = value ? 1 : 0;
        break;
    case hvINT8_CLASS:
        static_cast<std::int8_t*>(data)[index] = static_cast<std::int8_t>(value);
        break;
    case hvUINT8_CLASS:
        static_cast<std::uint8_t*>(data)[index] = static_cast<std::uint8_t>(value);
        break;
    case hvINT16_CLASS:
        static_cast<std::int16_t*>(data)[index] = static_cast<std::int16_t>(value);
        break;
    case hvUINT16_CLASS:
        static_cast<std::uint16_t*>(data)[index] = static_cast<std::uint16_t>(value);
        break;
    case hvINT32_CLASS:
        static_cast<std::int32_t*>(data)[index] = static_cast<std::int32_t>(value);
        break;
    case hvUINT32_CLASS:
        static_cast<std::uint32_t*>(data)[index] = static_cast<std::uint32_t>(value);
        break;
    case hvINT64_CLASS:
        static_cast<std::int64_t*>(data)[index] = static_cast<std::int64_t>(value);
        break;
    case hvUINT64_CLASS:
        static_cast<std::uint64_t*>(data)[index] = static_cast<std::uint64_t>(value);
        break;
    case hvSINGLE_CLASS:
        static_cast<float*>(data)[index] = static_cast<float>(value);
        break;
    default:
        static_cast<double*>(data)[index] = static_cast<double>(value);
        break;
    }
}

template <class T> HvArrayPtr scalarOf(T value) {
    HvArrayPtr a = matrix::from_veldra_old(ClassOf<T>::value == hvLOGICAL_CLASS
                                               ? hvCreateLogicalMatrix(1, 1)
                                               : hvCreateNumericMatrix(ClassOf<T>::value, 1, 1));
    store<T>(a.get(), 0, value);
    return a;
}

bool isStruct(const hvArray* a) {
    hvClassID const c = hvGetClassID(a);
    return c == hvSTRUCT_CLASS || c == hvOBJECT_CLASS;
}

void appendCell(hvArray* cell, HvArrayPtr value) {
    std::size_t const n = hvGetNumberOfElements(cell);
    std::size_t dims[2] = {1, n + 1};
    hvSetDimensions(cell, 2, dims);
    hvSetCell(cell, n, value.release());
}

HvArrayPtr pairCell(HvArrayPtr first, HvArrayPtr second) {
    HvArrayPtr cell = matrix::from_veldra_old(hvCreateCellMatrix(1, 2));
    hvSetCell(cell.get(), 0, first.release());
    hvSetCell(cell.get(), 1, second.release());
    return cell;
}

// The archive: a stack of frames, each a name and the array built for it so far.
class CreateHvArrayArchive : public boost::archive::detail::common_oarchive<CreateHvArrayArchive> {
public:
    struct Frame {
        std::string name;
        HvArrayPtr value;
    };

    CreateHvArrayArchive(std::ostream& os, unsigned int flags)
        : boost::archive::detail::common_oarchive<CreateHvArrayArchive>(flags) {
        (void)os;
        frames_.push_back(Frame());
    }

    HvArrayPtr takeResult() {
        HvArrayPtr result = std::move(frames_.back().value);
        frames_.pop_back();
        return result;
    }

    // Bookkeeping of the archive: nothing of it reaches the array.
    void save_override(const boost::archive::class_id_optional_type&) {}
    void save_override(const boost::archive::class_id_type&) {}
    void save_override(const boost::archive::class_id_reference_type&) {}
    void save_override(const boost::archive::class_name_type&) {}
    void save_override(const boost::archive::object_id_type&) {}
    void save_override(const boost::archive::object_reference_type&) {}
    void save_override(const boost::archive::version_type&) {}
    void save_override(const boost::archive::tracking_type&) {}
    template <class T> void save_override(const boost::serialization::nvp<T>& t) {
        save_start(t.name());
        boost::archive::save(*this->This(), t.const_value());
        save_end(t.name());
    }
    template <class T> void save_override(const T& t) {
        boost::archive::detail::common_oarchive<CreateHvArrayArchive>::save_override(t);
    }

    void save(bool t) { savePrimitive(t); }
    void save(signed char t) { savePrimitive(t); }
    void save(unsigned char t) { savePrimitive(t); }
    void save(short t) { savePrimitive(t); }
    void save(unsigned short t) { savePrimitive(t); }
    void save(int t) { savePrimitive(t); }
    void save(unsigned int t) { savePrimitive(t); }
    void save(long t) { savePrimitive(t); }
    void save(unsigned long t) { savePrimitive(t); }
    void save(long long t) { savePrimitive(t); }
    void save(unsigned long long t) { savePrimitive(t); }
    void save(float t) { savePrimitive(t); }
    void save(double t) { savePrimitive(t); }
    void save(char t) {
        saveText(ustring(1, static_cast<char16_t>(static_cast<unsigned char>(t))));
    }
    void save(wchar_t t) { saveText(fl::i18n::to_ustring(std::wstring(1, t))); }
    void save(const std::string& t) {
        saveText(fl::i18n::converter(fl::i18n::codecvt_modified_utf8_to_ustring(), t));
    }
    void save(const std::wstring& t) { saveText(fl::i18n::to_ustring(t)); }
    // Raw bytes go in as a uint8 row.
    void save_binary(const void* data, std::size_t size) {
        if (frames_.empty())
            return;
        HvArrayPtr bytes = matrix::from_veldra_old(hvCreateNumericMatrix(hvUINT8_CLASS, 1, size));
        if (size)
            std::memcpy(hvGetData(bytes.get()), data, size);
        saveValue(std::move(bytes));
    }
    void save_null_pointer() {}
    void end_preamble() {}

    void save_start(const char* name) {
        if (!name)
            return;
        Frame frame;
        frame.name = name;
        if (!frames_.empty()) {
            hvArray* top = frames_.back().value.get();
            if (top && isStruct(top) && hvGetFieldNumber(top, name) >= 0) {
                const hvArray* existing = hvGetField(top, 0, name);
                hvClassID const c = hvGetClassID(existing);
                if (existing && c != hvSTRUCT_CLASS && c != hvOBJECT_CLASS && c != hvCELL_CLASS)
                    frame.value = matrix::from_veldra_old(hvCreateSharedDataCopy(existing));
            }
        }
        frames_.push_back(std::move(frame));
    }

    void save_end(const char* name) {
        if (!name || frames_.empty())
            return;
        HvArrayPtr value = std::move(frames_.back().value);
        frames_.pop_back();
        if (!value || frames_.empty())
            return;
        HvArrayPtr& top = frames_.back().value;
        if (!top) {
            const char* names[] = {name};
            top = matrix::from_veldra_old(hvCreateStructMatrix(1, 1, 1, names));
            hvSetField(top.get(), 0, name, value.release());
            return;
        }
        if (!isStruct(top.get()))
            return; // that text of the event is lost
        if (hvGetFieldNumber(top.get(), name) < 0) {
            hvAddField(top.get(), name);
            hvSetField(top.get(), 0, name, value.release());
            return;
        }
        const hvArray* existing = hvGetField(top.get(), 0, name);
        hvClassID const c = hvGetClassID(existing);
        if (existing && (c == hvSTRUCT_CLASS || c == hvOBJECT_CLASS)) {
            HvArrayPtr old = matrix::from_veldra_old(hvCreateSharedDataCopy(existing));
            hvSetField(top.get(), 0, name, pairCell(std::move(old), std::move(value)).release());
        } else if (existing && c == hvCELL_CLASS) {
            HvArrayPtr cell = matrix::from_veldra_old(hvCreateSharedDataCopy(existing));
            appendCell(cell.get(), std::move(value));
            hvSetField(top.get(), 0, name, cell.release());
        } else {
            hvSetField(top.get(), 0, name, value.release()); // already holds the old value
        }
    }

private:
    template <class T> void savePrimitive(T t) {
        if (frames_.empty())
            return;
        HvArrayPtr& top = frames_.back().value;
        if (!top) {
            top = scalarOf<T>(t);
        } else if (hvGetClassID(top.get()) == ClassOf<T>::value && hvIsPlainArray(top.get())) {
            std::size_t const n = hvGetNumberOfElements(top.get());
            std::size_t dims[2] = {1, n + 1};
            hvSetDimensions(top.get(), 2, dims);
            store<T>(top.get(), n, t);
        } else {
            saveValue(scalarOf<T>(t));
        }
    }

    void saveText(const ustring& text) {
        if (frames_.empty())
            return;
        saveValue(matrix::from_veldra_old(hvCreateStringFromUtf16(text.data(), text.size())));
    }

    // A value that does not collect: null takes it, a cell appends it, else a pair cell.
    void saveValue(HvArrayPtr value) {
        HvArrayPtr& top = frames_.back().value;
        if (!top)
            top = std::move(value);
        else if (hvGetClassID(top.get()) == hvCELL_CLASS)
            appendCell(top.get(), std::move(value));
        else
            top = pairCell(std::move(top), std::move(value));
    }

    std::deque<Frame> frames_;
};

typedef boost::archive::detail::polymorphic_oarchive_route<CreateHvArrayArchive> Route;

HvArrayPtr errorStruct(const std::string& message) {
    const char* names[] = {"ERROR"};
    HvArrayPtr s = matrix::from_veldra_old(hvCreateStructMatrix(1, 1, 1, names));
    hvSetField(s.get(), 0, "ERROR", hvCreateString(message.c_str()));
    return s;
}

} // namespace

std::unique_ptr<hvArray_tag, matrix::detail::hvDestroy_deleter>
convertBaseEventToHvArray(const foundation::msg_svc::eventmgr::BaseEvent& event) {
    std::string const type = foundation::core::diag::detail::demangle_typeid_name(typeid(event));
    try {
        NullStreambuf buffer;
        std::ostream stream(&buffer);
        Route archive(stream, boost::archive::no_header | boost::archive::no_codecvt);
        const foundation::msg_svc::eventmgr::BaseEvent* pointer = &event;
        static_cast<boost::archive::polymorphic_oarchive&>(archive) << pointer;
        return archive.takeResult();
    } catch (const boost::archive::archive_exception& e) {
        if (e.code == boost::archive::archive_exception::unregistered_class)
            return errorStruct(type + ": conversion error: does not have boost serialization "
                                      "support (at least missing BOOST_CLASS_EXPORT)");
        return errorStruct(type + ": conversion error: " + e.what());
    } catch (const std::exception& e) {
        return errorStruct(type + ": conversion error: " + e.what());
    } catch (...) {
        return errorStruct(type + ": conversion error: unknown");
    }
}

} // namespace detail
} // namespace eventmgr
} // namespace quorl
