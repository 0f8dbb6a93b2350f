// The external-data form of references in one process: what the form holds, how long a held form
// keeps its reference, what malformed forms give, and adoption inside cells and structs.
#include <quorl/matrixref/refexternalform.hpp>

#include <quorl/matrixref/matrixref.hpp>
#include <quorl/matrixref/matrixreftable.hpp>
#include <tests/matrixref/countedarrays.hpp>

#include <gtest/gtest.h>

using namespace quorl::matrixref;
using foundation::extdata::Array;
using quorl::contextmgr::TarnID;
using quorl_testing::makeCounted;

namespace {

TarnID const S{3}, C{7};

bool anythingConverts(hvArray_tag const*) {
    return true;
}

MatrixRefTable& table() {
    static auto t = detail::refInitMatrixReferences({}, &anythingConverts);
    return *t;
}

// The cell of a form, with one cell replaced.
Array withCell(Array const& form, std::size_t index, Array replacement) {
    Array cell = form.getField(0, std::size_t(0));
    std::vector<Array> cells;
    for (std::size_t i = 0; i < cell.getNumberOfElements(); ++i)
        cells.push_back(i == index ? replacement : cell.getCell(i));
    return Array::createStruct({1, 1}, form.getFieldNames(),
                               {Array::createCell(cell.getDimensions(), std::move(cells))});
}

} // namespace

TEST(RefExternalForm, AHeldFormKeepsItsReferenceUntilItsLastCopyDies) {
    std::size_t const before = table().countActive(false);
    long const freed = quorl_testing::countedFreed();
    auto object = makeCounted(3);
    HvArrayPtr ref = refCreateRef(C, S, object, false);
    ASSERT_TRUE(refIsLocalRef(ref));

    Array form = refToExternal(ref, true);
    ASSERT_TRUE(refIsExternalRef(form));
    Array const& cell = form.getField(0, "Internal_Matrix_Reference____");
    EXPECT_TRUE(cell.getCell(1).get<bool>(0)) << "this side holds the array";
    EXPECT_EQ(cell.getCell(4).getCharacters(), u"CountedTestArray");
    EXPECT_EQ(cell.getCell(5), Array::create<std::uint64_t>({1, 2}, {1, 3}));
    EXPECT_EQ(cell.getCell(6).get<std::uint64_t>(0), C.value);

    ref.reset();
    Array copy = form;
    form = Array();
    EXPECT_EQ(table().countActive(false), before + 1) << "the copy still holds it";
    EXPECT_EQ(quorl_testing::countedFreed(), freed);
    copy = Array();
    EXPECT_EQ(table().countActive(false), before);
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 1) << "the array died with the last copy";
}

TEST(RefExternalForm, APlainFormComesHomeAsTheArrayWithCountsBalanced) {
    std::size_t const before = table().countActive(false);
    auto object = makeCounted(1);
    void* giblet = hvGetOpaqueGiblet(object.get());
    std::string error;
    HvArrayPtr ref = refCopyAndConvertArray(object, C, S, error);
    ASSERT_TRUE(ref) << error;
    Array form = refToExternal(ref, false);
    ref.reset(); // the conversion's count stays, for the side that gets the form
    ASSERT_EQ(table().countActive(false), before + 1);
    std::uint64_t const total = table().countTotal(false);

    // As the client sends it back: the saver holds a reference to something here.
    Array back = withCell(form, 1, Array::createLogical({1, 1}, {false}));
    HvArrayPtr home = refFromExternal(back);
    ASSERT_TRUE(home);
    EXPECT_FALSE(refIsRef(home));
    EXPECT_EQ(hvGetOpaqueGiblet(home.get()), giblet) << "the very array, shared";
    home.reset();
    EXPECT_EQ(table().countTotal(false), total);

    detail::refReleaseServiceTag(form.getField(0, std::size_t(0)).getCell(0).get<std::uint64_t>(0));
    EXPECT_EQ(table().countActive(false), before);
}

