#include <quorl/matrixref/matrixref.hpp>

#include <quorl/extstring/extstring.hpp>
#include <quorl/matrixref/matrixreftable.hpp>
#include <quorl/matrixref/refpersistform.hpp>
#include <tests/matrixref/countedarrays.hpp>

#include <gtest/gtest.h>

#include <cstring>

using namespace quorl::matrixref;
using quorl::contextmgr::TarnID;
using quorl::contextmgr::UndefinedTarnID;
using quorl_testing::makeCounted;

namespace {

TarnID const S{3}, C{7}, Other{9};

// Classes that the test's conversion predicate refuses.
bool convertible(hvArray_tag const* array) {
    return std::strcmp(hvGetClassName(array), "Unconvertible") != 0;
}

MatrixRefTable& table() {
    static auto t = detail::refInitMatrixReferences({}, &convertible);
    return *t;
}

HvArrayPtr roundTrip(hvArray_tag const* array) {
    HvArrayPtr bytes(hvSerialize(array));
    return HvArrayPtr(
        hvDeserialize(hvGetReadOnlyData(bytes.get()), hvGetNumberOfElements(bytes.get())));
}

// The saved form of a reference, and a reference loaded from a form, by the class's operations.
HvArrayPtr save(hvArray_tag const* ref) {
    return HvArrayPtr(hvGetOpaqueClassOps(hvGetOpaqueClass(ref))->save(ref));
}
HvArrayPtr load(hvArray_tag const* like, hvArray_tag const* form) {
    hvOpaqueClass const* cls = hvGetOpaqueClass(like);
    return HvArrayPtr(hvGetOpaqueClassOps(cls)->load(cls, form));
}

RefTag tagOf(hvArray_tag const* ref) {
    auto read = RefPersistForm::fromArray(save(ref).get());
    return read ? read->tag : UndefinedRefTag;
}

// What hvDisplay prints for a local or remote reference with `tag`, up to `rest`.
std::string shown(char const* kind, RefTag tag, char const* rest) {
    char head[96];
    std::snprintf(head, sizeof head, "Internal_Matrix_Reference____ : %s tag 0x%08lx\n    --> ",
                  kind, static_cast<unsigned long>(tag));
    return head + std::string(rest);
}

std::uint64_t countOf(RefTag tag) {
    auto entry = table().find(tag);
    return entry ? entry->count : 0;
}

HvArrayPtr matrix2x3() {
    HvArrayPtr m(hvCreateNumericMatrix(hvDOUBLE_CLASS, 2, 3));
    auto* d = static_cast<double*>(hvGetData(m.get()));
    for (int i = 0; i < 6; ++i)
        d[i] = 10 + i;
    return m;
}

// Text printed by utPrintf while `f` runs.
template <class F> std::string printed(F f) {
    std::string out;
    utPrintfSink old =
        utSetPrintfSink([&](char const* text, std::size_t n) { out.append(text, n); });
    f();
    utSetPrintfSink(old);
    return out;
}

class MatrixRef : public ::testing::Test {
protected:
    void SetUp() override {
        table();
        active = table().countActive(false);
    }
    void TearDown() override {
        EXPECT_EQ(table().countActive(false), active) << "entries left behind";
    }
    std::size_t active = 0;
};

} // namespace

