#pragma once
// foundation::extdata::Array: the external data form of an array, a value type. An Array has a
// type, dimensions (column-major, at least two) and elements: numbers, logicals or 16-bit
// characters held as one byte block; 16-bit strings; Arrays (cell); or one Array per field and
// element (struct).
//
// Ownership: the contents sit in shared immutable storage, so copying is cheap; the first change
// through a copy that still shares its storage copies the storage (copy on write). The element
// Arrays of a cell or struct are themselves values.
//
// Threads: distinct Array objects may be used from any threads at once, also when they share
// storage; one object is used by one thread at a time.
//
// Errors: a type or shape that does not fit raises std::invalid_argument; an index past the end
// raises std::out_of_range; a typed access of another type raises std::logic_error.
#include <foundation/extdata/arraytype.hpp>

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace foundation {
namespace extdata {

class Array {
public:
    using Dims = std::vector<std::size_t>;

    // The empty array of type UNKNOWN, 0 by 0.
    Array();

    // Numbers, logicals or characters, column-major; values.size() must equal the element count.
    template <class T> static Array create(Dims dims, const std::vector<T>& values) {
        return fromBytes(ArrayTypeOf<T>::value, std::move(dims), values.data(),
                         values.size() * sizeof(T));
    }
    static Array createLogical(Dims dims, const std::vector<bool>& values);
    template <class T> static Array createScalar(T value) {
        return fromBytes(ArrayTypeOf<T>::value, Dims{1, 1}, &value, sizeof(T));
    }
    // A 1-by-N character row.
    static Array createChar(const std::u16string& text);
    // A plain-data array of the given type filled with zeros.
    static Array createZeros(ArrayType type, Dims dims);
    // A plain-data array from raw element bytes, copied.
    static Array fromBytes(ArrayType type, Dims dims, const void* bytes, std::size_t byteCount);
    // A plain-data array that takes over a byte block without copying it. The block must not
    // be changed through other pointers afterwards.
    static Array adoptBytes(ArrayType type, Dims dims, std::string&& bytes);
    static Array adoptBytes(ArrayType type, Dims dims, std::shared_ptr<char> bytes,
                            std::size_t byteCount);
    static Array createString(Dims dims, std::vector<std::u16string> values);
    static Array createString(const std::u16string& value);
    static Array createCell(Dims dims, std::vector<Array> elements);
    // values holds, element by element, one Array per field in the order of fieldNames.
    static Array createStruct(Dims dims, std::vector<std::string> fieldNames,
                              std::vector<Array> values);

    ArrayType getType() const;
    const Dims& getDimensions() const;
    std::size_t getNumberOfElements() const;
    bool isEmpty() const { return getNumberOfElements() == 0; }

    // Plain-data types: the element block, getNumberOfElements() * elementSize(getType()) bytes.
    const void* getRawData() const;
    std::size_t getRawByteCount() const;
    template <class T> const T* getData() const {
        checkType(ArrayTypeOf<T>::value);
        return static_cast<const T*>(getRawData());
    }
    template <class T> T get(std::size_t index) const {
        checkIndex(index);
        return getData<T>()[index];
    }
    template <class T> void set(std::size_t index, T value) {
        checkType(ArrayTypeOf<T>::value);
        checkIndex(index);
        static_cast<T*>(mutableRawData())[index] = value;
    }
    std::u16string getCharacters() const; // CHAR arrays, all elements in column-major order

    // STRING arrays.
    const std::u16string& getString(std::size_t index) const;
    void setString(std::size_t index, std::u16string value);

    // CELL arrays.
    const Array& getCell(std::size_t index) const;
    void setCell(std::size_t index, Array value);

    // STRUCT arrays.
    const std::vector<std::string>& getFieldNames() const;
    bool hasField(const std::string& name) const;
    const Array& getField(std::size_t index, const std::string& name) const;
    const Array& getField(std::size_t index, std::size_t fieldNumber) const;
    // Sets an existing field, or adds the field (empty in the other elements) when it is new.
    void setField(std::size_t index, const std::string& name, Array value);

    // Same type, dimensions and contents. Numbers compare by their bytes, so a NaN equals the
    // same NaN and -0.0 differs from 0.0: equality means "unchanged value".
    friend bool operator==(const Array& a, const Array& b);
    friend bool operator!=(const Array& a, const Array& b) { return !(a == b); }

    // True when both share one storage (a copy not changed since).
    bool sharesStorageWith(const Array& other) const { return impl_ == other.impl_; }

private:
    struct Impl;
    explicit Array(std::shared_ptr<const Impl> impl);
    static const std::shared_ptr<const Impl>& emptyImpl();
    void checkType(ArrayType expected) const;
    void checkIndex(std::size_t index) const;
    Impl& mutableImpl();
    void* mutableRawData();

    std::shared_ptr<const Impl> impl_;
};

} // namespace extdata
} // namespace foundation
