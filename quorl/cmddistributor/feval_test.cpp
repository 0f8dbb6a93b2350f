// Function-call packets, their argument data and deleters, the completion event and the result
// adapters, without an interpreter.
#include <tests/support/archivetesting.hpp>

#include <quorl/cmddistributor/fevalcmdrequest.hpp>
#include <quorl/cmddistributor/resultadapters.hpp>
#include <quorl/matrixref/matrixref.hpp>
#include <quorl/utils/fennmutex.hpp>

#include <foundation/msg_svc/serialization/guardediarchive.hpp>

#include <boost/function.hpp>
#include <boost/make_shared.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

using namespace cmddistributor;
using foundation::extdata::Array;
using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::exchange::IDType;
using quorl::cmddistributor::EDIDataWrapper;
using quorl::cmddistributor::HvArrayDeleter;
using quorl::contextmgr::FennID;
using quorl::contextmgr::TarnID;
using quorl_testing::Family;
namespace qd = quorl::cmddistributor::detail;

namespace {

HvArrayPtr take(hvArray* a) {
    return matrix::from_veldra_old(a);
}

HvArrayPtr row(std::vector<double> const& values) {
    HvArrayPtr a = take(hvCreateNumericMatrix(hvDOUBLE_CLASS, 1, values.size()));
    std::copy(values.begin(), values.end(), static_cast<double*>(hvGetData(a.get())));
    return a;
}

// A struct {f: {x}} around `inner`.
HvArrayPtr structOfCell(hvArray* inner) {
    HvArrayPtr cell = take(hvCreateCellMatrix(1, 1));
    hvSetCell(cell.get(), 0, inner);
    const char* names[] = {"f"};
    HvArrayPtr s = take(hvCreateStructMatrix(1, 1, 1, names));
    hvSetField(s.get(), 0, "f", cell.release());
    return s;
}

template <class T> boost::shared_ptr<T> roundTrip(Family f, T const& e) {
    return quorl_testing::roundTripThroughBase<BaseEvent>(f, e);
}

std::vector<Array> ediSample() {
    return {Array::createScalar(2.5), Array::createChar(u"x")};
}

} // namespace

TEST(HvArrayDeleter, DestroysHereWithoutLockOrUnderTheFennMutexWhenNoContextIsKnown) {
    std::vector<bool> lockedAtDestroy;
    boost::function<void(const hvArray*)> destroy = [&](const hvArray* a) {
        lockedAtDestroy.push_back(fenn_mutex_is_acquired());
        hvDestroyArray(a);
    };
    HvArrayDeleter unbound(false, destroy);
    unbound(hvCreateDoubleScalar(1));
    HvArrayDeleter bound(true, destroy);
    bound(nullptr); // null goes straight through, no lock
    bound(hvCreateDoubleScalar(2));
    // A real context and back: the later destroy takes the local, locked road again.
    bound.set(FennID{7});
    HvArrayDeleter copy(bound);
    EXPECT_EQ(copy.getOwningFennID(), FennID{7});
    bound.set(quorl::contextmgr::UndefinedFennID);
    bound(hvCreateDoubleScalar(3));
    EXPECT_EQ(lockedAtDestroy, (std::vector<bool>{false, false, true, true}));
    EXPECT_FALSE(fenn_mutex_is_acquired());
    EXPECT_EQ(copy.getOwningFennID(), FennID{7}) << "a copy keeps the value it was made with";

    HvArrayDeleter empty(false, boost::function<void(const hvArray*)>());
    EXPECT_THROW(empty(nullptr), boost::bad_function_call);
}

TEST(FEvalArrays, ContextBoundArraysAreFoundToTheDepthLimit) {
    EXPECT_FALSE(qd::isContextBoundArray(nullptr));
    EXPECT_FALSE(qd::isContextBoundArray(row({1, 2}).get()));
    HvArrayPtr handle = take(hvCreateFunctionHandle("sin"));
    EXPECT_TRUE(qd::isContextBoundArray(handle.get()));
    // struct -> cell -> function handle: seen at depth 3.
    HvArrayPtr nested = structOfCell(hvCreateFunctionHandle("sin"));
    EXPECT_TRUE(qd::isContextBoundArray(nested.get()));
    HvArrayPtr plain = structOfCell(hvCreateDoubleScalar(1));
    EXPECT_FALSE(qd::isContextBoundArray(plain.get()));
    // One level deeper the container at depth 0 counts as bound without being looked into.
    HvArrayPtr deeper = structOfCell(structOfCell(hvCreateDoubleScalar(1)).release());
    EXPECT_TRUE(qd::isContextBoundArray(deeper.get()));
    EXPECT_FALSE(qd::isContextBoundArray(deeper.get(), 5));
    const char* names[] = {"a"};
    HvArrayPtr emptyStruct = take(hvCreateStructMatrix(0, 0, 1, names));
    EXPECT_FALSE(qd::isContextBoundArray(emptyStruct.get(), 0 + 1));
}