TEST(MatrixRefBeforeInit, NothingIsAReferenceAndDetailCallsDoNothing) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            HvArrayPtr number(hvCreateDoubleScalar(1));
            hvArray_tag* out = nullptr;
            HvArrayPtr which(hvCreateString("ActiveRefCount"));
            hvArray_tag* in[] = {which.get()};
            detail::refMetrics(1, &out, 1, in);
            bool quiet = !refIsRef(number) && refIsEmptyRef(number) &&
                         !refConversionIsSupported(number.get()) && !detail::refTable() &&
                         detail::refFindTag(1) == UndefinedTarnID && hvGetScalar(out) == 0;
            hvDestroyArray(out);
            detail::refRegisterExchange(C, "x");
            detail::refReleaseServiceTag(1);
            detail::refClearAll(UndefinedTarnID);
            std::exit(quiet ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(MatrixRef, PredicatesTellArraysAndKindsOfReferenceApart) {
    HvArrayPtr number(hvCreateDoubleScalar(1));
    EXPECT_TRUE(refIsEmptyRef(number));
    EXPECT_FALSE(refIsRef(number));
    EXPECT_FALSE(refIsRef(static_cast<hvArray_tag const*>(nullptr)));
    EXPECT_FALSE(refIsLocalRef(number) || refIsRemoteRef(number));
    EXPECT_EQ(refGetDimensions(number), (std::vector<std::size_t>{1, 1}));

    quorl::extstring::extstrInitExtString();
    HvArrayPtr text(hvCreateStringObject("s"));
    auto external = quorl::extstring::extstrCreateString(text);
    EXPECT_TRUE(refNeedsRefOrStringConversion(text.get()));
    EXPECT_FALSE(refNeedsRefOrStringConversion(external.get()));

    // A null array gives an empty reference and no entry.
    HvArrayPtr none;
    auto empty = refCreateRef(C, S, none, true);
    EXPECT_TRUE(refIsEmptyRef(empty));
    EXPECT_FALSE(refIsLocalRef(empty) || refIsRemoteRef(empty) || refIsElementIndexRef(empty));
    EXPECT_EQ(refGetClassname(empty), "");
    EXPECT_TRUE(refGetDimensions(empty).empty());
    EXPECT_EQ(hvGetNumberOfElements(empty.get()), 0u);
    EXPECT_EQ(table().countActive(false), active);

    auto object = makeCounted(4);
    auto ref = refCreateRef(C, S, object, false);
    EXPECT_TRUE(refIsLocalRef(ref));
    EXPECT_FALSE(refIsEmptyRef(ref) || refIsRemoteRef(ref) || refIsElementIndexRef(ref));
    EXPECT_EQ(refLocalTarn(ref), S);
    EXPECT_EQ(detail::refFindTag(tagOf(ref.get())), S);
    EXPECT_EQ(refGetClassname(ref), "CountedTestArray");
    EXPECT_TRUE(refSrcIsA(ref, "CountedTestArray"));
    EXPECT_EQ(refGetDimensions(ref), (std::vector<std::size_t>{1, 4}));
    EXPECT_EQ(hvGetNumberOfElements(ref.get()), 4u) << "a reference has the size of its target";
    EXPECT_STREQ(hvGetClassName(ref.get()), "Internal_Matrix_Reference____");
}

TEST_F(MatrixRef, EveryFreedHandleReleasesExactlyOneCount) {
    long freed = quorl_testing::countedFreed();
    auto object = makeCounted();
    auto ref = refCreateRef(C, S, object, true);
    RefTag tag = tagOf(ref.get());
    EXPECT_EQ(countOf(tag), 2u) << "one count for the handle, one for the far side";

    // Copies share the handle: no counts, and the last copy's death releases one count.
    {
        HvArrayPtr shared(hvCreateSharedDataCopy(ref.get()));
        HvArrayPtr duplicate(hvDuplicateArray(ref.get()));
        HvArrayPtr cell(hvCreateCellMatrix(1, 2));
        hvSetCell(cell.get(), 0, hvCreateSharedDataCopy(ref.get()));
        hvSetCell(cell.get(), 1, hvCreateSharedDataCopy(shared.get()));
        EXPECT_TRUE(hvAreMatricesEqual(shared.get(), ref.get()));
        ref.reset();
        EXPECT_EQ(countOf(tag), 2u);
    }
    EXPECT_EQ(countOf(tag), 1u);
    EXPECT_EQ(quorl_testing::countedFreed(), freed);
    detail::refReleaseServiceTag(tag);
    EXPECT_EQ(countOf(tag), 0u);
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 1);

    // A local reference sent on to another client gets a handle of its own; each handle still
    // releases once.
    auto again = makeCounted();
    auto forC = refCreateRef(C, S, again, false);
    tag = tagOf(forC.get());
    HvArrayPtr stillForC(hvCreateSharedDataCopy(forC.get()));
    auto forOther = refCreateRef(Other, S, forC, true);
    EXPECT_FALSE(forC);
    EXPECT_EQ(countOf(tag), 3u);
    EXPECT_FALSE(hvAreMatricesEqual(forOther.get(), stillForC.get()) &&
                 tagOf(forOther.get()) != tag);
    EXPECT_EQ(RefPersistForm::fromArray(save(forOther.get()).get())->clientTarn, Other);
    stillForC.reset();
    EXPECT_EQ(countOf(tag), 2u);
    forOther.reset();
    EXPECT_EQ(countOf(tag), 1u);
    detail::refReleaseServiceTag(tag);
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 2);

    // The last user of a local reference takes the array itself.
    auto third = makeCounted();
    hvArray_tag* raw = third.get();
    auto local = refCreateRef(S, S, third, false);
    auto back = refReleaseLocalRef(local);
    EXPECT_EQ(back.get(), raw);
    EXPECT_FALSE(local);
    HvArrayPtr plain(hvCreateDoubleScalar(2));
    hvArray_tag* plainRaw = plain.get();
    EXPECT_EQ(refReleaseLocalRef(plain).get(), plainRaw);
}

