// The binary form of arrays.
//
// Layout: "HVA", a version byte, a byte-order byte (1: little-endian), then one value.
// A value is a class byte (0 for a null array), then, for every class but opaque:
// flags, number of dimensions and the dimensions as LEB128 integers, followed by
//   numeric, logical, char: the element bytes as they are in memory;
//   cell: the elements;
//   struct: the number of fields, the field names, then elements times fields values;
//   function handle: its name and the class of a method it is bound to ("" for none);
//   object: the class name, then for "string" each text (length in units, UTF-16 units),
//           else the number of properties, their names and elements times properties values.
// Opaque: the class name, then the value its save operation made.
// Texts are a LEB128 length and that many bytes (UTF-8 for names).
//
// Writing measures first and then fills one buffer, so bulk data is copied once by memcpy.
// Reading checks every length against the bytes left before it allocates anything.
#include <hv/hvinternal.hpp>

#include <cstring>
#include <stdexcept>

using namespace hv::detail;

namespace {

constexpr std::uint8_t kVersion = 1;
constexpr std::size_t kHeaderSize = 5;
constexpr int kMaxDepth = 64;
constexpr std::uint64_t kMaxDims = 32;

bool hostIsLittleEndian() {
    const std::uint16_t probe = 1;
    std::uint8_t first;
    std::memcpy(&first, &probe, 1);
    return first == 1;
}

// ----- writing -----

struct SavedForms {
    std::vector<HvArrayPtr> forms;
    std::size_t next = 0;
    bool collecting = true;
};

struct Counter {
    std::size_t size = 0;
    void put(const void*, std::size_t n) { size += n; }
};

struct Filler {
    std::uint8_t* out;
    void put(const void* data, std::size_t n) {
        if (n != 0) {
            std::memcpy(out, data, n);
            out += n;
        }
    }
};

template <class Sink> void putByte(Sink& sink, std::uint8_t b) {
    sink.put(&b, 1);
}

template <class Sink> void putVarint(Sink& sink, std::uint64_t v) {
    std::uint8_t buf[10];
    std::size_t n = 0;
    do {
        std::uint8_t b = v & 0x7f;
        v >>= 7;
        buf[n++] = static_cast<std::uint8_t>(b | (v != 0 ? 0x80 : 0));
    } while (v != 0);
    sink.put(buf, n);
}

template <class Sink> void putText(Sink& sink, const std::string& text) {
    putVarint(sink, text.size());
    sink.put(text.data(), text.size());
}

template <class Sink>
void writeValue(Sink& sink, const hvArray* array, SavedForms& saved, int depth) {
    if (depth > kMaxDepth) {
        throw std::runtime_error("hvSerialize: the array is nested more than " +
                                 std::to_string(kMaxDepth) + " levels deep");
    }
    if (array == nullptr) {
        putByte(sink, 0);
        return;
    }
    if (array->cls == hvOPAQUE_CLASS) {
        const hvOpaqueClass* cls = array->opaque;
        const hvArray* form = nullptr;
        if (saved.collecting) {
            if (cls->ops.save == nullptr) {
                throw std::runtime_error("hvSerialize: the opaque class \"" + cls->name +
                                         "\" cannot be saved");
            }
            saved.forms.emplace_back(cls->ops.save(array));
            form = saved.forms.back().get();
        } else {
            form = saved.forms.at(saved.next++).get();
        }
        putByte(sink, hvOPAQUE_CLASS);
        putText(sink, cls->name);
        writeValue(sink, form, saved, depth + 1);
        return;
    }
    putByte(sink, static_cast<std::uint8_t>(array->cls));
    putVarint(sink, array->flags);
    putVarint(sink, array->dims.size());
    for (std::size_t d : array->dims) {
        putVarint(sink, d);
    }
    const HvData& data = *array->data;
    switch (array->cls) {
    case hvCELL_CLASS:
        for (const hvArray* slot : data.slots) {
            writeValue(sink, slot, saved, depth + 1);
        }
        break;
    case hvSTRUCT_CLASS:
        putVarint(sink, data.fields.size());
        for (const std::string& field : data.fields) {
            putText(sink, field);
        }
        for (const hvArray* slot : data.slots) {
            writeValue(sink, slot, saved, depth + 1);
        }
        break;
    case hvFUNCTION_CLASS:
        putText(sink, data.functionName);
        putText(sink, data.boundClass != nullptr ? data.boundClass->name : std::string());
        break;
    case hvOBJECT_CLASS: {
        const ObjectClass* cls = array->objectClass;
        if (!cls->serializable) {
            throw std::runtime_error("hvSerialize: objects of class \"" + cls->name +
                                     "\" cannot be serialized");
        }
        putText(sink, cls->name);
        if (cls->isString) {
            for (const ustring& text : data.strings) {
                putVarint(sink, text.size());
                sink.put(text.data(), text.size() * sizeof(char16_t));
            }
        } else {
            putVarint(sink, data.fields.size());
            for (const std::string& field : data.fields) {
                putText(sink, field);
            }
            for (const hvArray* slot : data.slots) {
                writeValue(sink, slot, saved, depth + 1);
            }
        }
        break;
    }
    default:
        sink.put(data.bytes.get(), data.nbytes);
        break;
    }
}

// ----- reading -----

[[noreturn]] void corrupt(const std::string& what) {
    throw std::runtime_error("hvDeserialize: corrupt data: " + what);
}

template <class In> std::uint64_t readVarint(In& in, const char* what) {
    std::uint64_t v = 0;
    for (int shift = 0; shift < 64; shift += 7) {
        std::uint8_t b = in.byte(what);
        if (shift == 63 && b > 1) {
            corrupt(std::string(what) + " does not fit in 64 bits");
        }
        v |= static_cast<std::uint64_t>(b & 0x7f) << shift;
        if ((b & 0x80) == 0) {
            return v;
        }
    }
    corrupt(std::string(what) + " does not fit in 64 bits");
}

// The flags and dimensions that follow an array's class, refused where no array has them.
struct Shape {
    std::uint32_t flags = 0;
    std::vector<std::size_t> dims;
};
template <class In> Shape readShape(In& in) {
    std::uint64_t const flags = readVarint(in, "flags");
    if (flags > 0xffffffffu) {
        corrupt("flags out of range");
    }
    std::uint64_t const ndim = readVarint(in, "number of dimensions");
    if (ndim < 2 || ndim > kMaxDims) {
        corrupt("number of dimensions " + std::to_string(ndim));
    }
    Shape shape;
    shape.flags = static_cast<std::uint32_t>(flags);
    for (std::uint64_t i = 0; i < ndim; ++i) {
        std::uint64_t const d = readVarint(in, "dimension");
        if (d > static_cast<std::size_t>(-1)) {
            corrupt("dimension out of range");
        }
        shape.dims.push_back(static_cast<std::size_t>(d));
    }
    if (ndim > 2 && shape.dims.back() == 1) {
        corrupt("trailing singleton dimension");
    }
    return shape;
}

[[noreturn]] void truncated(const char* what, std::size_t n, std::size_t left) {
    throw std::runtime_error("hvDeserialize: truncated data: " + std::string(what) + " needs " +
                             std::to_string(n) + " bytes, " + std::to_string(left) + " left");
}

struct Reader {
    const std::uint8_t* p;
    const std::uint8_t* end;