TEST(FEvalArrays, BytesRoundTripAndCorruptBytesLeaveNothingBehind) {
    HvArrayPtr a = row({1, 2, 3});
    HvArrayPtr s = take(hvCreateString("text"));
    std::size_t const live = hvGetArrayListCount();
    auto bytes = qd::serializeHvArrays({a.get(), nullptr, s.get()});
    ASSERT_EQ(bytes.size(), 3u);
    std::vector<hvArray*> back = qd::deserializeHvArrays(bytes);
    ASSERT_EQ(back.size(), 3u);
    EXPECT_TRUE(hvAreMatricesEqual(back[0], a.get()));
    EXPECT_EQ(back[1], nullptr);
    EXPECT_TRUE(hvAreMatricesEqual(back[2], s.get()));
    qd::nullSafeHvVecDestroy(back);
    EXPECT_TRUE(back.empty());
    EXPECT_EQ(hvGetArrayListCount(), live);

    auto broken = bytes;
    broken[2].resize(broken[2].size() / 2);
    EXPECT_THROW(qd::deserializeHvArrays(broken), std::runtime_error);
    EXPECT_EQ(hvGetArrayListCount(), live) << "arrays made before the failure were destroyed";
    EXPECT_FALSE(fenn_mutex_is_acquired());

    std::vector<hvArray*> nulls{nullptr, nullptr};
    qd::nullSafeHvVecDestroy(nulls);
    EXPECT_TRUE(nulls.empty());
}

TEST(FEvalArrays, ManagedVectorsCopyArgumentsAndTakeOverUnboundResults) {
    HvArrayPtr number = row({4, 5});
    HvArrayPtr handle = take(hvCreateFunctionHandle("cos"));
    hvSetArrayScope(handle.get(), hvSCOPE_WORKSPACE);
    auto kept = qd::makeManagedArgumentVector({number.get(), nullptr, handle.get()});
    ASSERT_EQ(kept.size(), 3u);
    EXPECT_TRUE(hvAreMatricesEqual(kept[0].get(), number.get()));
    EXPECT_NE(kept[0].get(), number.get()) << "a shared-data copy, the caller keeps its own";
    EXPECT_EQ(kept[1].get(), nullptr);
    EXPECT_EQ(hvGetArrayScope(kept[2].get()), hvSCOPE_TEMPORARY);
    EXPECT_FALSE(boost::get_deleter<HvArrayDeleter>(kept[0])->isContextBound());
    EXPECT_TRUE(boost::get_deleter<HvArrayDeleter>(kept[2])->isContextBound());

    hvArray* unbound = hvCreateDoubleScalar(9);
    hvArray* bound = hvCreateFunctionHandle("tan");
    std::vector<hvArray*> results{unbound, bound};
    auto managed = qd::makeManagedResultVector(results);
    ASSERT_EQ(managed->size(), 2u);
    EXPECT_EQ((*managed)[0].get(), unbound) << "taken over, not copied";
    EXPECT_EQ(results[0], nullptr);
    EXPECT_EQ(results[1], bound) << "a bound result is copied and stays the caller's";
    EXPECT_NE((*managed)[1].get(), bound);
    EXPECT_TRUE((*managed)[1].get_deleter().isContextBound());
    qd::nullSafeHvVecDestroy(results);

    EXPECT_NO_THROW(qd::validateInput({}));
    try {
        qd::validateInput({Array::createScalar(1.0), Array(), Array::createScalar(2.0)});
        FAIL() << "a default-constructed argument was accepted";
    } catch (std::logic_error const& e) {
        EXPECT_STREQ(e.what(), "Default constructed arguments are not allowed.");
    }
}

