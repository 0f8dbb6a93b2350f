#include <hv/hvarray.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

// Writable data (unshares) and read-only data (does not).
double* rw(hvArray* a) {
    return static_cast<double*>(hvGetData(a));
}
const double* ro(const hvArray* a) {
    return static_cast<const double*>(hvGetReadOnlyData(a));
}
std::vector<std::size_t> dimsOf(const hvArray* a) {
    const std::size_t* d = hvGetDimensions(a);
    return std::vector<std::size_t>(d, d + hvGetNumberOfDimensions(a));
}
using Dims = std::vector<std::size_t>;

TEST(HvArray, SharedDataCopiesAreCopyOnWrite) {
    HvArrayPtr a(hvCreateNumericMatrix(hvDOUBLE_CLASS, 2, 3));
    for (int i = 0; i < 6; ++i) {
        rw(a.get())[i] = i;
    }
    hvSetArrayScope(a.get(), hvSCOPE_WORKSPACE);
    hvRootArray(a.get(), "x");
    hvSetLink(a.get(), &a);
    HvArrayPtr b(hvCreateSharedDataCopy(a.get()));
    EXPECT_TRUE(hvIsSharedData(a.get()));
    EXPECT_EQ(ro(a.get()), ro(b.get()));
    // The copy keeps class, dims and scope, but is not the variable.
    EXPECT_EQ(hvGetArrayScope(b.get()), hvSCOPE_WORKSPACE);
    EXPECT_FALSE(hvHasRootRecord(b.get()));
    EXPECT_EQ(hvGetLink(b.get()), nullptr);
    EXPECT_EQ(dimsOf(b.get()), (Dims{2, 3}));

    rw(b.get())[0] = 42;
    EXPECT_FALSE(hvIsSharedData(a.get()));
    EXPECT_EQ(ro(a.get())[0], 0.0);
    EXPECT_EQ(ro(b.get())[0], 42.0);
    EXPECT_EQ(ro(b.get())[5], 5.0);

    // Dropping the last sharer leaves the survivor unshared, and a write stays in place.
    HvArrayPtr c(hvCreateSharedDataCopy(b.get()));
    const double* before = ro(b.get());
    c.reset();
    EXPECT_EQ(rw(b.get()), before);

    hvUnreference(a.get());
    hvUnrootArray(a.get());
    EXPECT_EQ(hvGetLink(a.get()), nullptr);
    EXPECT_FALSE(hvHasRootRecord(a.get()));
}

TEST(HvArray, CellsShareElementsUntilWritten) {
    HvArrayPtr cell(hvCreateCellMatrix(1, 2));
    hvSetCell(cell.get(), 0, hvCreateString("abc"));
    hvSetCell(cell.get(), 1, hvCreateDoubleScalar(7));
    HvArrayPtr copy(hvCreateSharedDataCopy(cell.get()));
    hvSetCell(copy.get(), 1, hvCreateDoubleScalar(8));
    EXPECT_EQ(hvGetScalar(hvGetCell(cell.get(), 1)), 7.0);
    EXPECT_EQ(hvGetScalar(hvGetCell(copy.get(), 1)), 8.0);
    // The untouched element is still one block of data shared by both cells.
    EXPECT_EQ(hvGetReadOnlyData(hvGetCell(cell.get(), 0)),
              hvGetReadOnlyData(hvGetCell(copy.get(), 0)));
    EXPECT_EQ(hvArrayToStdString(hvGetCell(copy.get(), 0)), "abc");

    HvArrayPtr taken(hvTakeCell(copy.get(), 0));
    EXPECT_EQ(hvGetCell(copy.get(), 0), nullptr);
    EXPECT_NE(hvGetCell(cell.get(), 0), nullptr);
    EXPECT_THROW(hvGetCell(cell.get(), 2), std::out_of_range);
    EXPECT_THROW(hvSetCell(cell.get(), 0, cell.get()), std::invalid_argument);
    EXPECT_THROW(hvGetCell(taken.get(), 0), std::invalid_argument);
}

