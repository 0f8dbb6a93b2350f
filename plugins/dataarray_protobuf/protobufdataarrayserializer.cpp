#include "protobufdataarrayserializer.hpp"

#include "dataarray.pb.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/wire_format_lite.h>

#include <climits>
#include <cstring>
#include <stdexcept>
#include <string>

namespace quorl {
namespace dataarray {

namespace fx = foundation::extdata;

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "element blocks are written in the machine's order, which must be little-endian");

namespace {

// Largest message Protocol Buffers will read back.
constexpr std::uint64_t MaxMessageBytes = INT_MAX;
// Bound on the framing of one field: a tag and a length varint.
constexpr std::uint64_t FieldOverhead = 16;

// An upper bound of the encoded size, found without building anything, so that an array too
// large is refused before memory is spent on it. Stops counting once past the limit.
std::uint64_t sizeBound(const fx::Array& a) {
    std::uint64_t n = FieldOverhead * (2 + a.getDimensions().size());
    auto count = a.getNumberOfElements();
    switch (a.getType()) {
    case fx::UNKNOWN:
        return 0;
    case fx::STRING:
        for (std::size_t i = 0; i < count && n <= MaxMessageBytes; ++i) {
            n += FieldOverhead + 2 * a.getString(i).size();
        }
        return n;
    case fx::CELL:
        for (std::size_t i = 0; i < count && n <= MaxMessageBytes; ++i) {
            n += FieldOverhead + sizeBound(a.getCell(i));
        }
        return n;
    case fx::STRUCT: {
        auto& names = a.getFieldNames();
        for (auto& name : names) {
            n += FieldOverhead + name.size();
        }
        // Loops run over values, not elements: a struct without fields may claim any count.
        for (std::size_t i = 0; !names.empty() && i < count && n <= MaxMessageBytes; ++i) {
            for (std::size_t f = 0; f < names.size() && n <= MaxMessageBytes; ++f) {
                n += FieldOverhead + sizeBound(a.getField(i, f));
            }
        }
        return n;
    }
    default:
        return n + FieldOverhead + a.getRawByteCount();
    }
}

std::string toBytes(const std::u16string& s) {
    return std::string(reinterpret_cast<const char*>(s.data()), s.size() * sizeof(char16_t));
}

// Everything but the element block of a plain-data array, which the caller places.
void fillHeader(const fx::Array& a, ArrayMessage& m) {
    if (a.getType() == fx::UNKNOWN) {
        return; // the empty message
    }
    m.set_type(a.getType());
    for (auto d : a.getDimensions()) {
        m.add_dims(d);
    }
    auto count = a.getNumberOfElements();
    switch (a.getType()) {
    case fx::STRING:
        for (std::size_t i = 0; i < count; ++i) {
            m.add_strings(toBytes(a.getString(i)));
        }
        break;
    case fx::CELL:
        for (std::size_t i = 0; i < count; ++i) {
            auto& e = *m.add_elements();
            fillHeader(a.getCell(i), e);
            if (fx::isPlainDataType(a.getCell(i).getType())) {
                e.set_data(a.getCell(i).getRawData(), a.getCell(i).getRawByteCount());
            }
        }
        break;
    case fx::STRUCT:
        for (auto& name : a.getFieldNames()) {
            m.add_field_names(name);
        }
        for (std::size_t i = 0; !a.getFieldNames().empty() && i < count; ++i) {
            for (std::size_t f = 0; f < a.getFieldNames().size(); ++f) {
                auto& v = a.getField(i, f);
                auto& e = *m.add_elements();
                fillHeader(v, e);
                if (fx::isPlainDataType(v.getType())) {
                    e.set_data(v.getRawData(), v.getRawByteCount());
                }
            }
        }
        break;
    default:
        break;
    }
}

[[noreturn]] void invalid(const std::string& why) {
    throw std::runtime_error("Invalid data array bytes: " + why + ".");
}

// block: the top level's element block when it was read apart from the message.
fx::Array toArray(ArrayMessage& m, std::shared_ptr<char>* block = nullptr,
                  std::size_t blockSize = 0) {
    if (m.type() < 0 || m.type() > fx::ArrayTypeLast) {
        invalid("unknown type " + std::to_string(m.type()));
    }
    auto type = static_cast<fx::ArrayType>(m.type());
    if (block && !m.data().empty()) {
        invalid("two element blocks");
    }
    if (type == fx::UNKNOWN) {
        if (m.dims_size() || !m.data().empty() || block || m.strings_size() || m.elements_size() ||
            m.field_names_size()) {
            invalid("a default array with contents");
        }
        return fx::Array();
    }
    fx::Array::Dims dims(m.dims().begin(), m.dims().end());
    // The Array factories check shapes and sizes; their complaints are bad input here.
    try {
        if (fx::isPlainDataType(type)) {
            if (m.strings_size() || m.elements_size() || m.field_names_size()) {
                invalid("a numeric array with other contents");
            }
            if (block) {
                return fx::Array::adoptBytes(type, std::move(dims), std::move(*block), blockSize);
            }
            return fx::Array::adoptBytes(type, std::move(dims), std::move(*m.mutable_data()));
        }
        if (!m.data().empty() || block) {
            invalid("an element block in a non-numeric array");
        }
        switch (type) {
        case fx::STRING: {
            if (m.elements_size() || m.field_names_size()) {
                invalid("a string array with other contents");
            }
            std::vector<std::u16string> values;
            values.reserve(static_cast<std::size_t>(m.strings_size()));
            for (auto& s : m.strings()) {
                if (s.size() % sizeof(char16_t) != 0) {
                    invalid("a string of an odd number of bytes");
                }
                std::u16string u(s.size() / sizeof(char16_t), u'\0');
                std::memcpy(&u[0], s.data(), s.size());
                values.push_back(std::move(u));
            }
            return fx::Array::createString(std::move(dims), std::move(values));
        }
        case fx::CELL:
        case fx::STRUCT: {
            if (m.strings_size() || (type == fx::CELL && m.field_names_size())) {
                invalid("a container with string contents");
            }
            std::vector<fx::Array> elements;
            elements.reserve(static_cast<std::size_t>(m.elements_size()));
            for (auto& e : *m.mutable_elements()) {
                elements.push_back(toArray(e));
            }
            if (type == fx::CELL) {
                return fx::Array::createCell(std::move(dims), std::move(elements));
            }
            std::vector<std::string> names(m.field_names().begin(), m.field_names().end());
            return fx::Array::createStruct(std::move(dims), std::move(names), std::move(elements));
        }
        default:
            invalid("unknown type");
        }
    } catch (const std::invalid_argument& e) {
        invalid(e.what());
    }
}

} // namespace

void ProtobufDataArraySerializer::serializeDataArray(const fx::Array& array, std::ostream& out) {
    if (array.getType() == fx::UNKNOWN) {
        return; // the empty message
    }
    auto bound = sizeBound(array);
    if (bound > MaxMessageBytes) {
        throw std::runtime_error("Data array too large for a Protocol Buffers message (over " +
                                 std::to_string(MaxMessageBytes) + " bytes).");
    }
    ArrayMessage m;
    fillHeader(array, m);
    std::string header;
    if (!m.SerializeToString(&header)) {
        throw std::runtime_error("Cannot encode the data array.");
    }
    const char* block = nullptr;
    std::size_t blockSize = 0;
    if (fx::isPlainDataType(array.getType())) {
        // Field 3 ("data") appended after the others: a field's position in a message is free,
        // and the element block goes to the stream without an intermediate copy.
        block = static_cast<const char*>(array.getRawData());
        blockSize = array.getRawByteCount();
        std::uint8_t framing[16];
        auto end = google::protobuf::io::CodedOutputStream::WriteTagToArray(
            google::protobuf::internal::WireFormatLite::MakeTag(
                ArrayMessage::kDataFieldNumber,
                google::protobuf::internal::WireFormatLite::WIRETYPE_LENGTH_DELIMITED),
            framing);
        end = google::protobuf::io::CodedOutputStream::WriteVarint64ToArray(blockSize, end);
        header.append(reinterpret_cast<const char*>(framing),
                      static_cast<std::size_t>(end - framing));
    }
    out.write(header.data(), static_cast<std::streamsize>(header.size()));
    if (blockSize) {
        out.write(block, static_cast<std::streamsize>(blockSize));
    }
    if (!out) {
        throw std::runtime_error("Cannot write the data array bytes to the stream.");
    }
}

namespace {

bool readVarint(std::istream& in, std::uint64_t& value, std::string* copy) {
    value = 0;
    for (int shift = 0; shift < 64; shift += 7) {
        auto c = in.get();
        if (c == std::char_traits<char>::eof()) {
            if (shift == 0) {
                return false; // clean end of the message
            }
            invalid("truncated number");
        }
        if (copy) {
            copy->push_back(static_cast<char>(c));
        }
        value |= static_cast<std::uint64_t>(c & 0x7f) << shift;
        if (!(c & 0x80)) {
            return true;
        }
    }
    invalid("overlong number");
}

void readBytes(std::istream& in, char* to, std::size_t n) {
    if (n && !in.read(to, static_cast<std::streamsize>(n))) {
        invalid("truncated field");
    }
}

// Bytes left in a seekable stream, or the message limit when the stream cannot tell.
std::uint64_t remaining(std::istream& in) {
    auto here = in.tellg();
    if (here == std::istream::pos_type(-1)) {
        in.clear();
        return MaxMessageBytes;
    }
    in.seekg(0, std::ios::end);
    auto end = in.tellg();
    in.seekg(here);
    if (end == std::istream::pos_type(-1) || !in) {
        in.clear();
        return MaxMessageBytes;
    }
    return static_cast<std::uint64_t>(end - here);
}

} // namespace

fx::Array ProtobufDataArraySerializer::deserializeDataArray(std::istream& in) {
    // The top level of the message is framed here so that the element block goes from the
    // stream straight into the array's storage; every other field is collected and parsed by
    // Protocol Buffers, which checks the nested messages.
    std::uint64_t left = remaining(in);
    if (left > MaxMessageBytes) {
        invalid("more bytes than a message may hold");
    }
    std::string rest;
    // The element block, not zero-filled first: the stream fills it.
    std::shared_ptr<char> block;
    std::size_t blockSize = 0;
    bool haveBlock = false;
    std::uint64_t tag = 0;
    for (auto mark = rest.size(); readVarint(in, tag, &rest); mark = rest.size()) {
        auto field = tag >> 3;
        auto wireType = tag & 7;
        if (field == 0 || field > 0x1fffffff) {
            invalid("bad field number");
        }
        std::uint64_t n = 0;
        switch (wireType) {
        case 0:
            if (!readVarint(in, n, &rest)) {
                invalid("truncated number");
            }
            break;
        case 1:
        case 5: {
            char fixed[8];
            readBytes(in, fixed, wireType == 1 ? 8 : 4);
            rest.append(fixed, wireType == 1 ? 8 : 4);
            break;
        }
        case 2: {
            if (field == ArrayMessage::kDataFieldNumber) {
                rest.resize(mark); // the block is not copied into the rest
                if (!readVarint(in, n, nullptr)) {
                    invalid("truncated length");
                }
                if (n > left) {
                    invalid("a field longer than the message");
                }
                blockSize = static_cast<std::size_t>(n);
                block.reset(new char[blockSize ? blockSize : 1], std::default_delete<char[]>());
                readBytes(in, block.get(), blockSize);
                haveBlock = true;
                break;
            }
            if (!readVarint(in, n, &rest)) {
                invalid("truncated length");
            }
            if (n > left) {
                invalid("a field longer than the message");
            }
            auto at = rest.size();
            rest.resize(at + static_cast<std::size_t>(n));
            readBytes(in, &rest[at], static_cast<std::size_t>(n));
            break;
        }
        default:
            invalid("unsupported wire type");
        }
    }
    if (in.bad()) {
        throw std::runtime_error("Cannot read the data array bytes from the stream.");
    }
    ArrayMessage m;
    if (!m.ParseFromString(rest)) {
        invalid("not an array message");
    }
    return toArray(m, haveBlock ? &block : nullptr, blockSize);
}

} // namespace dataarray
} // namespace quorl