TEST(RefExternalForm, MalformedFormsAreNotReferencesAndOrdinaryValuesPassThrough) {
    auto object = makeCounted(1);
    HvArrayPtr ref = refCreateRef(C, S, object, false);
    Array const form = refToExternal(ref, true);
    std::vector<Array> broken{
        withCell(form, 0, Array::createScalar(1.0)),                  // tag not uint64
        withCell(form, 1, Array::createScalar<std::uint64_t>(1)),     // flag not logical
        withCell(form, 4, Array::createString(u"CountedTestArray")),  // name not char
        withCell(form, 5, Array::create<std::uint64_t>({1, 1}, {1})), // one dimension
        withCell(form, 4, Array::createChar(u"Counted\u00e9")),       // not ASCII
        Array::createStruct({1, 1}, {"Internal_Matrix_Reference____"},
                            {Array::createCell({7, 1}, std::vector<Array>(7))}),
        Array::createStruct({1, 1}, {"other"}, {form.getField(0, std::size_t(0))}),
        form.getField(0, std::size_t(0)),
        Array()};
    std::size_t const before = table().countActive(false);
    for (auto const& b : broken) {
        EXPECT_FALSE(refFromExternal(b));
        EXPECT_EQ(refAdoptExternal(b, "nowhere"), b);
    }
    EXPECT_EQ(table().countActive(false), before) << "nothing was loaded";
    EXPECT_EQ(refToExternal(HvArrayPtr(hvCreateDoubleScalar(1)), true).getType(),
              foundation::extdata::UNKNOWN);
    EXPECT_EQ(refToExternal(nullptr, false).getType(), foundation::extdata::UNKNOWN);
}

TEST(RefExternalForm, FormsArrivingInCellsAndStructsAreAdoptedAsHeldReferences) {
    TarnID const peer{11}; // the owner as this side knows it; its releases go nowhere here
    std::size_t const before = table().countActive(false);
    auto object = makeCounted(2);
    std::string error;
    HvArrayPtr ref = refCopyAndConvertArray(object, peer, S, error);
    ASSERT_TRUE(ref) << error;
    // As if from another process: the owner's local tag, arriving here as a remote one.
    Array const arrived = refToExternal(ref, false);
    ref.reset();
    Array const value = Array::createStruct(
        {1, 1}, {"n", "list"},
        {Array::createScalar(5.0), Array::createCell({1, 2}, {arrived, Array::createChar(u"a")})});

    Array adopted = refAdoptExternal(value, "peer-exchange");
    Array const& list = adopted.getField(0, "list");
    EXPECT_EQ(adopted.getField(0, "n"), Array::createScalar(5.0));
    EXPECT_EQ(list.getCell(1), Array::createChar(u"a"));
    ASSERT_TRUE(refIsExternalRef(list.getCell(0)));
    EXPECT_FALSE(list.getCell(0).getField(0, std::size_t(0)).getCell(1).get<bool>(0))
        << "this side now holds a reference to the owner's array";
    EXPECT_EQ(table().countActive(false), before + 2) << "the owner's entry and a remote one";

    adopted = Array();
    EXPECT_EQ(table().countActive(false), before + 1)
        << "the remote entry went with its form; the owner keeps the count it gave out";
    detail::refReleaseExchange(peer);
    detail::refReleaseServiceTag(
        arrived.getField(0, std::size_t(0)).getCell(0).get<std::uint64_t>(0));
    EXPECT_EQ(table().countActive(false), before);
}

TEST(RefExternalForm, ExchangeTarnsAreStableDistinctAndNeverReserved) {
    EXPECT_EQ(refExchangeTarn("ipc:///tmp/a"), refExchangeTarn("ipc:///tmp/a"));
    EXPECT_NE(refExchangeTarn("ipc:///tmp/a"), refExchangeTarn("ipc:///tmp/b"));
    for (auto const& name : {"", "a", "tcp://127.0.0.1:5555"}) {
        EXPECT_NE(refExchangeTarn(name), quorl::contextmgr::UndefinedTarnID);
        EXPECT_NE(refExchangeTarn(name), quorl::contextmgr::BlessedTarnID);
    }
}