TEST(HvArray, StructsKeepFieldOrderAndAddressSlots) {
    const char* names[] = {"file", "name", "line"};
    HvArrayPtr s(hvCreateStructMatrix(2, 1, 3, names));
    hvSetField(s.get(), 1, "line", hvCreateDoubleScalar(12));
    hvSetField(s.get(), 0, "name", hvCreateString("f"));
    EXPECT_EQ(hvGetNumberOfFields(s.get()), 3u);
    EXPECT_STREQ(hvGetFieldNameByNumber(s.get(), 2), "line");
    EXPECT_EQ(hvGetFieldNumber(s.get(), "name"), 1);
    EXPECT_EQ(hvGetFieldNumber(s.get(), "nope"), -1);
    EXPECT_EQ(hvGetField(s.get(), 0, "nope"), nullptr);
    EXPECT_EQ(hvGetScalar(hvGetField(s.get(), 1, "line")), 12.0);
    // Slot = element * fields + field.
    EXPECT_EQ(hvGetCell(s.get(), 1 * 3 + 2), hvGetField(s.get(), 1, "line"));

    EXPECT_EQ(hvAddField(s.get(), "extra"), 3);
    EXPECT_EQ(hvAddField(s.get(), "name"), 1);
    EXPECT_EQ(hvGetScalar(hvGetField(s.get(), 1, "line")), 12.0);
    EXPECT_EQ(matrix::get_string(hvGetField(s.get(), 0, "name")), "f");
    hvRemoveField(s.get(), 0);
    EXPECT_EQ(hvGetNumberOfFields(s.get()), 3u);
    EXPECT_EQ(hvGetScalar(hvGetField(s.get(), 1, "line")), 12.0);

    EXPECT_THROW(hvSetField(s.get(), 0, "missing", hvCreateDoubleScalar(1)), std::invalid_argument);
    EXPECT_THROW(hvGetField(s.get(), 2, "line"), std::out_of_range);
    const char* dup[] = {"a", "a"};
    EXPECT_THROW(hvCreateStructMatrix(1, 1, 2, dup), std::invalid_argument);

    HvArrayPtr element(hvSubscriptedReference(s.get(), 2));
    EXPECT_EQ(hvGetNumberOfElements(element.get()), 1u);
    EXPECT_EQ(hvGetScalar(hvGetField(element.get(), 0, "line")), 12.0);
}

