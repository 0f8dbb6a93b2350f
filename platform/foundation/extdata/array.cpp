#include <foundation/extdata/array.hpp>

#include <algorithm>
#include <cstring>
#include <limits>

namespace foundation {
namespace extdata {

static_assert(sizeof(bool) == 1, "logical elements are held as one byte each");

struct Array::Impl {
    ArrayType type = UNKNOWN;
    Dims dims{0, 0};
    std::size_t count = 0;
    // Plain data: the element bytes, shared between copies until one of them changes.
    std::shared_ptr<char> block;
    std::size_t byteCount = 0;
    std::vector<std::u16string> strings;
    // Cell elements, or struct values element by element with one entry per field.
    std::vector<Array> elements;
    std::vector<std::string> fieldNames;
};

namespace {

std::size_t countOf(const Array::Dims& dims) {
    if (dims.size() < 2) {
        throw std::invalid_argument("Array dimensions need at least two entries.");
    }
    std::size_t n = 1;
    for (auto d : dims) {
        if (d != 0 && n > std::numeric_limits<std::size_t>::max() / d) {
            throw std::invalid_argument("Array dimensions overflow the element count.");
        }
        n *= d;
    }
    return n;
}

} // namespace

const std::shared_ptr<const Array::Impl>& Array::emptyImpl() {
    // One shared empty value: default construction allocates nothing.
    static const std::shared_ptr<const Impl> empty = std::make_shared<const Impl>();
    return empty;
}

Array::Array() : impl_(emptyImpl()) {}

Array::Array(std::shared_ptr<const Impl> impl) : impl_(std::move(impl)) {}

Array Array::fromBytes(ArrayType type, Dims dims, const void* bytes, std::size_t byteCount) {
    std::string block(byteCount, '\0');
    if (byteCount != 0) {
        std::memcpy(&block[0], bytes, byteCount);
    }
    return adoptBytes(type, std::move(dims), std::move(block));
}

Array Array::adoptBytes(ArrayType type, Dims dims, std::string&& bytes) {
    auto owner = std::make_shared<std::string>(std::move(bytes));
    auto size = owner->size();
    char* data = owner->empty() ? nullptr : &(*owner)[0];
    return adoptBytes(type, std::move(dims), std::shared_ptr<char>(owner, data), size);
}

Array Array::adoptBytes(ArrayType type, Dims dims, std::shared_ptr<char> bytes,
                        std::size_t byteCount) {
    if (!isPlainDataType(type)) {
        throw std::invalid_argument("Array type does not hold plain data.");
    }
    auto impl = std::make_shared<Impl>();
    impl->count = countOf(dims);
    if (impl->count > std::numeric_limits<std::size_t>::max() / elementSize(type) ||
        byteCount != impl->count * elementSize(type) || (byteCount && !bytes)) {
        throw std::invalid_argument("Array data size does not match its dimensions.");
    }
    if (type == LOGICAL) {
        auto p = reinterpret_cast<const unsigned char*>(bytes.get());
        for (std::size_t i = 0; i < byteCount; ++i) {
            if (p[i] > 1) {
                throw std::invalid_argument("Logical array element is neither 0 nor 1.");
            }
        }
    }
    impl->type = type;
    impl->dims = std::move(dims);
    impl->block = std::move(bytes);
    impl->byteCount = byteCount;
    return Array(std::move(impl));
}

Array Array::createZeros(ArrayType type, Dims dims) {
    if (!isPlainDataType(type)) {
        throw std::invalid_argument("Array type does not hold plain data.");
    }
    auto n = countOf(dims);
    if (n > std::numeric_limits<std::size_t>::max() / elementSize(type)) {
        throw std::invalid_argument("Array dimensions overflow the element count.");
    }
    return adoptBytes(type, std::move(dims), std::string(n * elementSize(type), '\0'));
}

Array Array::createLogical(Dims dims, const std::vector<bool>& values) {
    std::string block(values.size(), '\0');
    std::transform(values.begin(), values.end(), block.begin(),
                   [](bool b) { return static_cast<char>(b ? 1 : 0); });
    return adoptBytes(LOGICAL, std::move(dims), std::move(block));
}

Array Array::createChar(const std::u16string& text) {
    return fromBytes(CHAR, Dims{1, text.size()}, text.data(), text.size() * sizeof(char16_t));
}

Array Array::createString(Dims dims, std::vector<std::u16string> values) {
    auto impl = std::make_shared<Impl>();
    impl->count = countOf(dims);
    if (values.size() != impl->count) {
        throw std::invalid_argument("String array size does not match its dimensions.");
    }
    impl->type = STRING;
    impl->dims = std::move(dims);
    impl->strings = std::move(values);
    return Array(std::move(impl));
}

Array Array::createString(const std::u16string& value) {
    return createString(Dims{1, 1}, {value});
}

Array Array::createCell(Dims dims, std::vector<Array> elements) {
    auto impl = std::make_shared<Impl>();
    impl->count = countOf(dims);
    if (elements.size() != impl->count) {
        throw std::invalid_argument("Cell array size does not match its dimensions.");
    }
    impl->type = CELL;
    impl->dims = std::move(dims);
    impl->elements = std::move(elements);
    return Array(std::move(impl));
}

Array Array::createStruct(Dims dims, std::vector<std::string> fieldNames,
                          std::vector<Array> values) {
    auto impl = std::make_shared<Impl>();
    impl->count = countOf(dims);
    auto sorted = fieldNames;
    std::sort(sorted.begin(), sorted.end());
    if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) {
        throw std::invalid_argument("Struct array has a repeated field name.");
    }
    if (std::find(sorted.begin(), sorted.end(), std::string()) != sorted.end()) {
        throw std::invalid_argument("Struct array has an empty field name.");
    }
    if (!fieldNames.empty() && impl->count > values.max_size() / fieldNames.size()) {
        throw std::invalid_argument("Array dimensions overflow the element count.");
    }
    if (values.size() != impl->count * fieldNames.size()) {
        throw std::invalid_argument("Struct array values do not match its dimensions and fields.");
    }
    impl->type = STRUCT;
    impl->dims = std::move(dims);
    impl->fieldNames = std::move(fieldNames);
    impl->elements = std::move(values);
    return Array(std::move(impl));
}

ArrayType Array::getType() const {
    return impl_->type;
}

const Array::Dims& Array::getDimensions() const {
    return impl_->dims;
}

std::size_t Array::getNumberOfElements() const {
    return impl_->count;
}

const void* Array::getRawData() const {
    if (!isPlainDataType(impl_->type)) {
        throw std::logic_error("Array does not hold plain data.");
    }
    return impl_->block.get();
}

std::size_t Array::getRawByteCount() const {
    return impl_->byteCount;
}

void Array::checkType(ArrayType expected) const {
    if (impl_->type != expected) {
        throw std::logic_error("Array element access with the wrong type.");
    }
}

void Array::checkIndex(std::size_t index) const {
    if (index >= impl_->count) {
        throw std::out_of_range("Array index out of range.");
    }
}

Array::Impl& Array::mutableImpl() {
    if (impl_.use_count() != 1) {
        impl_ = std::make_shared<Impl>(*impl_);
    }
    // Only this object refers to impl_ now, so the const is ours to drop.
    return const_cast<Impl&>(*impl_);
}

void* Array::mutableRawData() {
    auto& impl = mutableImpl();
    if (impl.block.use_count() != 1 && impl.byteCount) {
        std::shared_ptr<char> copy(new char[impl.byteCount], std::default_delete<char[]>());
        std::memcpy(copy.get(), impl.block.get(), impl.byteCount);
        impl.block = std::move(copy);
    }
    return impl.block.get();
}

std::u16string Array::getCharacters() const {
    auto p = getData<char16_t>();
    return std::u16string(p, p + impl_->count);
}

const std::u16string& Array::getString(std::size_t index) const {
    checkType(STRING);
    checkIndex(index);
    return impl_->strings[index];
}

void Array::setString(std::size_t index, std::u16string value) {
    checkType(STRING);
    checkIndex(index);
    mutableImpl().strings[index] = std::move(value);
}

const Array& Array::getCell(std::size_t index) const {
    checkType(CELL);
    checkIndex(index);
    return impl_->elements[index];
}

void Array::setCell(std::size_t index, Array value) {
    checkType(CELL);
    checkIndex(index);
    mutableImpl().elements[index] = std::move(value);
}

const std::vector<std::string>& Array::getFieldNames() const {
    checkType(STRUCT);
    return impl_->fieldNames;
}

bool Array::hasField(const std::string& name) const {
    auto& names = getFieldNames();
    return std::find(names.begin(), names.end(), name) != names.end();
}

const Array& Array::getField(std::size_t index, std::size_t fieldNumber) const {
    checkType(STRUCT);
    checkIndex(index);
    if (fieldNumber >= impl_->fieldNames.size()) {
        throw std::out_of_range("Struct field number out of range.");
    }
    return impl_->elements[index * impl_->fieldNames.size() + fieldNumber];
}

const Array& Array::getField(std::size_t index, const std::string& name) const {
    auto& names = getFieldNames();
    auto it = std::find(names.begin(), names.end(), name);
    if (it == names.end()) {
        throw std::out_of_range("Struct has no field \"" + name + "\".");
    }
    return getField(index, static_cast<std::size_t>(it - names.begin()));
}

void Array::setField(std::size_t index, const std::string& name, Array value) {
    checkType(STRUCT);
    checkIndex(index);
    if (name.empty()) {
        throw std::invalid_argument("Struct array has an empty field name.");
    }
    auto& impl = mutableImpl();
    auto nfields = impl.fieldNames.size();
    auto it = std::find(impl.fieldNames.begin(), impl.fieldNames.end(), name);
    auto field = static_cast<std::size_t>(it - impl.fieldNames.begin());
    if (it == impl.fieldNames.end()) {
        // Rebuild the values with one more slot per element.
        std::vector<Array> values;
        if (impl.count > values.max_size() / (nfields + 1)) {
            throw std::length_error("Struct array too large for another field.");
        }
        values.reserve(impl.count * (nfields + 1));
        for (std::size_t e = 0; e < impl.count; ++e) {
            for (std::size_t f = 0; f < nfields; ++f) {
                values.push_back(std::move(impl.elements[e * nfields + f]));
            }
            values.emplace_back();
        }
        impl.elements = std::move(values);
        impl.fieldNames.push_back(name);
        ++nfields;
    }
    impl.elements[index * nfields + field] = std::move(value);
}

bool operator==(const Array& a, const Array& b) {
    if (a.impl_ == b.impl_) {
        return true;
    }
    const auto& x = *a.impl_;
    const auto& y = *b.impl_;
    if (x.type != y.type || x.dims != y.dims) {
        return false;
    }
    if (isPlainDataType(x.type)) {
        return x.block == y.block || x.byteCount == 0 ||
               std::memcmp(x.block.get(), y.block.get(), x.byteCount) == 0;
    }
    return x.strings == y.strings && x.fieldNames == y.fieldNames && x.elements == y.elements;
}

} // namespace extdata
} // namespace foundation