    std::size_t left() const { return static_cast<std::size_t>(end - p); }

    void need(std::size_t n, const char* what) const {
        if (n > left()) {
            truncated(what, n, left());
        }
    }

    std::uint8_t byte(const char* what) {
        need(1, what);
        return *p++;
    }

    std::uint64_t varint(const char* what) { return readVarint(*this, what); }

    // A count of items each taking at least `minBytes` bytes: bounded by the bytes left.
    std::size_t count(const char* what, std::size_t minBytes = 1) {
        std::uint64_t n = varint(what);
        if (n > left() / minBytes) {
            corrupt(std::string(what) + " " + std::to_string(n) + " exceeds the data left");
        }
        return static_cast<std::size_t>(n);
    }

    // Names never hold NUL: they are handed out as C strings.
    std::string text(const char* what) {
        std::size_t n = count(what);
        std::string s(reinterpret_cast<const char*>(p), n);
        p += n;
        if (s.find('\0') != std::string::npos) {
            corrupt(std::string(what) + " holds a NUL character");
        }
        return s;
    }
};

std::size_t checkedElements(const std::vector<std::size_t>& dims) {
    std::size_t n = 1;
    for (std::size_t d : dims) {
        if (d == 0) {
            return 0;
        }
    }
    for (std::size_t d : dims) {
        if (n > static_cast<std::size_t>(-1) / d) {
            corrupt("the number of elements does not fit in size_t");
        }
        n *= d;
    }
    return n;
}

std::vector<std::string> readNames(Reader& in, const char* what) {
    std::size_t n = in.count(what);
    std::vector<std::string> names;
    names.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        std::string name = in.text("name");
        if (name.empty()) {
            corrupt(std::string("empty ") + what);
        }
        for (const std::string& other : names) {
            if (other == name) {
                corrupt("duplicate name \"" + name + "\"");
            }
        }
        names.push_back(std::move(name));
    }
    return names;
}