TEST(HvArray, DimensionsElementsAndScalars) {
    const std::size_t dims[] = {2, 3, 4, 1, 1};
    HvArrayPtr a(hvCreateNumericArray(hvINT16_CLASS, 5, dims));
    EXPECT_EQ(dimsOf(a.get()), (Dims{2, 3, 4}));
    EXPECT_EQ(hvGetN(a.get()), 12u);
    EXPECT_EQ(hvGetNumberOfElements(a.get()), 24u);
    EXPECT_EQ(hvGetElementSize(a.get()), 2u);
    static_cast<std::int16_t*>(hvGetData(a.get()))[23] = -5;
    HvArrayPtr last(hvSubscriptedReference(a.get(), 24));
    EXPECT_EQ(hvGetClassID(last.get()), hvINT16_CLASS);
    EXPECT_EQ(hvGetScalar(last.get()), -5.0);
    EXPECT_THROW(hvSubscriptedReference(a.get(), 25), std::out_of_range);
    EXPECT_THROW(hvSubscriptedReference(a.get(), 0), std::out_of_range);

    // Growing keeps elements in linear order and zero-fills.
    HvArrayPtr row(hvCreateDoubleScalar(3));
    const std::size_t grown[] = {1, 3};
    hvSetDimensions(row.get(), 2, grown);
    EXPECT_EQ(ro(row.get())[0], 3.0);
    EXPECT_EQ(ro(row.get())[2], 0.0);

    EXPECT_EQ(hvGetScalar(HvArrayPtr(hvCreateNumericScalar(hvUINT8_CLASS, 300)).get()), 255.0);
    HvArrayPtr sat(hvCreateNumericScalar(hvINT32_CLASS, -1e12));
    EXPECT_EQ(hvGetScalar(sat.get()), -2147483648.0);
    // 64-bit limits are stored exactly (they have no double of their own).
    auto int64Of = [](double v) {
        HvArrayPtr a(hvCreateNumericScalar(hvINT64_CLASS, v));
        return *static_cast<const std::int64_t*>(hvGetReadOnlyData(a.get()));
    };
    EXPECT_EQ(int64Of(1e300), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(int64Of(-1e300), std::numeric_limits<std::int64_t>::lowest());
    HvArrayPtr u64(hvCreateNumericScalar(hvUINT64_CLASS, 1e300));
    EXPECT_EQ(*static_cast<const std::uint64_t*>(hvGetReadOnlyData(u64.get())),
              std::numeric_limits<std::uint64_t>::max());
    HvArrayPtr empty = matrix::detail::create_numeric(hvDOUBLE_CLASS, 0, 1);
    EXPECT_EQ(dimsOf(empty.get()), (Dims{0, 1}));
    EXPECT_EQ(hvGetScalar(empty.get()), 0.0);
    EXPECT_EQ(hvGetReadOnlyData(empty.get()), nullptr);

    HvArrayPtr fn(hvCreateFunctionHandle("sin"));
    EXPECT_THROW(hvGetScalar(fn.get()), std::invalid_argument);
    EXPECT_THROW(hvCreateNumericMatrix(hvCHAR_CLASS, 1, 1), std::invalid_argument);
    const std::size_t huge[] = {std::size_t(1) << 40, std::size_t(1) << 40};
    EXPECT_THROW(hvCreateNumericArray(hvDOUBLE_CLASS, 2, huge), std::invalid_argument);
    EXPECT_THROW(hvGetM(nullptr), std::invalid_argument);
    EXPECT_EQ(std::string(hvGetClassName(nullptr)), "");
    EXPECT_EQ(hvGetClassID(nullptr), hvUNKNOWN_CLASS);
}

TEST(HvArray, FlagsAndContentTests) {
    HvArrayPtr d(hvCreateNumericMatrix(hvDOUBLE_CLASS, 0, 0));
    EXPECT_TRUE(hvIsPlainArray(d.get()));
    hvSetFlags(d.get(), hvFLAG_NO_ELEMENT);
    EXPECT_FALSE(hvIsPlainArray(d.get()));
    hvSetFlags(d.get(), hvFLAG_SPARSE);
    EXPECT_FALSE(hvIsPlainArray(d.get()));
    EXPECT_FALSE(hvIsPlainArray(HvArrayPtr(hvCreateString("x")).get()));

    HvArrayPtr cell(hvCreateCellMatrix(1, 1));
    HvArrayPtr inner(hvCreateCellMatrix(1, 1));
    hvSetCell(inner.get(), 0, hvCreateFunctionHandle("f"));
    EXPECT_FALSE(hvDoesArrayContainObjects(cell.get()));
    hvSetCell(cell.get(), 0, inner.release());
    EXPECT_TRUE(hvDoesArrayContainObjects(cell.get()));
    EXPECT_TRUE(hvIsContainer(cell.get()));
    EXPECT_FALSE(hvIsContainer(d.get()));
    EXPECT_TRUE(hvIsA(d.get(), "double"));
    EXPECT_TRUE(hvIsA(d.get(), "numeric"));
    EXPECT_TRUE(hvIsA(d.get(), "float"));
    EXPECT_FALSE(hvIsA(d.get(), "integer"));
    EXPECT_FALSE(hvIsA(nullptr, "double"));

    hvArrayInfo info = hvGetInfo(cell.get());
    EXPECT_EQ(info.classID, hvCELL_CLASS);
    EXPECT_STREQ(info.className, "cell");
    EXPECT_EQ(info.numberOfElements, 1u);
}

TEST(HvArray, EqualityAndTextConversions) {
    HvArrayPtr a(hvCreateString("h\xc3\xa9llo"));
    HvArrayPtr b(hvCreateStringFromUtf16(u"h\u00e9llo", 5));
    EXPECT_TRUE(hvAreMatricesEqual(a.get(), b.get()));
    EXPECT_EQ(matrix::get_ustring(a.get()), u"h\u00e9llo");
    EXPECT_EQ(matrix::get_string(b.get()), "h\xc3\xa9llo");
    EXPECT_THROW(matrix::get_string(nullptr), std::invalid_argument);
    EXPECT_THROW(matrix::get_string(HvArrayPtr(hvCreateDoubleScalar(1)).get()),
                 std::invalid_argument);

    HvArrayPtr nan1(hvCreateDoubleScalar(0.0 / 0.0));
    HvArrayPtr nan2(hvCreateSharedDataCopy(nan1.get()));
    HvArrayPtr nan3(hvDuplicateArray(nan1.get()));
    EXPECT_TRUE(hvAreMatricesEqual(nan1.get(), nan2.get())); // the same data
    EXPECT_FALSE(hvAreMatricesEqual(nan1.get(), nan3.get()));
    EXPECT_TRUE(hvAreMatricesEqual(nullptr, nullptr));
    EXPECT_FALSE(hvAreMatricesEqual(nan1.get(), nullptr));
    EXPECT_FALSE(hvAreMatricesEqual(HvArrayPtr(hvCreateDoubleScalar(1)).get(),
                                    HvArrayPtr(hvCreateNumericScalar(hvSINGLE_CLASS, 1)).get()));

    HvArrayPtr c1(hvCreateCellMatrix(1, 2));
    hvSetCell(c1.get(), 0, hvCreateString("x"));
    HvArrayPtr c2(hvDuplicateArray(c1.get()));
    EXPECT_NE(hvGetReadOnlyData(hvGetCell(c1.get(), 0)), hvGetReadOnlyData(hvGetCell(c2.get(), 0)));
    EXPECT_TRUE(hvAreMatricesEqual(c1.get(), c2.get()));
    hvSetCell(c2.get(), 1, hvCreateDoubleScalar(0));
    EXPECT_FALSE(hvAreMatricesEqual(c1.get(), c2.get()));
}

TEST(HvArray, ArrayListCountsLiveArrays) {
    std::size_t before = hvGetArrayListCount();
    {
        HvArrayPtr cell(hvCreateCellMatrix(1, 3));
        for (std::size_t i = 0; i < 3; ++i) {
            hvSetCell(cell.get(), i, hvCreateDoubleScalar(double(i)));
        }
        HvArrayPtr off(hvCreateSharedCopyNotOnArrayList(cell.get()));
        EXPECT_EQ(hvGetArrayListCount(), before + 4);
        HvArrayPtr copy(hvCreateSharedDataCopy(cell.get()));
        hvSetCell(copy.get(), 0, nullptr); // unshares: three element copies, one dropped
        EXPECT_EQ(hvGetArrayListCount(), before + 7);
    }
    EXPECT_EQ(hvGetArrayListCount(), before);
}

TEST(HvArray, SharedDataSurvivesCopiesDyingOnOtherThreads) {
    HvArrayPtr source(hvCreateNumericMatrix(hvDOUBLE_CLASS, 1, 1000));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        std::vector<hvArray*> copies;
        for (int i = 0; i < 200; ++i) {
            copies.push_back(hvCreateSharedDataCopy(source.get()));
        }
        threads.emplace_back([copies]() mutable {
            for (hvArray* copy : copies) {
                static_cast<double*>(hvGetData(copy))[0] += 1; // each unshares its own
                hvDestroyArray(copy);
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_FALSE(hvIsSharedData(source.get()));
    EXPECT_EQ(ro(source.get())[0], 0.0);
}

TEST(HvArray, UtPrintfGoesToTheInstalledSink) {
    std::string captured;
    utPrintfSink previous =
        utSetPrintfSink([&captured](const char* text, std::size_t n) { captured.append(text, n); });
    utPrintf("%s=%d;", "a", 1);
    std::string longText(2000, 'x');
    utPrintf("%s", longText.c_str());
    HvArrayPtr s(hvCreateString("hi"));
    hvDisplay(s.get(), "s");
    utSetPrintfSink(previous);
    EXPECT_EQ(captured.substr(0, 4), "a=1;");
    EXPECT_EQ(captured.substr(4, 2000), longText);
    EXPECT_NE(captured.find("s =\n"), std::string::npos);
    EXPECT_NE(captured.find("'hi'"), std::string::npos);
}

TEST(HvArray, FunctionHandlePayloadIsSharedComparedByPointerAndNotSaved) {
    auto payload = std::make_shared<int>(7);
    HvArrayPtr f(hvCreateFunctionHandleWithPayload("@(x) x", payload));
    HvArrayPtr copy(hvCreateSharedDataCopy(f.get()));
    HvArrayPtr dup(hvDuplicateArray(f.get()));
    EXPECT_EQ(hvGetFunctionHandlePayload(copy.get()), payload);
    EXPECT_EQ(hvGetFunctionHandlePayload(dup.get()), payload);
    EXPECT_TRUE(hvAreMatricesEqual(f.get(), dup.get()));
    HvArrayPtr other(hvCreateFunctionHandleWithPayload("@(x) x", std::make_shared<int>(7)));
    EXPECT_FALSE(hvAreMatricesEqual(f.get(), other.get()));
    HvArrayPtr plain(hvCreateFunctionHandle("sin"));
    EXPECT_EQ(hvGetFunctionHandlePayload(plain.get()), nullptr);
    EXPECT_EQ(hvGetFunctionHandlePayload(nullptr), nullptr);
    HvArrayPtr bytes(hvSerialize(f.get()));
    HvArrayPtr back(hvDeserialize(hvGetReadOnlyData(bytes.get()), hvGetN(bytes.get())));
    EXPECT_EQ(hvGetFunctionName(back.get()), "@(x) x");
    EXPECT_EQ(hvGetFunctionHandlePayload(back.get()), nullptr);
    payload.reset();
    f.reset();
    copy.reset();
    EXPECT_NE(hvGetFunctionHandlePayload(dup.get()), nullptr); // kept alive by the last holder
}

} // namespace
