#include <quorl/extstring/extstring.hpp>

#include <gtest/gtest.h>

#include <cstdint>

using namespace quorl::extstring;

namespace {

HvArrayPtr text(const char* s) {
    return HvArrayPtr(hvCreateStringObject(s));
}

// The char rows of an external string's payload, joined by '|'.
std::string payloadText(const hvArray* ext) {
    auto payload = extstrGetStringData(ext);
    EXPECT_EQ(hvGetClassID(payload.get()), hvCELL_CLASS);
    std::string out;
    for (std::size_t i = 0; i < hvGetNumberOfElements(payload.get()); ++i) {
        out += (i ? "|" : "") + hvArrayToStdString(hvGetCell(payload.get(), i));
    }
    return out;
}

HvArrayPtr roundTrip(const hvArray* a) {
    HvArrayPtr bytes(hvSerialize(a));
    return HvArrayPtr(
        hvDeserialize(hvGetReadOnlyData(bytes.get()), hvGetNumberOfElements(bytes.get())));
}

} // namespace

TEST(ExtString, NothingIsExternalBeforeInit) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // A fresh process, where the class is not registered yet.
    EXPECT_EXIT(
        {
            auto s = text("abc");
            auto raw = s.get();
            bool external = extstrIsExternalString(s.get());
            auto same = extstrCreateConvertedStringCopy(s);
            bool unchanged = same.get() == raw && !s && hvIsA(same.get(), "string");
            bool noneMade = !extstrCreateString(same);
            std::exit(!external && unchanged && noneMade ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(ExtString, StringsCrossByValueAloneAndNested) {
    extstrInitExtString();
    extstrInitExtString();
    auto baseline = hvGetArrayListCount();
    {
        auto s = text("h\xc3\xa9llo");
        auto ext = extstrCreateConvertedStringCopy(s);
        ASSERT_TRUE(extstrIsExternalString(ext.get()));
        EXPECT_EQ(hvGetClassName(ext.get()), extstrGetClassName());
        EXPECT_EQ(hvGetNumberOfElements(ext.get()), 1u);
        EXPECT_EQ(payloadText(ext.get()), "h\xc3\xa9llo");
        EXPECT_FALSE(extstrIsExternalString(hvGetCell(extstrGetStringData(ext.get()).get(), 0)));

        // A cell holding a string and a number, inside a struct field, next to a plain field.
        HvArrayPtr cell(hvCreateCellMatrix(1, 2));
        hvSetCell(cell.get(), 0, text("inner").release());
        hvSetCell(cell.get(), 1, hvCreateDoubleScalar(5));
        const char* fields[] = {"c", "s", "n"};
        HvArrayPtr st(hvCreateStructMatrix(1, 1, 3, fields));
        hvSetField(st.get(), 0, "c", cell.release());
        hvSetField(st.get(), 0, "s", text("top").release());
        hvSetField(st.get(), 0, "n", hvCreateDoubleScalar(7));
        HvArrayPtr kept(hvCreateSharedDataCopy(st.get()));

        auto converted = extstrCreateConvertedStringCopy(st);
        auto c = hvGetField(converted.get(), 0, "c");
        ASSERT_EQ(hvGetClassID(c), hvCELL_CLASS);
        EXPECT_TRUE(extstrIsExternalString(hvGetCell(c, 0)));
        EXPECT_EQ(payloadText(hvGetCell(c, 0)), "inner");
        EXPECT_EQ(hvGetScalar(hvGetCell(c, 1)), 5.0);
        EXPECT_EQ(payloadText(hvGetField(converted.get(), 0, "s")), "top");
        EXPECT_EQ(hvGetScalar(hvGetField(converted.get(), 0, "n")), 7.0);
        EXPECT_FALSE(hvDoesArrayContainObjects(converted.get()) &&
                     hvIsA(hvGetField(converted.get(), 0, "s"), "string"));

        // A copy that shared the data still holds the true strings.
        EXPECT_TRUE(hvIsA(hvGetField(kept.get(), 0, "s"), "string"));
        EXPECT_TRUE(hvIsA(hvGetCell(hvGetField(kept.get(), 0, "c"), 0), "string"));

        // Arrays without strings come back as they are.
        HvArrayPtr plain(hvCreateDoubleScalar(2));
        auto raw = plain.get();
        EXPECT_EQ(extstrCreateConvertedStringCopy(plain).get(), raw);
        HvArrayPtr none;
        EXPECT_EQ(extstrCreateConvertedStringCopy(none), nullptr);
    }
    EXPECT_EQ(hvGetArrayListCount(), baseline) << "arrays leaked";
}

TEST(ExtString, CreateFromStringArraysCellsAndNothingElse) {
    extstrInitExtString();
    const char* words[] = {"a", "bc", "", "d"};
    std::size_t dims[] = {2, 2};
    HvArrayPtr many(hvCreateStringObjectArray(2, dims, words));
    auto ext = extstrCreateString(many);
    ASSERT_TRUE(extstrIsExternalString(ext.get()));
    EXPECT_TRUE(many) << "the argument stays with the caller";
    EXPECT_EQ(payloadText(ext.get()), "a|bc||d");
    EXPECT_EQ(hvGetM(extstrGetStringData(ext.get()).get()), 2u);

    HvArrayPtr cell(hvCreateCellMatrix(1, 1));
    hvSetCell(cell.get(), 0, hvCreateString("x"));
    auto fromCell = extstrCreateString(cell);
    EXPECT_EQ(payloadText(fromCell.get()), "x");
    EXPECT_TRUE(hvAreMatricesEqual(extstrGetStringData(fromCell.get()).get(), cell.get()));

    HvArrayPtr number(hvCreateDoubleScalar(1));
    EXPECT_EQ(extstrCreateString(number), nullptr);
    EXPECT_EQ(extstrGetStringData(number.get()), nullptr);
    EXPECT_FALSE(extstrIsExternalString(nullptr));
}

TEST(ExtString, EqualityAndCopiesGoByPayload) {
    extstrInitExtString();
    auto a1 = text("same");
    auto a2 = text("same");
    auto b1 = text("other");
    auto a = extstrCreateString(a1);
    auto a2ext = extstrCreateString(a2);
    auto b = extstrCreateString(b1);
    EXPECT_TRUE(hvAreMatricesEqual(a.get(), a2ext.get()));
    EXPECT_FALSE(hvAreMatricesEqual(a.get(), b.get()));

    auto baseline = hvGetArrayListCount();
    {
        HvArrayPtr copy(hvCreateSharedDataCopy(a.get()));
        HvArrayPtr dup(hvDuplicateArray(a.get()));
        EXPECT_TRUE(extstrIsExternalString(copy.get()));
        EXPECT_TRUE(hvAreMatricesEqual(copy.get(), a.get()));
        EXPECT_TRUE(hvAreMatricesEqual(dup.get(), a.get()));
        a.reset(); // copies keep their own payload headers
        EXPECT_EQ(payloadText(copy.get()), "same");
        EXPECT_EQ(payloadText(dup.get()), "same");
    }
    EXPECT_LT(hvGetArrayListCount(), baseline);
}

TEST(ExtString, LoadMakesATrueStringOrStaysExternal) {
    extstrInitExtString();
    auto s = text("travel");
    auto ext = extstrCreateString(s);

    auto loaded = roundTrip(ext.get());
    ASSERT_TRUE(hvIsA(loaded.get(), "string"));
    EXPECT_EQ(hvArrayToStdString(loaded.get()), "travel");

    hvSetStringClassAvailable(false);
    HvArrayPtr stayed;
    try {
        stayed = roundTrip(ext.get());
    } catch (...) {
        hvSetStringClassAvailable(true);
        throw;
    }
    hvSetStringClassAvailable(true);
    ASSERT_TRUE(extstrIsExternalString(stayed.get()));
    EXPECT_TRUE(hvAreMatricesEqual(extstrGetStringData(stayed.get()).get(),
                                   extstrGetStringData(ext.get()).get()));

    // Made by class name, an external string holds no payload yet.
    HvArrayPtr byName(hvCreateClassArray(extstrGetClassName().c_str(), 1, 1));
    EXPECT_TRUE(extstrIsExternalString(byName.get()));
    EXPECT_EQ(extstrGetStringData(byName.get()), nullptr);
}