std::size_t slotCount(std::size_t n, std::size_t width, const Reader& in) {
    if (width != 0 && n > in.left() / width) {
        corrupt("more elements than data left");
    }
    return n * width;
}

HvArrayPtr readValue(Reader& in, int depth);

void readSlots(Reader& in, hvArray* array, int depth) {
    for (hvArray*& slot : array->data->slots) {
        slot = readValue(in, depth + 1).release();
    }
}

HvArrayPtr readOpaque(Reader& in, int depth) {
    std::string name = in.text("class name");
    HvArrayPtr form = readValue(in, depth + 1);
    const hvOpaqueClass* cls = hvFindOpaqueClass(name.c_str());
    if (cls == nullptr) {
        throw std::runtime_error("hvDeserialize: the opaque class \"" + name +
                                 "\" is not registered");
    }
    if (cls->ops.load == nullptr) {
        throw std::runtime_error("hvDeserialize: the opaque class \"" + name +
                                 "\" cannot be loaded");
    }
    HvArrayPtr result(cls->ops.load(cls, form.get()));
    if (result == nullptr) {
        throw std::runtime_error("hvDeserialize: the opaque class \"" + name +
                                 "\" rejected its saved form");
    }
    return result;
}

HvArrayPtr readObject(Reader& in, std::vector<std::size_t> dims, std::size_t n, int depth) {
    std::string name = in.text("class name");
    const ObjectClass* cls = findObjectClass(name);
    if (cls == nullptr) {
        throw std::runtime_error("hvDeserialize: the class \"" + name + "\" is not defined");
    }
    if (cls->isString) {
        if (n > in.left()) {
            corrupt("more strings than data left");
        }
        HvArrayPtr array(newStringArray(std::move(dims)));
        for (ustring& text : array->data->strings) {
            std::size_t units = in.count("string length", sizeof(char16_t));
            text.resize(units);
            if (units != 0) {
                std::memcpy(&text[0], in.p, units * sizeof(char16_t));
                in.p += units * sizeof(char16_t);
            }
        }
        return array;
    }
    std::vector<std::string> props = readNames(in, "property name");
    slotCount(n, props.size(), in);
    // The class may have properties the bytes do not carry; its slots must still be justified.
    if (!cls->properties.empty() && n > in.left()) {
        corrupt("more objects than data left");
    }
    HvArrayPtr array(newObjectArrayForLoad(cls, std::move(dims)));
    const std::size_t width = array->data->fields.size();
    std::vector<std::size_t> target(props.size(), static_cast<std::size_t>(-1));
    for (std::size_t f = 0; f < props.size(); ++f) {
        for (std::size_t g = 0; g < width; ++g) {
            if (array->data->fields[g] == props[f]) {
                target[f] = g;
            }
        }
    }
    // Properties are matched by name; ones the class no longer has are dropped.
    for (std::size_t e = 0; e < n; ++e) {
        for (std::size_t f = 0; f < props.size(); ++f) {
            HvArrayPtr value = readValue(in, depth + 1);
            if (target[f] != static_cast<std::size_t>(-1)) {
                array->data->slots[e * width + target[f]] = value.release();
            }
        }
    }
    return array;
}

