#include <quorl/language/valueops.hpp>

#include <quorl/language/languageerror.hpp>

#include <gtest/gtest.h>

namespace {

using namespace quorl::language;

Subscript at(std::vector<double> oneBased) {
    return makeSubscript(makeDoubleArray({1, oneBased.size()}, oneBased));
}

Subscript all() {
    Subscript s;
    s.colon = true;
    return s;
}

Value row(std::vector<double> v) {
    return makeDoubleArray({1, v.size()}, v);
}

TEST(ValueOpsIndexing, GrowthKeepsElementsAndFillsWithZeros) {
    Value v;
    assignIndex(v, {at({3})}, Value::number(7));
    EXPECT_EQ(v.dims(), (std::vector<std::size_t>{1, 3}));
    EXPECT_EQ(v.doubles(), (std::vector<double>{0, 0, 7}));
    Value m = makeDoubleArray({2, 2}, {1, 2, 3, 4});
    assignIndex(m, {at({3}), at({3})}, Value::number(9));
    EXPECT_EQ(m.dims(), (std::vector<std::size_t>{3, 3}));
    EXPECT_EQ(m.doubles(), (std::vector<double>{1, 2, 0, 3, 4, 0, 0, 0, 9}));
    // A matrix cannot grow through one linear index.
    Value m2 = makeDoubleArray({2, 2}, {1, 2, 3, 4});
    EXPECT_THROW(assignIndex(m2, {at({7})}, Value::number(1)), LanguageError);
    // Cells grow with empty elements; chars keep their class.
    Value c;
    assignCell(c, {at({2})}, Value::text("x"));
    EXPECT_TRUE(c.isCell());
    EXPECT_EQ(c.numel(), 2u);
    EXPECT_TRUE(cellAt(c, 0).isEmpty());
    Value s = Value::text("ab");
    assignIndex(s, {at({4})}, Value::text("d"));
    EXPECT_TRUE(s.isChar());
    EXPECT_EQ(s.numel(), 4u);
}

TEST(ValueOpsIndexing, SharedCopiesAreNotChangedByAssignment) {
    Value a = row({1, 2, 3});
    Value b = a;
    assignIndex(b, {at({2})}, Value::number(20));
    EXPECT_EQ(a.doubles(), (std::vector<double>{1, 2, 3}));
    EXPECT_EQ(b.doubles(), (std::vector<double>{1, 20, 3}));
}

TEST(ValueOpsIndexing, ReadsBoundsMasksAndShapes) {
    Value m = makeDoubleArray({2, 3}, {1, 2, 3, 4, 5, 6});
    EXPECT_EQ(indexValue(m, {all(), at({2})}).doubles(), (std::vector<double>{3, 4}));
    EXPECT_EQ(indexValue(m, {all()}).dims(), (std::vector<std::size_t>{6, 1}));
    Value mask = makeLogicalArray({1, 3}, {true, false, true});
    Value r = row({10, 20, 30});
    EXPECT_EQ(indexValue(r, {makeSubscript(mask)}).doubles(), (std::vector<double>{10, 30}));
    try {
        indexValue(r, {at({4})});
        FAIL() << "no error";
    } catch (LanguageError const& e) {
        EXPECT_EQ(e.identifier(), errid::indexOutOfBounds);
    }
    EXPECT_THROW(makeSubscript(Value::number(0)), LanguageError);
    EXPECT_THROW(makeSubscript(Value::number(1.5)), LanguageError);
}

TEST(ValueOpsIndexing, DeletionOfElementsRowsAndColumns) {
    Value r = row({1, 2, 3, 4});
    deleteElements(r, {at({2, 4})});
    EXPECT_EQ(r.doubles(), (std::vector<double>{1, 3}));
    Value m = makeDoubleArray({2, 3}, {1, 2, 3, 4, 5, 6});
    deleteElements(m, {all(), at({2})});
    EXPECT_EQ(m.dims(), (std::vector<std::size_t>{2, 2}));
    EXPECT_EQ(m.doubles(), (std::vector<double>{1, 2, 5, 6}));
    deleteElements(m, {at({1}), all()});
    EXPECT_EQ(m.doubles(), (std::vector<double>{2, 6}));
    Value m3 = makeDoubleArray({2, 2}, {1, 2, 3, 4});
    EXPECT_THROW(deleteElements(m3, {at({1}), at({1})}), LanguageError);
}

TEST(ValueOpsArithmetic, ExpansionClassesAndMismatches) {
    Value m = makeDoubleArray({2, 2}, {1, 2, 3, 4});
    EXPECT_EQ(binaryOp(Op::Plus, m, Value::number(1)).doubles(), (std::vector<double>{2, 3, 4, 5}));
    EXPECT_EQ(binaryOp(Op::Times, m, m).doubles(), (std::vector<double>{7, 10, 15, 22}));
    EXPECT_EQ(binaryOp(Op::ElTimes, m, m).doubles(), (std::vector<double>{1, 4, 9, 16}));
    try {
        binaryOp(Op::Plus, row({1, 2, 3}), row({1, 2}));
        FAIL() << "no error";
    } catch (LanguageError const& e) {
        EXPECT_EQ(e.identifier(), errid::dimensionMismatch);
    }
    EXPECT_THROW(binaryOp(Op::Times, row({1, 2, 3}), row({1, 2, 3})), LanguageError);
    // Integers saturate and round; comparisons give logicals.
    Value i8 = convertClass(Value::number(100), hvINT8_CLASS);
    Value sum = binaryOp(Op::Plus, i8, Value::number(100));
    EXPECT_EQ(sum.classID(), hvINT8_CLASS);
    EXPECT_EQ(sum.scalar(), 127);
    EXPECT_EQ(binaryOp(Op::RDiv, i8, Value::number(3)).scalar(), 33);
    EXPECT_EQ(binaryOp(Op::Lt, m, Value::number(3)).classID(), hvLOGICAL_CLASS);
    // A square system solved by '\'.
    Value A = makeDoubleArray({2, 2}, {2, 1, 1, 3});
    Value b = makeDoubleArray({2, 1}, {3, 5});
    std::vector<double> x = binaryOp(Op::LDiv, A, b).doubles();
    EXPECT_NEAR(x[0], 0.8, 1e-12);
    EXPECT_NEAR(x[1], 1.4, 1e-12);
}

TEST(ValueOpsConcatenation, ClassesAndConsistency) {
    Value h = horzcat({Value::text("ab"), Value::number(99)});
    EXPECT_TRUE(h.isChar());
    EXPECT_EQ(h.str(), "abc");
    Value v = vertcat({row({1, 2}), row({3, 4})});
    EXPECT_EQ(v.dims(), (std::vector<std::size_t>{2, 2}));
    EXPECT_EQ(v.doubles(), (std::vector<double>{1, 3, 2, 4}));
    EXPECT_THROW(vertcat({row({1, 2}), row({3})}), LanguageError);
    // Empty matrices vanish from concatenation.
    EXPECT_EQ(horzcat({Value::empty(), row({5})}).doubles(), (std::vector<double>{5}));
}

} // namespace
