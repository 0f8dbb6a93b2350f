#include "protobufdataarrayserializer.hpp"

#include "dataarray.pb.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>

using foundation::extdata::Array;
namespace fx = foundation::extdata;
using quorl::dataarray::ArrayMessage;
using quorl::dataarray::ProtobufDataArraySerializer;

namespace {

std::string write(const Array& a) {
    std::ostringstream out;
    ProtobufDataArraySerializer().serializeDataArray(a, out);
    return out.str();
}

Array read(const std::string& bytes) {
    std::istringstream in(bytes);
    return ProtobufDataArraySerializer().deserializeDataArray(in);
}

std::string encode(const ArrayMessage& m) {
    return m.SerializeAsString();
}

} // namespace

TEST(ProtobufDataArraySerializer, EveryKindRoundTrips) {
    std::vector<Array> arrays{
        Array::createLogical({2, 1}, {false, true}),
        Array::createChar(u"\u00e9\U0001F600"),
        Array::create<double>({1, 3}, {std::numeric_limits<double>::quiet_NaN(), -0.0, 1e-310}),
        Array::create<float>({1, 1}, {3.5f}),
        Array::create<std::int8_t>({1, 1}, {-128}),
        Array::create<std::uint8_t>({1, 1}, {255}),
        Array::create<std::int16_t>({1, 1}, {-32768}),
        Array::create<std::uint16_t>({1, 1}, {65535}),
        Array::create<std::int32_t>({1, 1}, {std::numeric_limits<std::int32_t>::min()}),
        Array::create<std::uint32_t>({1, 1}, {std::numeric_limits<std::uint32_t>::max()}),
        Array::create<std::int64_t>({1, 1}, {std::numeric_limits<std::int64_t>::min()}),
        Array::create<std::uint64_t>({1, 1}, {std::numeric_limits<std::uint64_t>::max()}),
        Array::createZeros(fx::DOUBLE, {0, 4, 2}),
        Array::createString({2, 2}, {u"", u"a", u"\u4e2d\u6587", u"x y"}),
        Array::createCell({1, 2}, {Array(), Array::createCell({0, 0}, {})}),
        Array::createStruct({1, 0}, {"a", "b"}, {}),
        // No fields: any number of elements and nothing to write for them.
        Array::createStruct({std::size_t(1) << 62, 2}, {}, {}),
        Array::createStruct({2, 1}, {"v"}, {Array::createScalar(1.0), Array::createChar(u"c")}),
    };
    for (auto& a : arrays) {
        EXPECT_EQ(read(write(a)), a) << "type " << a.getType();
    }
    // The default array is the empty message, both ways.
    EXPECT_EQ(write(Array()), "");
    EXPECT_EQ(read(""), Array());
}

TEST(ProtobufDataArraySerializer, NumbersTravelAsOneBlockInAStandardMessage) {
    auto a = Array::create<double>({2, 2}, {1, 2, 3, 4});
    ArrayMessage m;
    ASSERT_TRUE(m.ParseFromString(write(a)));
    EXPECT_EQ(m.type(), fx::DOUBLE);
    EXPECT_EQ(m.data(), std::string(static_cast<const char*>(a.getRawData()), 32));
}

TEST(ProtobufDataArraySerializer, TooLargeForAMessageRaises) {
    // 2100 references to one megabyte: cheap in memory, over 2 GiB once written.
    auto mb = Array::createZeros(fx::UINT8, {1, 1 << 20});
    auto huge = Array::createCell({1, 2100}, std::vector<Array>(2100, mb));
    std::ostringstream out;
    EXPECT_THROW(ProtobufDataArraySerializer().serializeDataArray(huge, out), std::runtime_error);
    EXPECT_TRUE(out.str().empty());
    auto s = Array::createStruct({1, 2100}, {"f"}, std::vector<Array>(2100, mb));
    EXPECT_THROW(write(s), std::runtime_error);
}

TEST(ProtobufDataArraySerializer, MalformedBytesRaise) {
    auto expectInvalid = [](const std::string& bytes, const char* what) {
        EXPECT_THROW(read(bytes), std::runtime_error) << what;
    };
    expectInvalid("\xff\xff\xff", "garbage");
    auto good = write(Array::create<double>({1, 2}, {1, 2}));
    expectInvalid(good.substr(0, good.size() - 3), "truncated");

    ArrayMessage m;
    m.set_type(99);
    expectInvalid(encode(m), "unknown type");
    m.set_type(-1);
    expectInvalid(encode(m), "negative type");

    m = ArrayMessage();
    m.set_type(fx::DOUBLE);
    m.add_dims(2);
    m.add_dims(2);
    m.set_data(std::string(24, '\0'));
    expectInvalid(encode(m), "block too short");

    m.clear_dims();
    m.add_dims(1ull << 62);
    m.add_dims(1ull << 62);
    expectInvalid(encode(m), "element count overflow");

    m = ArrayMessage();
    m.set_type(fx::DOUBLE);
    m.add_dims(4);
    expectInvalid(encode(m), "one dimension");

    m = ArrayMessage();
    m.set_type(fx::LOGICAL);
    m.add_dims(1);
    m.add_dims(1);
    m.set_data("\x07");
    expectInvalid(encode(m), "logical not 0 or 1");

    m = ArrayMessage();
    m.set_type(fx::CELL);
    m.add_dims(1ull << 40);
    m.add_dims(1);
    expectInvalid(encode(m), "cell claims more elements than it has");

    m = ArrayMessage();
    m.set_type(fx::STRING);
    m.add_dims(1);
    m.add_dims(1);
    m.add_strings("abc");
    expectInvalid(encode(m), "odd string bytes");

    m = ArrayMessage();
    m.set_type(fx::STRUCT);
    m.add_dims(1);
    m.add_dims(1);
    m.add_field_names("a");
    m.add_field_names("a");
    m.add_elements();
    m.add_elements();
    expectInvalid(encode(m), "repeated field");

    m = ArrayMessage();
    m.add_dims(0);
    expectInvalid(encode(m), "default array with contents");

    // Nesting past the parser's depth limit is refused, not followed.
    auto wrap = [](const std::string& inner) {
        ArrayMessage cell;
        cell.set_type(fx::CELL);
        cell.add_dims(1);
        cell.add_dims(1);
        auto head = encode(cell);
        std::string length;
        for (auto n = inner.size();; n >>= 7) {
            length += static_cast<char>((n & 0x7f) | (n >= 0x80 ? 0x80 : 0));
            if (n < 0x80) {
                break;
            }
        }
        return head + "\x2a" + length + inner;
    };
    std::string nested = write(Array::createScalar(1.0));
    for (int i = 0; i < 50; ++i) {
        nested = wrap(nested);
    }
    EXPECT_EQ(read(nested).getType(), fx::CELL);
    for (int i = 0; i < 150; ++i) {
        nested = wrap(nested);
    }
    expectInvalid(nested, "deep nesting");
}
