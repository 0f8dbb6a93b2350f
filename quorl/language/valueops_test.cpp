#include <quorl/language/valueops.hpp>

#include <quorl/language/languageerror.hpp>

#include <gtest/gtest.h>

namespace {

using namespace quorl::language;

Subscript at(std::vector<double> oneBased) {
    return makeSubscript(makeDoubleArray({1, oneBased.size()}, oneBased));
}

Value row(std::vector<double> v) {
    return makeDoubleArray({1, v.size()}, v);
}

// Growth, reads, masks, deletion, expansion, saturation and concatenation are shown end to end by
// the conformance scripts (tests/language: indexing, expressions, values); these are the cases
// that no transcript shows.
TEST(ValueOps, CasesTheTranscriptsDoNotShow) {
    // A matrix cannot grow through one linear index; a char row grows as chars, a cell with
    // empty cells.
    Value m = makeDoubleArray({2, 2}, {1, 2, 3, 4});
    EXPECT_THROW(assignIndex(m, {at({7})}, Value::number(1)), LanguageError);
    Value s = Value::text("ab");
    assignIndex(s, {at({4})}, Value::text("d"));
    EXPECT_TRUE(s.isChar());
    EXPECT_EQ(s.numel(), 4u);
    Value c;
    assignCell(c, {at({2})}, Value::text("x"));
    EXPECT_TRUE(c.isCell() && cellAt(c, 0).isEmpty());

    // Assignment to a copy leaves the shared original alone.
    Value a = row({1, 2, 3});
    Value b = a;
    assignIndex(b, {at({2})}, Value::number(20));
    EXPECT_EQ(a.doubles(), (std::vector<double>{1, 2, 3}));
    EXPECT_EQ(b.doubles(), (std::vector<double>{1, 20, 3}));

    // Matrix products need matching inner dimensions; a fractional subscript is refused.
    EXPECT_THROW(binaryOp(Op::Times, row({1, 2, 3}), row({1, 2, 3})), LanguageError);
    EXPECT_THROW(makeSubscript(Value::number(1.5)), LanguageError);
}

} // namespace
