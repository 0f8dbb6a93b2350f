// The wire forms of function calls that carry EDI values (the data-array plug-in is needed),
// and the completion event's save and load mapping alternative by alternative.
#include <tests/support/archivetesting.hpp>

#include <quorl/cmddistributor/fevalcmdrequest.hpp>

#include <foundation/cppmicroservices/framework.hpp>
#include <foundation/msg_svc/serialization/guardediarchive.hpp>

#include <boost/make_shared.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

using namespace cmddistributor;
using foundation::extdata::Array;
using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::exchange::IDType;
using quorl::cmddistributor::EDIDataWrapper;
using quorl::contextmgr::TarnID;
using quorl_testing::Family;

namespace {

// The plug-in framework at the installation root, where the build puts the data-array plug-in.
void useInstalledPlugins() {
    if (!foundation::cppmicroservices::getFramework())
        foundation::cppmicroservices::startFramework();
}

template <class T> boost::shared_ptr<T> roundTrip(Family f, T const& e) {
    return quorl_testing::roundTripThroughBase<BaseEvent>(f, e);
}

std::vector<Array> ediSample() {
    return {Array::createScalar(2.5), Array::createChar(u"caf\u00e9"),
            Array::createCell({1, 2}, {Array::createScalar(1.0), Array::createChar(u"x")})};
}

} // namespace

TEST(EDIDataWrapper, CopiesItsVectorAndRoundTripsAsAPayloadList) {
    useInstalledPlugins();
    EDIDataWrapper empty;
    ASSERT_TRUE(empty.getData());
    EXPECT_TRUE(empty.getData()->empty());
    auto values = ediSample();
    EDIDataWrapper w(values);
    EDIDataWrapper copy(w);
    EXPECT_NE(copy.getData().get(), w.getData().get());
    EXPECT_EQ(*copy.getData(), values);
    for (Family f : quorl_testing::allFamilies()) {
        EDIDataWrapper back;
        quorl_testing::read(f, quorl_testing::write(f, w), back);
        EXPECT_EQ(*back.getData(), values) << quorl_testing::familyName(f);
    }
    EXPECT_EQ(quorl_testing::xmlElementNames(quorl_testing::write(Family::Xml, w)),
              (std::vector<std::string>{"object", "NoOfElement", "PayLoadLength", "PayLoadLength",
                                        "PayLoadLength"}));
}

// From another process, a payload length beyond the bytes that arrived is a short read, not an
// allocation of that length.
TEST(EDIDataWrapper, APayloadLengthBeyondTheBytesIsAShortRead) {
    useInstalledPlugins();
    EDIDataWrapper one(std::vector<Array>{Array::createChar(u"payload")});
    std::string bytes = quorl_testing::write(Family::PolyBinary, one);
    // The last payload's length stands in the 8 bytes before it.
    std::size_t at = bytes.size();
    for (std::size_t p = bytes.size() - 8; p-- > 0;) {
        std::uint64_t n = 0;
        std::memcpy(&n, &bytes[p], sizeof n);
        if (p + 8 + n == bytes.size()) {
            at = p;
            break;
        }
    }
    ASSERT_LT(at, bytes.size());
    std::uint64_t const huge = std::uint64_t(1) << 40;
    std::memcpy(&bytes[at], &huge, sizeof huge);
    foundation::msg_svc::serialization::GuardedIArchive::Buffer buffer(bytes.data(), bytes.size());
    std::istream in(&buffer);
    foundation::msg_svc::serialization::PolymorphicGuardedIArchive archive(in);
    EDIDataWrapper back;
    EXPECT_THROW(static_cast<boost::archive::polymorphic_iarchive&>(archive) >>
                     boost::serialization::make_nvp("object", back),
                 boost::archive::archive_exception);
}