namespace {

// Arguments saved as byte vectors made by serializeHvArrays: the form the wire had before arrays
// were written straight into the archive.
class ByteVectorData : public FEvalIIP::Data {
public:
    explicit ByteVectorData(std::vector<const hvArray*> arrays) : arrays_(std::move(arrays)) {}
    FEvalIIP::Payload serialize() override { return qd::serializeHvArrays(arrays_); }
    FEvalIIP::Inputs getInputs() override { return std::vector<const hvArray*>(); }
    boost::shared_ptr<FEvalCompletedEvent> createEvent(IDType const&,
                                                       std::vector<Array>&&) override {
        return nullptr;
    }
    boost::shared_ptr<FEvalCompletedEvent> createEvent(IDType const&,
                                                       std::vector<hvArray*>&) override {
        return nullptr;
    }
    bool isOutputConvertedFromEDI() override { return false; }

private:
    std::vector<const hvArray*> arrays_;
};

boost::shared_ptr<FEvalIIP> guardedReadPacket(std::string const& bytes) {
    foundation::msg_svc::serialization::GuardedIArchive::Buffer buffer(bytes.data(), bytes.size());
    std::istream in(&buffer);
    foundation::msg_svc::serialization::PolymorphicGuardedIArchive archive(in);
    IIP* raw = nullptr;
    static_cast<boost::archive::polymorphic_iarchive&>(archive) >>
        boost::serialization::make_nvp("object", raw);
    return boost::dynamic_pointer_cast<FEvalIIP>(boost::shared_ptr<IIP>(raw));
}

} // namespace

TEST(FEvalIIP, ClientPacketCrossesAnArchiveAndRebuildsItsArgumentsOnEveryCall) {
    HvArrayPtr number = row({1.5, -2});
    HvArrayPtr text = take(hvCreateString("abc"));
    std::vector<const hvArray*> args{number.get(), text.get()};
    auto data = boost::make_shared<FEvalOpaqueData<void, const std::vector<const hvArray*>>>(args);
    FEvalIIP client("plus", 2, data, UnsetIqmStreamID, nullptr, nullptr, TarnID{11}, TarnID{12});
    EXPECT_EQ(client.getPluginType(), "cmddistributor::feval_plugin");
    for (Family f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        auto server = quorl_testing::roundTripThroughBase<IIP>(f, client);
        ASSERT_TRUE(server);
        EXPECT_EQ(server->getFunctionName(), "plus");
        EXPECT_EQ(server->getNlhs(), 2u);
        EXPECT_EQ(server->getClientTarnID(), TarnID{11});
        EXPECT_EQ(server->getTarnID(), TarnID{12});
        EXPECT_FALSE(server->isOutputConvertedFromEDI());
        auto once = boost::get<std::vector<const hvArray*>>(server->getInputArguments());
        auto twice = boost::get<std::vector<const hvArray*>>(server->getInputArguments());
        ASSERT_EQ(once.size(), 2u);
        EXPECT_NE(once[0], twice[0]);
        EXPECT_TRUE(hvAreMatricesEqual(once[0], number.get()));
        EXPECT_TRUE(hvAreMatricesEqual(twice[1], text.get()));
        qd::nullSafeHvConstVecDestroy(once);
        qd::nullSafeHvConstVecDestroy(twice);
    }
    auto names = quorl_testing::xmlElementNames(quorl_testing::write(Family::Xml, client));
    // The element items of the byte vectors aside, the fields follow the base in their order.
    names.erase(std::remove(names.begin(), names.end(), "item"), names.end());
    std::vector<std::string> tail{"function",     "nlhs",
                                  "clientTarnID", "serverTarnID",
                                  "rhs",          "which",
                                  "value",        "count",
                                  "item_version", "count",
                                  "item_version", "count",
                                  "item_version", "isOutputConvertedFromEDI"};
    ASSERT_GE(names.size(), tail.size());
    EXPECT_EQ(std::vector<std::string>(names.end() - tail.size(), names.end()), tail);
    EXPECT_EQ(names[1], "iip");
}