TEST_F(MatrixRef, ConversionAtTheBorderReferencesObjectsAndKeepsValues) {
    long freed = quorl_testing::countedFreed();
    HvArrayPtr cell(hvCreateCellMatrix(1, 3));
    hvSetCell(cell.get(), 0, makeCounted().release());
    hvSetCell(cell.get(), 1, hvCreateDoubleScalar(5));
    std::string error;
    auto converted = refCopyAndConvertArray(cell, C, S, error);
    ASSERT_TRUE(converted) << error;
    EXPECT_TRUE(error.empty());
    HvArrayPtr inner(hvCreateSharedDataCopy(hvGetCell(converted.get(), 0)));
    EXPECT_TRUE(refIsLocalRef(inner));
    EXPECT_EQ(countOf(tagOf(inner.get())), 2u);
    EXPECT_EQ(hvGetScalar(hvGetCell(converted.get(), 1)), 5.0);
    EXPECT_EQ(hvGetCell(converted.get(), 2), nullptr);
    RefTag tag = tagOf(inner.get());
    inner.reset();
    converted.reset();
    EXPECT_EQ(countOf(tag), 1u) << "the far side's count stays";
    detail::refReleaseServiceTag(tag);
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 1);

    // A value alone that needs a reference, detached from its variable first.
    HvArrayPtr handle(hvCreateFunctionHandle("sin"));
    hvRootArray(handle.get(), "f");
    hvSetArrayScope(handle.get(), hvSCOPE_LOCAL);
    auto ref = refCopyAndConvertArray(handle, C, S, error);
    ASSERT_TRUE(refIsLocalRef(ref));
    EXPECT_EQ(refGetClassname(ref), "function_handle");
    auto target = refGetRef(ref, false);
    EXPECT_FALSE(hvHasRootRecord(target.get()));
    EXPECT_EQ(hvGetArrayScope(target.get()), hvSCOPE_TEMPORARY);
    target.reset();
    tag = tagOf(ref.get());
    // A reference converted again gains the far side's count, and stays the same array.
    hvArray_tag* raw = ref.get();
    auto same = refCopyAndConvertArray(ref, C, S, error);
    EXPECT_EQ(same.get(), raw);
    EXPECT_EQ(countOf(tag), 3u);
    same.reset();
    table().releaseTag(tag, 2);

    // A failure deep inside: null, the inner class named, the input destroyed.
    hvClassDef def;
    def.name = "Unconvertible";
    def.serializable = false;
    hvDefineClass(def);
    HvArrayPtr deep(hvCreateCellMatrix(1, 2));
    hvSetCell(deep.get(), 0, makeCounted().release());
    HvArrayPtr nested(hvCreateCellMatrix(1, 1));
    hvSetCell(nested.get(), 0, hvCreateClassArray("Unconvertible", 1, 1));
    hvSetCell(deep.get(), 1, nested.release());
    std::uint64_t total = table().countTotal(false);
    auto failed = refCopyAndConvertArray(deep, C, S, error);
    EXPECT_FALSE(failed);
    EXPECT_FALSE(deep);
    EXPECT_EQ(error, "Data Conversion Error for type: Unconvertible");
    // The part converted before the failure keeps the count added for the far side, which no
    // reply will carry there: it lives until its context is cleared.
    EXPECT_EQ(table().countTotal(false), total + 1);
    long freed2 = quorl_testing::countedFreed();
    detail::refClearAll(S);
    EXPECT_EQ(quorl_testing::countedFreed(), freed2 + 1);

    // Arrays without objects come back as they are.
    HvArrayPtr plain(hvCreateCellMatrix(1, 1));
    hvSetCell(plain.get(), 0, hvCreateDoubleScalar(1));
    hvArray_tag* plainRaw = plain.get();
    error.clear();
    EXPECT_EQ(refCopyAndConvertArray(plain, C, S, error).get(), plainRaw);
    HvArrayPtr none;
    EXPECT_FALSE(refCopyAndConvertArray(none, C, S, error));
}