TEST(FEvalCompletedEvent, SavesEachAlternativeByTheWireMappingAndClonesIndependently) {
    useInstalledPlugins();
    IDType id;
    FEvalCompletedEvent::Bytes bytes{{1, 2, 3}, {}};
    FEvalCompletedEvent byBytes(id, bytes);
    FEvalCompletedEvent byEdi(id, ediSample());
    // A null id: the base lets an event of a packet that never crossed be saved only then.
    FEvalCompletedEvent inMemory(IDType(0, 0), boost::any(42));
    FEvalCompletedEvent moved(IDType(0, 0), boost::any(7));
    moved.takeResults();
    EXPECT_EQ(moved.getResultsForm(), FEvalCompletedEvent::AlreadyMoved);
    EXPECT_FALSE(moved.canBeSerialized());
    EXPECT_TRUE(inMemory.canBeSerialized());

    for (Family f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        auto b = roundTrip(f, byBytes);
        ASSERT_TRUE(b);
        EXPECT_EQ(b->getIdOfChangedIIP(), id);
        auto taken = b->takeResults();
        EXPECT_EQ(boost::get<FEvalCompletedEvent::Bytes>(taken), bytes);
        EXPECT_EQ(byBytes.getResultsForm(), FEvalCompletedEvent::SerializedBytes);

        auto e = roundTrip(f, byEdi);
        ASSERT_TRUE(e);
        auto ediTaken = e->takeResults();
        EXPECT_EQ(*boost::get<FEvalCompletedEvent::DataArrays>(ediTaken), ediSample());
        EXPECT_EQ(e->getResultsForm(), FEvalCompletedEvent::AlreadyMoved);

        for (FEvalCompletedEvent const* lost : {&inMemory, &moved}) {
            auto m = roundTrip(f, *lost);
            ASSERT_TRUE(m);
            EXPECT_EQ(m->getResultsForm(), FEvalCompletedEvent::AlreadyMoved);
            EXPECT_FALSE(m->canBeSerialized());
        }
    }
    // Saving swaps the data out and back: the event still holds it.
    auto still = byEdi.takeResults();
    EXPECT_EQ(*boost::get<FEvalCompletedEvent::DataArrays>(still), ediSample());

    // The base under its pair name first, the results after the base's last field.
    auto names = quorl_testing::xmlElementNames(quorl_testing::write(Family::Xml, byBytes));
    ASSERT_GE(names.size(), 5u);
    EXPECT_EQ(names[1], "IIPCompletedEvent");
    EXPECT_EQ(names[2], "IIPEvent");
    auto results = std::find(names.begin(), names.end(), "results");
    ASSERT_NE(results, names.end());
    EXPECT_EQ(std::vector<std::string>(results, results + 3),
              (std::vector<std::string>{"results", "which", "value"}));
    EXPECT_LT(std::find(names.begin(), names.end(), "exception"), results);

    FEvalCompletedEvent ediAgain(id, ediSample());
    std::unique_ptr<BaseEvent> clone(ediAgain.clone());
    auto& cloned = dynamic_cast<FEvalCompletedEvent&>(*clone);
    auto first = ediAgain.takeResults();
    auto second = cloned.takeResults();
    EXPECT_NE(boost::get<FEvalCompletedEvent::DataArrays>(first).get(),
              boost::get<FEvalCompletedEvent::DataArrays>(second).get());
    std::unique_ptr<BaseEvent> movedClone(moved.clone());
    EXPECT_FALSE(movedClone->canBeSerialized());
    std::unique_ptr<BaseEvent> anyClone(inMemory.clone());
    EXPECT_EQ(boost::any_cast<int>(boost::get<boost::any>(
                  dynamic_cast<FEvalCompletedEvent&>(*anyClone).takeResults())),
              42);
}

TEST(FEvalIIP, EdiArgumentsTravelAsPayloadsAndServerDataCopiesTheWrapper) {
    useInstalledPlugins();
    auto data = boost::make_shared<FEvalOpaqueData<std::vector<Array>, const std::vector<Array>>>(
        ediSample());
    FEvalIIP client("f", 1, data, UnsetIqmStreamID, nullptr, nullptr, TarnID{1}, TarnID{2});
    EXPECT_TRUE(client.isOutputConvertedFromEDI());
    for (Family f : quorl_testing::allFamilies()) {
        auto server = quorl_testing::roundTripThroughBase<IIP>(f, client);
        ASSERT_TRUE(server) << quorl_testing::familyName(f);
        EXPECT_TRUE(server->isOutputConvertedFromEDI());
        auto in = boost::get<EDIDataWrapper>(server->getInputArguments());
        EXPECT_EQ(*in.getData(), ediSample()) << quorl_testing::familyName(f);
    }
    EDIDataWrapper w(ediSample());
    auto made = FEvalIIP::Data::makeServerSideData(std::move(w), TarnID{1}, TarnID{2}, true);
    ASSERT_TRUE(w.getData());
    EXPECT_EQ(*w.getData(), ediSample()) << "the wrapper is copied, not moved";
    auto event = made->createEvent(IDType(), ediSample());
    EXPECT_EQ(event->getResultsForm(), FEvalCompletedEvent::EDIArrays);
}
