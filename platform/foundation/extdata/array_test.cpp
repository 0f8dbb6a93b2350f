#include <foundation/extdata/array.hpp>
#include <foundation/extdata/array/detail/defaultvariableinfoimpl.hpp>
#include <foundation/extdata/array/variableinfo.hpp>
#include <foundation/extdata/array/variableinfoimpldata.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using foundation::extdata::Array;
namespace fx = foundation::extdata;

TEST(Array, DefaultConstructedIsTheOnlyTypeZero) {
    Array a;
    EXPECT_EQ(a.getType(), 0);
    EXPECT_EQ(a.getDimensions(), (Array::Dims{0, 0}));
    EXPECT_TRUE(a.isEmpty());
    EXPECT_EQ(a, Array());

    // Empty arrays of real types are not default-constructed ones.
    EXPECT_NE(Array::createZeros(fx::DOUBLE, {0, 0}).getType(), 0);
    EXPECT_NE(Array::createCell({0, 0}, {}), Array());
    EXPECT_NE(Array::createString({0, 0}, {}).getType(), 0);
    EXPECT_NE(Array::createZeros(fx::DOUBLE, {0, 0}), Array());
}

TEST(Array, TypedValuesKeepTypeShapeAndContents) {
    auto d = Array::create<double>({2, 3}, {1, 2, 3, 4, 5, 6});
    EXPECT_EQ(d.getType(), fx::DOUBLE);
    EXPECT_EQ(d.getNumberOfElements(), 6u);
    EXPECT_EQ(d.getRawByteCount(), 48u);
    EXPECT_EQ(d.get<double>(5), 6.0);
    EXPECT_THROW(d.get<float>(0), std::logic_error);
    EXPECT_THROW(d.get<double>(6), std::out_of_range);

    auto l = Array::createLogical({1, 3}, {true, false, true});
    EXPECT_EQ(l.getType(), fx::LOGICAL);
    EXPECT_TRUE(l.get<bool>(2));
    EXPECT_FALSE(l.get<bool>(1));

    auto c = Array::createChar(u"h\u00e9llo");
    EXPECT_EQ(c.getDimensions(), (Array::Dims{1, 5}));
    EXPECT_EQ(c.getCharacters(), u"h\u00e9llo");

    auto i = Array::createScalar<std::int64_t>(std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(i.get<std::int64_t>(0), std::numeric_limits<std::int64_t>::min());

    auto s = Array::createString({1, 2}, {u"ab", u""});
    EXPECT_EQ(s.getString(0), u"ab");
    EXPECT_EQ(s.getString(1), u"");
}

TEST(Array, BadShapesAndDataAreRejected) {
    EXPECT_THROW(Array::create<double>({2, 2}, {1, 2, 3}), std::invalid_argument);
    EXPECT_THROW(Array::create<double>({4}, {1, 2, 3, 4}), std::invalid_argument);
    EXPECT_THROW(Array::createZeros(fx::CELL, {1, 1}), std::invalid_argument);
    EXPECT_THROW(Array::createZeros(fx::DOUBLE, {std::numeric_limits<std::size_t>::max(), 2}),
                 std::invalid_argument);
    EXPECT_THROW(Array::createZeros(fx::DOUBLE, {std::size_t(1) << 62, 1}), std::invalid_argument);
    EXPECT_THROW(Array::adoptBytes(fx::LOGICAL, {1, 1}, std::string(1, '\x02')),
                 std::invalid_argument);
    EXPECT_THROW(Array::adoptBytes(fx::INT16, {1, 1}, nullptr, 2), std::invalid_argument);
    std::shared_ptr<char> three(new char[3](), std::default_delete<char[]>());
    EXPECT_THROW(Array::adoptBytes(fx::INT16, {1, 1}, three, 3), std::invalid_argument);
    EXPECT_EQ(Array::adoptBytes(fx::UINT8, {1, 3}, three, 3),
              Array::create<std::uint8_t>({1, 3}, {0, 0, 0}));
    EXPECT_THROW(Array::createCell({1, 2}, {Array()}), std::invalid_argument);
    EXPECT_THROW(Array::createStruct({1, 1}, {"a", "a"}, {Array(), Array()}),
                 std::invalid_argument);
    EXPECT_THROW(Array::createStruct({1, 2}, {"a"}, {Array()}), std::invalid_argument);
    EXPECT_THROW(Array::createStruct({1, 1}, {""}, {Array()}), std::invalid_argument);
}

TEST(Array, CopiesShareUntilOneChanges) {
    auto a = Array::create<double>({1, 3}, {1, 2, 3});
    auto b = a;
    EXPECT_TRUE(b.sharesStorageWith(a));
    b.set<double>(1, 20);
    EXPECT_FALSE(b.sharesStorageWith(a));
    EXPECT_EQ(a.get<double>(1), 2.0);
    EXPECT_EQ(b.get<double>(1), 20.0);

    auto cell = Array::createCell({1, 2}, {a, Array::createString(u"x")});
    auto cell2 = cell;
    cell2.setCell(0, b);
    EXPECT_EQ(cell.getCell(0), a);
    EXPECT_EQ(cell2.getCell(0), b);
    EXPECT_NE(cell, cell2);

    auto s = Array::createString({1, 1}, {u"one"});
    auto s2 = s;
    s2.setString(0, u"two");
    EXPECT_EQ(s.getString(0), u"one");
}

TEST(Array, StructFieldsByNameAndNumber) {
    auto s = Array::createStruct({1, 2}, {"x", "y"},
                                 {Array::createScalar(1.0), Array::createChar(u"a"),
                                  Array::createScalar(2.0), Array::createChar(u"b")});
    EXPECT_EQ(s.getField(1, "x"), Array::createScalar(2.0));
    EXPECT_EQ(s.getField(0, 1), Array::createChar(u"a"));
    EXPECT_THROW(s.getField(0, "z"), std::out_of_range);
    EXPECT_THROW(s.getField(0, 2), std::out_of_range);

    auto t = s;
    t.setField(1, "z", Array::createScalar(9.0));
    EXPECT_FALSE(s.hasField("z"));
    EXPECT_EQ(t.getFieldNames(), (std::vector<std::string>{"x", "y", "z"}));
    EXPECT_EQ(t.getField(1, "z"), Array::createScalar(9.0));
    EXPECT_EQ(t.getField(0, "z"), Array());
    // Existing values keep their places after the new field went in.
    EXPECT_EQ(t.getField(1, "y"), Array::createChar(u"b"));
    EXPECT_EQ(t.getField(0, "x"), Array::createScalar(1.0));
}

TEST(Array, EqualityIsByValueAndBits) {
    auto nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(Array::createScalar(nan), Array::createScalar(nan));
    EXPECT_NE(Array::createScalar(0.0), Array::createScalar(-0.0));
    EXPECT_NE(Array::createScalar(1.0), Array::createScalar(1.0f));
    EXPECT_NE(Array::create<double>({1, 2}, {1, 2}), Array::create<double>({2, 1}, {1, 2}));
    auto nested = [](double v) {
        return Array::createCell({1, 1},
                                 {Array::createStruct({1, 1}, {"f"}, {Array::createScalar(v)})});
    };
    EXPECT_EQ(nested(1), nested(1));
    EXPECT_NE(nested(1), nested(2));
}

TEST(VariableInfo, DefaultImplFilledAndWrapped) {
    using IVI = foundation::extdata::array::IVariableInfo;
    std::string a = "alpha", b = "beta";
    foundation::extdata::array::detail::DefaultVariableInfoImpl impl({a.c_str(), b.c_str()});
    EXPECT_EQ(impl.getStats(),
              (std::vector<IVI::VariableStatus>{IVI::StatusAbsent, IVI::StatusAbsent}));
    impl.setStatus(1, IVI::StatusValue);
    impl.setValue(1, Array::createScalar(3.0));
    EXPECT_THROW(impl.setStatus(2, IVI::StatusValue), std::out_of_range);
    a = "changed"; // the impl holds its own copies

    auto data = std::make_shared<veldra::data::detail::VariableInfoImplData>(
        impl.getPtrNames(), impl.getStats(), impl.getValues());
    foundation::extdata::array::VariableInfo info(data);
    ASSERT_EQ(info.size(), 2u);
    EXPECT_STREQ(info.getName(0), "alpha");
    EXPECT_EQ(info.getStatus(0), IVI::StatusAbsent);
    EXPECT_EQ(info.getValue(0), Array());
    EXPECT_EQ(info.getStatus(1), IVI::StatusValue);
    EXPECT_EQ(info.getValue(1), Array::createScalar(3.0));
    EXPECT_THROW(info.getValue(2), std::out_of_range);
    EXPECT_THROW(foundation::extdata::array::VariableInfo().getStatus(0), std::out_of_range);

    EXPECT_THROW(veldra::data::detail::VariableInfoImplData(std::vector<std::string>{"x"}, {}, {}),
                 std::invalid_argument);
}