HvArrayPtr readValue(Reader& in, int depth) {
    if (depth > kMaxDepth) {
        corrupt("nested more than " + std::to_string(kMaxDepth) + " levels deep");
    }
    std::uint8_t tag = in.byte("class");
    if (tag == 0) {
        return nullptr;
    }
    hvClassID cls = static_cast<hvClassID>(tag);
    if (tag > hvOBJECT_CLASS || cls == hvVOID_CLASS) {
        corrupt("unknown class number " + std::to_string(tag));
    }
    if (cls == hvOPAQUE_CLASS) {
        return readOpaque(in, depth);
    }
    Shape shape = readShape(in);
    const std::uint64_t flags = shape.flags;
    std::vector<std::size_t> dims = std::move(shape.dims);
    std::size_t n = checkedElements(dims);
    HvArrayPtr array;
    if (isRawClass(cls)) {
        std::size_t size = elementSize(cls);
        if (n > in.left() / size) {
            throw std::runtime_error("hvDeserialize: truncated data: " + std::to_string(n) +
                                     " elements of " + std::to_string(size) + " bytes, " +
                                     std::to_string(in.left()) + " bytes left");
        }
        array.reset(newArray(cls, std::move(dims), false));
        if (n != 0) {
            std::memcpy(array->data->bytes.get(), in.p, n * size);
            in.p += n * size;
        }
    } else if (cls == hvCELL_CLASS) {
        slotCount(n, 1, in);
        array.reset(newArray(cls, std::move(dims)));
        readSlots(in, array.get(), depth);
    } else if (cls == hvSTRUCT_CLASS) {
        std::vector<std::string> fields = readNames(in, "field name");
        std::size_t slots = slotCount(n, fields.size(), in);
        array.reset(newArray(cls, std::move(dims)));
        array->data->fields = std::move(fields);
        array->data->slots.assign(slots, nullptr);
        readSlots(in, array.get(), depth);
    } else if (cls == hvFUNCTION_CLASS) {
        if (n != 1) {
            corrupt("a function handle that is not 1-by-1");
        }
        std::string name = in.text("function name");
        std::string boundClass = in.text("class name");
        if (name.empty()) {
            corrupt("empty function name");
        }
        if (boundClass.empty()) {
            array.reset(hvCreateFunctionHandle(name.c_str()));
        } else {
            const ObjectClass* owner = findObjectClass(boundClass);
            if (owner == nullptr) {
                throw std::runtime_error("hvDeserialize: the class \"" + boundClass +
                                         "\" is not defined");
            }
            array.reset(newMethodHandle(owner, name.c_str()));
            if (array == nullptr) {
                throw std::runtime_error("hvDeserialize: the class \"" + boundClass +
                                         "\" has no method \"" + name + "\"");
            }
        }
    } else {
        array = readObject(in, std::move(dims), n, depth);
    }
    array->flags = static_cast<std::uint32_t>(flags);
    return array;
}

void checkHeader(const std::uint8_t* header) {
    if (std::memcmp(header, "HVA", 3) != 0) {
        corrupt("not a serialized array");
    }
    if (header[3] != kVersion) {
        throw std::runtime_error("hvDeserialize: unsupported version " + std::to_string(header[3]));
    }
    if (header[4] != static_cast<std::uint8_t>(hostIsLittleEndian())) {
        throw std::runtime_error("hvDeserialize: the data was written with another byte order");
    }
}

// Gathers small pieces into blocks for the caller's writer; large ones go through as they are.
class BlockSink {
public:
    explicit BlockSink(const std::function<void(const void*, std::size_t)>& write)
        : write_(write) {}
    void put(const void* data, std::size_t n) {
        written += n;
        if (used_ + n <= sizeof(buffer_)) {
            if (n != 0) {
                std::memcpy(buffer_ + used_, data, n);
                used_ += n;
            }
            return;
        }
        flush();
        if (n >= sizeof(buffer_)) {
            write_(data, n);
        } else {
            std::memcpy(buffer_, data, n);
            used_ = n;
        }
    }
    void flush() {
        if (used_ != 0) {
            write_(buffer_, used_);
            used_ = 0;
        }
    }
    std::size_t written = 0;

private:
    const std::function<void(const void*, std::size_t)>& write_;
    std::uint8_t buffer_[4096];
    std::size_t used_ = 0;
};

// Bytes from the caller's reader, counted against the size announced, and kept in `seen` so
// that they can be handed on when the array is not built here.
struct StreamReader {
    const std::function<void(void*, std::size_t)>& read;
    std::size_t left;
    std::vector<std::uint8_t>& seen;

    std::uint8_t byte(const char* what) {
        if (left == 0) {
            truncated(what, 1, 0);
        }
        std::uint8_t b = 0;
        read(&b, 1);
        --left;
        seen.push_back(b);
        return b;
    }
};

