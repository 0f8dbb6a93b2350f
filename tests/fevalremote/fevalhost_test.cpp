// Function calls through the distributor to the reference host in one process: arguments of
// every kind, results as arrays and as EDI values, nlhs 0, 1 and several, errors with their
// stack, and arguments that must die on their interpreter thread.
#include <quorl/host/host.hpp>
#include <tests/support/errorof.hpp>

#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/evalcmdrequest.hpp>
#include <quorl/cmddistributor/fcncmdrequest.hpp>
#include <quorl/cmddistributor/fevalcall.hpp>
#include <quorl/cmddistributor/fevalcmdrequest.hpp>

#include <boost/make_shared.hpp>
#include <boost/thread/future.hpp>

#include <gtest/gtest.h>

#include <thread>

using namespace cmddistributor;
using foundation::extdata::Array;
using quorl::cmddistributor::HvArrayDeleter;
using quorl::cmddistributor::ManagedArrayVector;
using quorl::contextmgr::FennID;
using quorl::contextmgr::TarnID;
using quorl::host::Host;

namespace {

typedef boost::shared_ptr<ManagedArrayVector> Results;
typedef std::vector<boost::shared_ptr<const hvArray>> Arguments;
typedef FEvalCmdRequest<Results, Arguments> ArrayCall;
typedef FEvalCmdRequest<std::vector<Array>, std::vector<Array>> EdiCall;

FennID const kFenn{31};
TarnID const kTarn{1};

boost::shared_ptr<const hvArray> arg(hvArray* a) {
    return boost::shared_ptr<const hvArray>(a, hvDestroyArray);
}

template <class F> auto settle(F& future) -> decltype(future.get()) {
    if (future.wait_for(boost::chrono::seconds(20)) != boost::future_status::ready)
        throw std::runtime_error("no answer within the patience");
    return future.get();
}

Results call(std::string const& name, std::size_t nlhs, Arguments const& args) {
    auto request = boost::make_shared<ArrayCall>(name, nlhs, args, nullptr, nullptr, kTarn, kTarn);
    auto future = CmdDistributor::instance(kFenn)->enqueueWithFuture(request);
    return settle(future);
}

void eval(std::u16string const& code) {
    auto request =
        boost::make_shared<EvalCmdRequest>(true, UnsetIqmStreamID, nullptr, nullptr, code);
    auto future = CmdDistributor::instance(kFenn)->enqueueWithFuture(request);
    settle(future);
}

std::string text(const hvArray* a) {
    return hvArrayToStdString(a);
}

// A packet whose arguments keep the deleters the test gives them.
class KeptArgumentsRequest : public CmdRequest {
public:
    explicit KeptArgumentsRequest(Arguments args)
        : CmdRequest(UnsetIqmStreamID, nullptr, nullptr),
          iip_(boost::make_shared<FEvalIIP>(
              "isequal", 1,
              boost::make_shared<FEvalOpaqueData<void, const Arguments>>(std::move(args)),
              UnsetIqmStreamID, nullptr, nullptr, kTarn, kTarn)) {}

protected:
    boost::shared_ptr<IIP> createIIP() override { return iip_; }

private:
    boost::shared_ptr<FEvalIIP> iip_;
};

class FEvalHostTest : public ::testing::Test {
protected:
    void SetUp() override { Host::start(); }
    void TearDown() override { Host::stop(); }
};

} // namespace

namespace cmddistributor {
template <> struct CmdRequestTraits<KeptArgumentsRequest> : CmdRequestTraits<CmdRequest> {};
} // namespace cmddistributor