TEST_F(MatrixRef, ElementReferencesStandForOneElementAndKeepTheWholeAlive) {
    auto m = matrix2x3();
    auto ref = refCreateRef(C, S, m, false);
    RefTag tag = tagOf(ref.get());
    auto fifth = refElementIndexRef(ref, 4);
    ASSERT_TRUE(fifth);
    EXPECT_TRUE(refIsElementIndexRef(fifth));
    EXPECT_TRUE(refIsLocalRef(fifth));
    EXPECT_EQ(countOf(tag), 2u);
    EXPECT_EQ(refGetDimensions(fifth), (std::vector<std::size_t>{1, 1}));
    EXPECT_EQ(hvGetScalar(refGetRef(fifth, false).get()), 14.0);
    // Subscripts are zero-based, column-major; missing ones count as 0, surplus are ignored.
    auto at = [&](auto... subscripts) {
        return hvGetScalar(refGetRef(refElementIndexRef(ref, subscripts...), false).get());
    };
    EXPECT_EQ(at(1, 2), 15.0);
    EXPECT_EQ(at(std::vector<std::size_t>{1}), 11.0);
    EXPECT_EQ(at(std::vector<std::size_t>{0, 1, 7}), 12.0);
    EXPECT_FALSE(refElementIndexRef(ref, 6)) << "an index equal to the element count";
    EXPECT_FALSE(refElementIndexRef(HvArrayPtr(hvCreateDoubleScalar(1)), 0));
    EXPECT_EQ(countOf(tag), 2u) << "failed and finished element references hold nothing";
    auto same = refElementIndexRef(fifth, 0);
    EXPECT_TRUE(hvAreMatricesEqual(same.get(), fifth.get()));
    EXPECT_FALSE(hvAreMatricesEqual(same.get(), ref.get()));
    EXPECT_FALSE(refElementIndexRef(fifth, 1));
    same.reset();

    std::string const expected = shown("local", tag, "double [2, 3]\n    element 4\n");
    EXPECT_EQ(printed([&] { hvDisplay(fifth.get(), nullptr); }).substr(0, expected.size()),
              expected);

    // The whole lives while an element reference does.
    ref.reset();
    EXPECT_EQ(countOf(tag), 1u);
    auto last = refReleaseLocalRef(fifth);
    EXPECT_EQ(hvGetScalar(last.get()), 14.0);
    EXPECT_EQ(countOf(tag), 0u);

    // Elements of cells and structs; sparse arrays and objects have none.
    HvArrayPtr cell(hvCreateCellMatrix(1, 2));
    hvSetCell(cell.get(), 1, hvCreateString("abc"));
    auto cellRef = refCreateRef(C, S, cell, false);
    EXPECT_EQ(hvArrayToStdString(refGetRef(refElementIndexRef(cellRef, 1), false).get()), "abc");
    auto emptyCell = refGetRef(refElementIndexRef(cellRef, 0), false);
    EXPECT_TRUE(emptyCell && hvIsEmpty(emptyCell.get()));
    char const* fields[] = {"a"};
    HvArrayPtr st(hvCreateStructMatrix(1, 2, 1, fields));
    hvSetField(st.get(), 1, "a", hvCreateDoubleScalar(8));
    auto stRef = refCreateRef(C, S, st, false);
    auto second = refGetRef(refElementIndexRef(stRef, 1), false);
    EXPECT_EQ(hvGetScalar(hvGetField(second.get(), 0, "a")), 8.0);
    auto sparse = matrix2x3();
    hvSetFlags(sparse.get(), hvFLAG_SPARSE);
    auto sparseRef = refCreateRef(C, S, sparse, false);
    EXPECT_FALSE(refElementIndexRef(sparseRef, 0));
    HvArrayPtr object(hvCreateStringObject("x"));
    auto objectRef = refCreateRef(C, S, object, false);
    EXPECT_FALSE(refElementIndexRef(objectRef, 0));
}