TEST(FEvalIIP, WireArgumentsAreTheBytesOfTheByteVectorFormAndArriveBuilt) {
    HvArrayPtr number = row(std::vector<double>(5000, -0.5));
    HvArrayPtr nested = structOfCell(hvCreateString("abc"));
    std::size_t const dims[] = {2, 2, 3};
    HvArrayPtr cube = take(hvCreateNumericArray(hvINT32_CLASS, 3, dims));
    static_cast<std::int32_t*>(hvGetData(cube.get()))[11] = 7;
    std::vector<std::vector<const hvArray*>> lists{
        {number.get(), nested.get(), nullptr, cube.get()}, {}};
    for (auto const& args : lists) {
        SCOPED_TRACE(args.size());
        FEvalIIP client(
            "f", 1,
            boost::make_shared<FEvalOpaqueData<void, const std::vector<const hvArray*>>>(args),
            UnsetIqmStreamID, nullptr, nullptr, TarnID{3}, TarnID{4});
        FEvalIIP reference("f", 1, boost::make_shared<ByteVectorData>(args), UnsetIqmStreamID,
                           nullptr, nullptr, TarnID{3}, TarnID{4});
        IIP const* clientPointer = &client;
        IIP const* referencePointer = &reference;
        std::string const wire =
            quorl_testing::write(quorl_testing::Family::PolyBinary, clientPointer);
        EXPECT_EQ(wire, quorl_testing::write(quorl_testing::Family::PolyBinary, referencePointer));

        auto arrived = guardedReadPacket(wire);
        ASSERT_TRUE(arrived);
        // The guarded archive refuses a byte count beyond the end of what arrived.
        if (!args.empty()) {
            EXPECT_THROW(guardedReadPacket(wire.substr(0, wire.size() - 4000)), std::exception);
        }
        for (int call = 0; call < 2; ++call) {
            auto inputs = boost::get<std::vector<const hvArray*>>(arrived->getInputArguments());
            ASSERT_EQ(inputs.size(), args.size());
            for (std::size_t i = 0; i < args.size(); ++i)
                EXPECT_TRUE(hvAreMatricesEqual(inputs[i], args[i])) << i;
            if (!inputs.empty()) {
                // The interpreter's copy is its own: writing it leaves the packet's intact.
                static_cast<double*>(hvGetData(const_cast<hvArray*>(inputs[0])))[0] = 9;
            }
            qd::nullSafeHvConstVecDestroy(inputs);
        }
        // Saved again, the arrived packet writes the same bytes, straight or as byte vectors.
        IIP const* again = arrived.get();
        EXPECT_EQ(quorl_testing::write(quorl_testing::Family::PolyBinary, again), wire);
        auto payload =
            boost::get<std::vector<std::vector<std::uint8_t>>>(arrived->getData()->serialize());
        EXPECT_EQ(payload, boost::get<std::vector<std::vector<std::uint8_t>>>(
                               reference.getData()->serialize()));
    }
}

TEST(FEvalIIP, ServerSideResultsBecomeReferencesAndBytes) {
    static auto table = quorl::matrixref::detail::refInitMatrixReferences(
        {}, [](hvArray_tag const*) { return true; });
    auto data = boost::make_shared<FEvalOpaqueData<void, void>>();
    FEvalIIP client("f", 3, data, UnsetIqmStreamID, nullptr, nullptr, TarnID{31}, TarnID{32});
    auto server = quorl_testing::roundTripThroughBase<IIP>(Family::Binary, client);
    ASSERT_TRUE(server);
    auto none = boost::get<std::vector<const hvArray*>>(server->getInputArguments());
    EXPECT_TRUE(none.empty());

    std::vector<hvArray*> results{hvCreateDoubleScalar(5), nullptr, hvCreateFunctionHandle("sin")};
    auto event = server->createEvent(IDType(), results);
    EXPECT_FALSE(fenn_mutex_is_acquired());
    ASSERT_EQ(event->getResultsForm(), FEvalCompletedEvent::SerializedBytes);
    auto bytes = boost::get<FEvalCompletedEvent::Bytes>(event->takeResults());
    std::vector<hvArray*> back = qd::deserializeHvArrays(bytes);
    ASSERT_EQ(back.size(), 3u);
    EXPECT_EQ(hvGetScalar(back[0]), 5);
    EXPECT_EQ(back[1], nullptr);
    EXPECT_TRUE(quorl::matrixref::refIsRef(back[2])) << "a function handle travels as reference";
    EXPECT_TRUE(quorl::matrixref::refIsRef(results[2])) << "the slot keeps the converted array";
    qd::nullSafeHvVecDestroy(back);
    qd::nullSafeHvVecDestroy(results);
}