TEST_F(FEvalHostTest, ArgumentsOfEveryKindReachTheFunctionAndSeveralResultsComeBack) {
    eval(u"defined = 1;\n"
         u"function [c, n, t] = describe(x)\n  c = class(x);\n  n = numel(x);\n"
         u"  t = x;\nend\n");
    const char* fields[] = {"a", "b"};
    hvArray* s = hvCreateStructMatrix(1, 1, 2, fields);
    hvSetField(s, 0, "a", hvCreateDoubleScalar(1));
    hvSetField(s, 0, "b", hvCreateString("two"));
    hvArray* cell = hvCreateCellMatrix(1, 2);
    hvSetCell(cell, 0, hvCreateDoubleScalar(1));
    hvSetCell(cell, 1, hvCreateString("x"));
    hvArray* str = hvCreateClassArray("string", 1, 1);
    ASSERT_NE(str, nullptr);
    struct Case {
        hvArray* value;
        std::string cls;
        double n;
    };
    std::vector<Case> cases{{hvCreateNumericMatrix(hvDOUBLE_CLASS, 2, 3), "double", 6},
                            {hvCreateString("hello"), "char", 5},
                            {str, "string", 1},
                            {cell, "cell", 2},
                            {s, "struct", 1}};
    for (auto& c : cases) {
        SCOPED_TRACE(c.cls);
        auto argument = arg(c.value);
        Results r = call("describe", 3, {argument});
        ASSERT_EQ(r->size(), 3u);
        EXPECT_EQ(text((*r)[0].get()), c.cls);
        EXPECT_EQ(hvGetScalar((*r)[1].get()), c.n);
        EXPECT_TRUE(hvAreMatricesEqual((*r)[2].get(), argument.get()));
    }

    // A built-in with one output, and a handle object made by the language that comes back as
    // itself in one process and can be passed on.
    Results sum = call("sum", 1, {arg(hvCreateNumericMatrix(hvDOUBLE_CLASS, 1, 4))});
    ASSERT_EQ(sum->size(), 1u);
    EXPECT_EQ(hvGetScalar((*sum)[0].get()), 0);
    Results box = call("RefBox", 1, {arg(hvCreateDoubleScalar(3)), arg(hvCreateString("b"))});
    ASSERT_EQ(box->size(), 1u);
    EXPECT_EQ(hvGetClassID((*box)[0].get()), hvOBJECT_CLASS);
    EXPECT_TRUE((*box)[0].get_deleter().isContextBound());
    auto boxArg = arg(hvCreateSharedDataCopy((*box)[0].get()));
    Results cls = call("class", 1, {boxArg});
    EXPECT_EQ(text((*cls)[0].get()), "RefBox");
}

TEST_F(FEvalHostTest, NoOutputsEdiResultsAndErrorsWithTheirStack) {
    eval(u"defined = 2;\n"
         u"function noisy(x)\n  y = x;\nend\n"
         u"function r = fails(x)\n  r = x;\n  error('test:bad', 'bad value %d', x);\nend\n");
    Results none = call("noisy", 0, {arg(hvCreateDoubleScalar(1))});
    EXPECT_TRUE(none->empty());
    auto plain =
        boost::make_shared<FEvalCmdRequest<void, void>>("tic", nullptr, nullptr, kTarn, kTarn);
    auto voidFuture = CmdDistributor::instance(kFenn)->enqueueWithFuture(plain);
    EXPECT_NO_THROW(settle(voidFuture));

    auto edi =
        boost::make_shared<EdiCall>("describe2", 2, std::vector<Array>{Array::createScalar(4.0)},
                                    nullptr, nullptr, kTarn, kTarn);
    eval(u"defined = 3;\n"
         u"function [a, b] = describe2(x)\n  a = x * 2;\n  b = 'done';\nend\n");
    auto ediFuture = CmdDistributor::instance(kFenn)->enqueueWithFuture(edi);
    std::vector<Array> values = settle(ediFuture);
    ASSERT_EQ(values.size(), 2u);
    EXPECT_EQ(values[0], Array::createScalar(8.0));
    EXPECT_EQ(values[1], Array::createChar(u"done"));

    try {
        call("fails", 1, {arg(hvCreateDoubleScalar(7))});
        FAIL() << "the call ended without an error";
    } catch (RuntimeException const& e) {
        EXPECT_EQ(e.getExecutionStatus(), quorl::cmddistributor::ExecutionError);
        EXPECT_EQ(e.GetUnicodeMessageTxt(), u"bad value 7");
        ASSERT_FALSE(e.getStackFrames().empty());
        EXPECT_EQ(e.getStackFrames().front().func, "fails");
    }
    EXPECT_THROW(call("no_such_function_here", 1, {}), RuntimeException);
}