TEST_F(MatrixRef, SavedReferencesCrossAndComeHomeWithBalancedCounts) {
    long freed = quorl_testing::countedFreed();
    auto object = makeCounted(3);
    auto ref = refCreateRef(C, S, object, true);
    RefTag tag = tagOf(ref.get());

    // Saved where the array is: the tag, held here, class and dimensions.
    HvArrayPtr saved = save(ref.get());
    auto form = RefPersistForm::fromArray(saved.get());
    ASSERT_TRUE(form);
    EXPECT_EQ(hvGetM(saved.get()), 8u);
    EXPECT_EQ(hvGetN(saved.get()), 1u);
    EXPECT_EQ(form->tag, tag);
    EXPECT_TRUE(form->saverHoldsArray);
    EXPECT_EQ(form->className, "CountedTestArray");
    EXPECT_EQ(form->dimensions, (std::vector<std::size_t>{1, 3}));
    EXPECT_EQ(form->clientTarn, C);
    EXPECT_TRUE(form->indexable);

    // Loaded by the peer (here: this process) it is remote, keyed by the owner's tag.
    auto remote = roundTrip(ref.get());
    ref.reset();
    EXPECT_EQ(countOf(tag), 1u) << "the count of the far side stays";
    ASSERT_TRUE(refIsRemoteRef(remote));
    EXPECT_EQ(refGetClassname(remote), "CountedTestArray");
    EXPECT_TRUE(refSrcIsA(remote, "CountedTestArray"));
    EXPECT_FALSE(refSrcIsA(remote, "numeric"));
    EXPECT_EQ(refGetDimensions(remote), (std::vector<std::size_t>{1, 3}));
    EXPECT_FALSE(refGetRef(remote, false)) << "a remote array is not here";
    EXPECT_EQ(refLocalTarn(remote), UndefinedTarnID);
    RefTag remoteTag = tagOf(remote.get());
    EXPECT_EQ(remoteTag, tag) << "saved, a remote reference carries the owner's tag";

    // Sent back home, it turns into the array; the owner's counts are balanced again.
    auto home = roundTrip(remote.get());
    EXPECT_FALSE(refIsRef(home));
    EXPECT_STREQ(hvGetClassName(home.get()), "CountedTestArray");
    EXPECT_EQ(countOf(tag), 1u);
    home.reset();

    // A description that does not match gives an empty reference; the added count stays.
    RefPersistForm wrong = *form;
    wrong.saverHoldsArray = false;
    wrong.className = "SomethingElse";
    EXPECT_TRUE(refIsEmptyRef(load(remote.get(), wrong.toArray().get())));
    EXPECT_EQ(countOf(tag), 2u);
    wrong.tag = 987654321;
    EXPECT_TRUE(refIsEmptyRef(load(remote.get(), wrong.toArray().get())));
    // Anything that is not a form is an empty reference too.
    HvArrayPtr junk(hvCreateCellMatrix(8, 1));
    hvSetCell(junk.get(), 0, hvCreateString("not a tag"));
    EXPECT_TRUE(refIsEmptyRef(load(remote.get(), junk.get())));
    EXPECT_TRUE(refIsEmptyRef(load(remote.get(), nullptr)));

    // An empty reference saves as eight empty cells and loads as an empty reference.
    HvArrayPtr none;
    auto empty = refCreateRef(C, S, none, false);
    HvArrayPtr emptyForm = save(empty.get());
    ASSERT_EQ(hvGetNumberOfElements(emptyForm.get()), 8u);
    for (std::size_t i = 0; i < 8; ++i)
        EXPECT_EQ(hvGetCell(emptyForm.get(), i), nullptr);
    EXPECT_TRUE(refIsEmptyRef(roundTrip(empty.get())));

    // Element references travel with their element.
    auto whole = matrix2x3();
    auto wholeRef = refCreateRef(C, S, whole, false);
    auto element = refElementIndexRef(wholeRef, 3);
    auto elementThere = roundTrip(element.get());
    EXPECT_TRUE(refIsRemoteRef(elementThere) && refIsElementIndexRef(elementThere));
    auto elementHome = roundTrip(elementThere.get());
    EXPECT_EQ(hvGetScalar(elementHome.get()), 13.0);

    remote.reset();
    table().releaseTag(tag, 2);
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 1);
}

