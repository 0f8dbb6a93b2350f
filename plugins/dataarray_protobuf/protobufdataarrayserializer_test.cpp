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
        auto bytes = write(a);
        EXPECT_EQ(read(bytes), a) << "type " << a.getType();
        // A standard message; numbers, logicals and characters travel as one block.
        ArrayMessage m;
        ASSERT_TRUE(m.ParseFromString(bytes)) << "type " << a.getType();
        EXPECT_EQ(m.type(), a.getType());
        if (fx::isPlainDataType(a.getType())) {
            EXPECT_EQ(m.data(),
                      std::string(static_cast<const char*>(a.getRawData()), a.getRawByteCount()));
        }
    }
    // The default array is the empty message, both ways.
    EXPECT_EQ(write(Array()), "");
    EXPECT_EQ(read(""), Array());
}

TEST(ProtobufDataArraySerializer, TooLargeForAMessageRaises) {
    // 2100 references to one megabyte: cheap in memory, over 2 GiB once written.
    std::vector<Array> parts(2100, Array::createZeros(fx::UINT8, {1, 1 << 20}));
    for (auto& huge :
         {Array::createCell({1, 2100}, parts), Array::createStruct({1, 2100}, {"f"}, parts)}) {
        std::ostringstream out;
        EXPECT_THROW(ProtobufDataArraySerializer().serializeDataArray(huge, out),
                     std::runtime_error);
        EXPECT_TRUE(out.str().empty());
    }
}

TEST(ProtobufDataArraySerializer, MalformedBytesRaise) {
    // Rejected as invalid bytes, for the reason given by `why`.
    auto expectInvalid = [](const std::string& bytes, const std::string& why) {
        try {
            read(bytes);
            ADD_FAILURE() << "accepted; expected: " << why;
        } catch (const std::runtime_error& e) {
            std::string what = e.what();
            EXPECT_EQ(what.rfind("Invalid data array bytes: ", 0), 0u) << what;
            EXPECT_NE(what.find(why), std::string::npos) << what;
        }
    };
    expectInvalid("\xff\xff\xff", "truncated number");
    auto good = write(Array::create<double>({1, 2}, {1, 2}));
    expectInvalid(good.substr(0, good.size() - 3), "truncated field");

    // Well-formed messages whose contents no array can have.
    auto message = [](int type, std::initializer_list<std::uint64_t> dims) {
        ArrayMessage m;
        m.set_type(type);
        for (auto d : dims) {
            m.add_dims(d);
        }
        return m;
    };
    expectInvalid(encode(message(99, {})), "unknown type 99");
    expectInvalid(encode(message(-1, {})), "unknown type -1");
    expectInvalid(encode(message(fx::DOUBLE, {4})), "at least two");
    expectInvalid(encode(message(fx::CELL, {1ull << 40, 1})), "Cell array size");
    expectInvalid(encode(message(0, {0})), "a default array with contents");
    auto m = message(fx::DOUBLE, {2, 2});
    m.set_data(std::string(24, '\0'));
    expectInvalid(encode(m), "size does not match");
    m.set_dims(0, 1ull << 62);
    m.set_dims(1, 1ull << 62);
    expectInvalid(encode(m), "overflow the element count");
    m = message(fx::LOGICAL, {1, 1});
    m.set_data("\x07");
    expectInvalid(encode(m), "neither 0 nor 1");
    m = message(fx::STRING, {1, 1});
    m.add_strings("abc");
    expectInvalid(encode(m), "odd number of bytes");
    m = message(fx::STRUCT, {1, 1});
    m.add_field_names("a");
    m.add_field_names("a");
    m.add_elements();
    m.add_elements();
    expectInvalid(encode(m), "repeated field name");

    // Nesting past the parser's depth limit is refused by the parser, not followed.
    auto nestedIn = [&](int depth) {
        ArrayMessage top;
        ArrayMessage* at = &top;
        for (int i = 0; i < depth; ++i) {
            *at = message(fx::CELL, {1, 1});
            at = at->add_elements();
        }
        at->ParseFromString(write(Array::createScalar(1.0)));
        return encode(top);
    };
    auto expected = Array::createScalar(1.0);
    for (int i = 0; i < 50; ++i) {
        expected = Array::createCell({1, 1}, {expected});
    }
    EXPECT_EQ(read(nestedIn(50)), expected);
    expectInvalid(nestedIn(200), "not an array message");
}