TEST_F(FEvalHostTest, ABoundArgumentDiesOnItsInterpreterThreadOthersWhereTheyAre) {
    // The interpreter thread of the context, as a packaged task sees it.
    std::thread::id interpreterThread;
    auto probe = boost::make_shared<FcnCmdRequest<void>>(
        [&] { interpreterThread = std::this_thread::get_id(); }, nullptr, nullptr);
    auto probed = CmdDistributor::instance(kFenn)->enqueueWithFuture(probe);
    settle(probed);

    boost::promise<std::thread::id> boundDied, unboundDied;
    auto boundFuture = boundDied.get_future();
    auto unboundFuture = unboundDied.get_future();
    HvArrayDeleter bound(true, [&](const hvArray* a) {
        hvDestroyArray(a);
        boundDied.set_value(std::this_thread::get_id());
    });
    HvArrayDeleter unbound(false, [&](const hvArray* a) {
        hvDestroyArray(a);
        unboundDied.set_value(std::this_thread::get_id());
    });
    {
        Arguments args{boost::shared_ptr<const hvArray>(hvCreateFunctionHandle("sin"), bound),
                       boost::shared_ptr<const hvArray>(hvCreateDoubleScalar(2), unbound)};
        auto request = boost::make_shared<KeptArgumentsRequest>(std::move(args));
        auto future = CmdDistributor::instance(kFenn)->enqueueWithFuture(request);
        settle(future);
    }
    EXPECT_EQ(settle(boundFuture), interpreterThread);
    EXPECT_NE(settle(unboundFuture), std::thread::id());
}

TEST_F(FEvalHostTest, TypedCallsConvertValuesBothWaysAndReportWrongTypesWithTheirTexts) {
    quorl::cmddistributor::FEvalCall feval(CmdDistributor::instance(kFenn), kTarn, kTarn);
    auto total = feval.call<double>("sum", std::vector<double>{1, 2, 3.5});
    EXPECT_EQ(settle(total), 6.5);
    auto upper = feval.call<std::string>("upper", std::string("abc"));
    EXPECT_EQ(settle(upper), "ABC");
    HvArrayPtr matrix = matrix::detail::create_numeric(hvDOUBLE_CLASS, 2, 3);
    auto size =
        feval.call<std::tuple<double, double>>("size", static_cast<const hvArray*>(matrix.get()));
    EXPECT_EQ(settle(size), std::make_tuple(2.0, 3.0));
    auto row = feval.call<std::vector<double>>("cumsum", std::vector<double>{1, 2, 3});
    EXPECT_EQ(settle(row), (std::vector<double>{1, 3, 6}));
    auto edi = feval.call<Array>("power", Array::createScalar(2.0), Array::createScalar(3.0));
    EXPECT_EQ(settle(edi), Array::createScalar(8.0));
    auto ignored = feval.call<quorl::cmddistributor::IgnoreVariadicReturn>("tic");
    EXPECT_NO_THROW(settle(ignored));

    // A result of the wrong class or size is an error that names what was expected and found.
    std::pair<boost::unique_future<double>, std::string> wrong[] = {
        {feval.call<double>("upper", std::string("abc")),
         "Unexpected hvArray type returned from feval.  Expected double but found char."},
        {feval.call<double>("cumsum", std::vector<double>{1, 2}),
         "Incorrect hvArray size returned from feval.  Expected size >= 1 and size <= 1 but size "
         "== 2."}};
    for (auto& w : wrong)
        EXPECT_EQ(quorl_testing::errorOf<std::runtime_error>([&] { settle(w.first); }), w.second);
}