TEST_F(MatrixRef, DisplaysMetricsAndClears) {
    auto object = makeCounted(2);
    auto ref = refCreateRef(C, S, object, false);
    RefTag tag = tagOf(ref.get());
    EXPECT_EQ(printed([&] { hvDisplay(ref.get(), "x"); }),
              "x =\n\n" + shown("local", tag, "CountedTestArray [1, 2]\n\n"));
    auto remote = roundTrip(ref.get());
    EXPECT_EQ(printed([&] { hvDisplay(remote.get(), nullptr); }),
              shown("remote", tag, "CountedTestArray [1, 2]\n\n"));
    HvArrayPtr none;
    auto empty = refCreateRef(C, S, none, false);
    EXPECT_EQ(printed([&] { hvDisplay(empty.get(), nullptr); }),
              "Internal_Matrix_Reference____ : empty\n\n");

    // Metrics: a scalar in the first output only when there is an input.
    auto metric = [](char const* which) {
        HvArrayPtr in(which ? hvCreateString(which) : hvCreateDoubleScalar(1));
        hvArray_tag* ins[] = {in.get()};
        hvArray_tag* out = nullptr;
        detail::refMetrics(1, &out, 1, ins);
        HvArrayPtr result(out);
        return result ? hvGetScalar(result.get()) : -1.0;
    };
    EXPECT_EQ(metric("ActiveRefCount"), static_cast<double>(table().countActive(false)));
    EXPECT_EQ(metric("TotalRefCount"), static_cast<double>(table().countTotal(false)));
    EXPECT_EQ(metric("Other"), 0.0);
    EXPECT_EQ(metric(nullptr), 0.0);
    hvArray_tag* untouched = nullptr;
    detail::refMetrics(1, &untouched, 0, nullptr);
    EXPECT_EQ(untouched, nullptr);

    // Class instances and the class index.
    HvArrayPtr instance(hvCreateClassArray(detail::refOpaqueClassName().c_str(), 1, 1));
    EXPECT_TRUE(refIsRef(instance) && refIsEmptyRef(instance));
    EXPECT_EQ(hvGetClassNameFromIndex(17), nullptr);
    detail::refSetClassIndex(240);
    EXPECT_STREQ(hvGetClassNameFromIndex(240), "Internal_Matrix_Reference____");
    EXPECT_EQ(hvGetOpaqueClassIndex(hvGetOpaqueClass(instance.get())), 240);
    detail::refSetClassIndex(17);

    // Clearing a context leaves others; clearing everything leaves nothing.
    auto otherObject = makeCounted();
    auto otherRef = refCreateRef(C, Other, otherObject, true);
    long freed = quorl_testing::countedFreed();
    detail::refClearAll(S);
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 1);
    EXPECT_TRUE(refIsRemoteRef(remote)) << "a remote entry belongs to the client tarn";
    EXPECT_TRUE(refIsLocalRef(otherRef));
    EXPECT_FALSE(refIsLocalRef(ref)) << "dangling now";
    EXPECT_FALSE(refIsEmptyRef(ref));
    EXPECT_EQ(printed([&] { hvDisplay(ref.get(), nullptr); }),
              "Internal_Matrix_Reference____ : empty\n\n");
    detail::refClearAll(UndefinedTarnID);
    EXPECT_EQ(table().countActive(false), 0u);
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 2);
    active = 0;
    // Handles dying after a clear release nothing and break nothing.
    ref.reset();
    remote.reset();
    otherRef.reset();
    EXPECT_EQ(table().countActive(false), 0u);
}