// The bytes the array takes, header included; collects the forms to save on the way.
std::size_t measure(const hvArray* array, SavedForms& saved) {
    Counter counter;
    writeValue(counter, array, saved, 0);
    return kHeaderSize + counter.size;
}

// Writes the header and the array's value, after measure() collected `saved`.
template <class Sink> void writeWhole(Sink& sink, const hvArray* array, SavedForms& saved) {
    const std::uint8_t header[kHeaderSize] = {'H', 'V', 'A', kVersion,
                                              static_cast<std::uint8_t>(hostIsLittleEndian())};
    sink.put(header, kHeaderSize);
    saved.collecting = false;
    writeValue(sink, array, saved, 0);
}

} // namespace

void hvSerializeTo(const hvArray* array, const std::function<void(std::size_t)>& size,
                   const std::function<void(const void*, std::size_t)>& write) {
    SavedForms saved;
    const std::size_t total = measure(array, saved);
    size(total);
    BlockSink sink(write);
    writeWhole(sink, array, saved);
    sink.flush();
    if (sink.written != total) {
        throw std::logic_error("hvSerialize: the array changed while it was written");
    }
}

hvArray* hvDeserializeFrom(std::size_t size, const std::function<void(void*, std::size_t)>& read,
                           std::vector<std::uint8_t>& bytes) {
    bytes.clear();
    StreamReader in{read, size, bytes};
    // The header and the class: only raw classes are built here.
    if (size >= kHeaderSize + 1) {
        for (std::size_t i = 0; i <= kHeaderSize; ++i) {
            in.byte("the header");
        }
    }
    const hvClassID cls =
        bytes.size() == kHeaderSize + 1 ? static_cast<hvClassID>(bytes.back()) : hvUNKNOWN_CLASS;
    if (bytes.size() != kHeaderSize + 1 || cls > hvOBJECT_CLASS || !isRawClass(cls)) {
        const std::size_t seen = bytes.size();
        bytes.resize(size);
        if (size > seen) {
            read(bytes.data() + seen, size - seen);
        }
        return nullptr;
    }
    checkHeader(bytes.data());
    Shape shape = readShape(in);
    const std::uint64_t flags = shape.flags;
    std::vector<std::size_t> dims = std::move(shape.dims);
    const std::size_t n = checkedElements(dims);
    const std::size_t width = elementSize(cls);
    if (n > in.left / width) {
        throw std::runtime_error("hvDeserialize: truncated data: " + std::to_string(n) +
                                 " elements of " + std::to_string(width) + " bytes, " +
                                 std::to_string(in.left) + " bytes left");
    }
    if (in.left != n * width) {
        corrupt(std::to_string(in.left - n * width) + " bytes after the array");
    }
    HvArrayPtr array(newArray(cls, std::move(dims), false));
    if (n != 0) {
        read(array->data->bytes.get(), n * width);
    }
    array->flags = static_cast<std::uint32_t>(flags);
    bytes.clear();
    return array.release();
}

hvArray* hvSerialize(const hvArray* array) {
    SavedForms saved;
    const std::size_t size = measure(array, saved);
    HvArrayPtr result(newArray(hvUINT8_CLASS, {1, size}, false));
    Filler filler{result->data->bytes.get()};
    writeWhole(filler, array, saved);
    if (filler.out != result->data->bytes.get() + size) {
        throw std::logic_error("hvSerialize: the array changed while it was written");
    }
    return result.release();
}

hvArray* hvDeserialize(const void* data, std::size_t size) {
    if (data == nullptr && size != 0) {
        throw std::invalid_argument("hvDeserialize: null data");
    }
    Reader in{static_cast<const std::uint8_t*>(data),
              static_cast<const std::uint8_t*>(data) + size};
    in.need(kHeaderSize, "the header");
    checkHeader(in.p);
    in.p += kHeaderSize;
    HvArrayPtr array;
    try {
        array = readValue(in, 0);
    } catch (const std::logic_error& e) {
        // A check of the array functions that the reader's own checks did not foresee (or an
        // opaque class's load): the bytes are still what is wrong.
        corrupt(e.what());
    }
    if (in.left() != 0) {
        corrupt(std::to_string(in.left()) + " bytes after the array");
    }
    return array.release();
}