TEST(FEvalCmdRequest, VoidRequestMakesOnePacketWithoutOutputs) {
    auto request = boost::make_shared<FEvalCmdRequest<void, void>>("tic", nullptr, nullptr,
                                                                   TarnID{1}, TarnID{2});
    auto iip = boost::dynamic_pointer_cast<FEvalIIP>(request->getIIP());
    ASSERT_TRUE(iip);
    EXPECT_EQ(iip, request->getIIP());
    EXPECT_EQ(iip->getNlhs(), 0u);
    EXPECT_EQ(iip->getFunctionName(), "tic");
    auto inputs = boost::get<std::vector<const hvArray*>>(iip->getInputArguments());
    EXPECT_TRUE(inputs.empty());
    EXPECT_TRUE(
        boost::get<std::vector<std::vector<std::uint8_t>>>(iip->getData()->serialize()).empty());
    std::vector<hvArray*> results{hvCreateDoubleScalar(1)};
    auto event = iip->createEvent(IDType(), results);
    EXPECT_NE(results[0], nullptr) << "the void form leaves the results alone";
    EXPECT_TRUE(boost::get<boost::any>(event->takeResults()).empty());
    qd::nullSafeHvVecDestroy(results);
}

// A result the serializer could not write is reported by the output adapter: see
// AResultTheServersSerializerCannotWriteArrivesAsThe2GBError in tests/fevalremote, end to end.
TEST(FEvalAdapters, EdiResultsAndArrayArgumentsPassThroughTheAdapters) {
    FEvalOutputAdapter<std::vector<Array>> adapter;
    EXPECT_TRUE(adapter(FEvalCompletedEvent::DataArrays()).empty());
    auto good = adapter(FEvalCompletedEvent::DataArrays(new std::vector<Array>(ediSample())));
    EXPECT_EQ(good, ediSample());

    HvArrayPtr a = row({1});
    std::vector<boost::shared_ptr<const hvArray>> shared{
        boost::shared_ptr<const hvArray>(hvCreateSharedDataCopy(a.get()), hvDestroyArray)};
    auto copies = FEvalInputAdapter<std::vector<boost::shared_ptr<const hvArray>>>()(shared);
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_TRUE(hvAreMatricesEqual(copies[0], a.get()));
    qd::nullSafeHvConstVecDestroy(copies);
    EXPECT_TRUE(FEvalInputAdapter<void>()().empty());
}

TEST(ResultAdapters, ChecksReportWithTheirFixedTexts) {
    using qd::verifyHvArrayTypeAndSize;
    EXPECT_NO_THROW(qd::verifyMinimumOutputSize(2, 2));
    auto message = [](auto f) {
        try {
            f();
        } catch (std::runtime_error const& e) {
            return std::string(e.what());
        }
        return std::string("no error");
    };
    EXPECT_EQ(message([] { qd::verifyMinimumOutputSize(3, 2); }),
              "feval expected 3 outputs, found 2");
    EXPECT_EQ(message([] { verifyHvArrayTypeAndSize(nullptr, nullptr, typeid(double), 1, 1); }),
              "Unexpected hvArray type returned from feval.  Expected double but found null.");
    // A result of another class or size: see the typed calls in tests/fevalremote, end to end.
    HvArrayPtr three = row({1, 2, 3});
    EXPECT_NO_THROW(verifyHvArrayTypeAndSize(three.get(), three.get(), typeid(double), 0,
                                             std::numeric_limits<std::size_t>::max()));
    EXPECT_NO_THROW(verifyHvArrayTypeAndSize(nullptr, three.get(), typeid(double), 0, 0));

    auto ignored = qd::T2Array<quorl::cmddistributor::IgnoreVariadicReturn>()({});
    ASSERT_TRUE(ignored);
    EXPECT_EQ(hvGetClassID(ignored.get()), hvDOUBLE_CLASS);
    EXPECT_EQ(hvGetM(ignored.get()), 0u);
    EXPECT_EQ(hvGetN(ignored.get()), 1u);
    qd::Array2T<quorl::cmddistributor::IgnoreVariadicReturn>()(nullptr);
}