TEST_F(MatrixRef, WrapUnwrapAndPropertiesGoThroughReferences) {
    char const* fields[] = {"f", "n"};
    HvArrayPtr st(hvCreateStructMatrix(1, 1, 2, fields));
    hvSetField(st.get(), 0, "f", hvCreateFunctionHandle("cos"));
    hvSetField(st.get(), 0, "n", hvCreateDoubleScalar(3));
    HvArrayPtr cell(hvCreateCellMatrix(1, 3));
    hvSetCell(cell.get(), 0, st.release());
    hvSetCell(cell.get(), 1, makeCounted().release());

    auto wrapped = refCopyAndWrapArray(cell, C, S);
    EXPECT_EQ(hvGetClassID(hvGetField(hvGetCell(cell.get(), 0), 0, "f")), hvFUNCTION_CLASS)
        << "the source is left alone";
    HvArrayPtr f(hvCreateSharedDataCopy(hvGetField(hvGetCell(wrapped.get(), 0), 0, "f")));
    HvArrayPtr counted(hvCreateSharedDataCopy(hvGetCell(wrapped.get(), 1)));
    EXPECT_TRUE(refIsLocalRef(f) && refIsLocalRef(counted));
    EXPECT_EQ(countOf(tagOf(f.get())), 2u);
    EXPECT_EQ(hvGetScalar(hvGetField(hvGetCell(wrapped.get(), 0), 0, "n")), 3.0);
    EXPECT_TRUE(hvIsEmpty(hvGetCell(wrapped.get(), 2))) << "an absent cell becomes []";

    auto unwrapped = refUnwrapAndCopyArray(wrapped);
    EXPECT_EQ(hvGetFunctionName(hvGetField(hvGetCell(unwrapped.get(), 0), 0, "f")), "cos");
    EXPECT_STREQ(hvGetClassName(hvGetCell(unwrapped.get(), 1)), "CountedTestArray");
    EXPECT_TRUE(refIsRef(hvGetCell(wrapped.get(), 1))) << "the source is left alone";
    RefTag ft = tagOf(f.get()), ct = tagOf(counted.get());
    f.reset();
    counted.reset();
    wrapped.reset();
    table().releaseTag(ft, 1);
    table().releaseTag(ct, 1);

    // Properties through a local reference; a remote one has none.
    char const* props[] = {"value"};
    hvClassDef def;
    def.name = "RefTestObject";
    def.properties = props;
    def.nproperties = 1;
    def.handle = true;
    hvDefineClass(def);
    HvArrayPtr object(hvCreateClassArray("RefTestObject", 1, 1));
    auto ref = refCreateRef(C, S, object, false);
    HvArrayPtr seven(hvCreateDoubleScalar(7));
    refSetRefProperty(ref.get(), 0, "value", seven.get());
    HvArrayPtr read(refGetRefProperty(ref.get(), 0, "value"));
    EXPECT_EQ(hvGetScalar(read.get()), 7.0);
    EXPECT_TRUE(refSrcIsA(ref, "handle"));
    HvArrayPtr remoteForm =
        RefPersistForm{tagOf(ref.get()), true, false, 0, "RefTestObject", {1, 1}, Other, false}
            .toArray();
    HvArrayPtr remote = load(ref.get(), remoteForm.get());
    ASSERT_TRUE(refIsRemoteRef(remote));
    EXPECT_EQ(refGetRefProperty(remote.get(), 0, "value"), nullptr);
    refSetRefProperty(remote.get(), 0, "value", nullptr);
}
