// Function calls across processes: a real server process over ipc://, arguments of every kind,
// results as bytes and as EDI values, nlhs 0, 1 and several, errors with their stack, and an
// object that comes back as a reference.
#include <tests/crossprocess/serverprocess.hpp>

#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/evalcmdrequest.hpp>
#include <quorl/cmddistributor/fevalcall.hpp>
#include <quorl/cmddistributor/fevalcmdrequest.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/extstring/extstring.hpp>
#include <quorl/matrixref/matrixref.hpp>

#include <foundation/cppmicroservices/framework.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/zmqtransport.hpp>

#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/future.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include <unistd.h>

using namespace cmddistributor;
using crossprocess::PrivateDir;
using crossprocess::ServerProcess;
using foundation::extdata::Array;
using foundation::msg_svc::exchange::ExchangeApi;
using foundation::msg_svc::exchange::ExchangeConfig;
using quorl::cmddistributor::ManagedArrayVector;
using quorl::contextmgr::FennID;
using quorl::contextmgr::TarnID;

namespace {

typedef boost::shared_ptr<ManagedArrayVector> Results;
typedef std::vector<boost::shared_ptr<const hvArray>> Arguments;
typedef FEvalCmdRequest<Results, Arguments> ArrayCall;
typedef FEvalCmdRequest<std::vector<Array>, std::vector<Array>> EdiCall;

TarnID const kClientTarn{41};
TarnID const kServerTarn = quorl::contextmgr::BlessedTarnID;

struct ClientEnvironment : ::testing::Environment {
    void SetUp() override {
        ExchangeConfig config;
        config.name = "feval-client-" + std::to_string(::getpid());
        config.transport = foundation::msg_svc::exchange::makeZmqTransport();
        ExchangeApi::configure(config);
        ExchangeApi::instance();
        foundation::cppmicroservices::startFramework();
        quorl::extstring::extstrInitExtString(); // strings come back as portable strings
        quorl::matrixref::detail::refInitMatrixReferences({},
                                                          [](hvArray_tag const*) { return true; });
    }
};
[[maybe_unused]] auto* const environment =
    ::testing::AddGlobalTestEnvironment(new ClientEnvironment);

template <class F> auto settle(F& future) -> decltype(future.get()) {
    if (future.wait_for(boost::chrono::seconds(30)) != boost::future_status::ready)
        throw std::runtime_error("no answer within the patience");
    return future.get();
}

boost::shared_ptr<const hvArray> arg(hvArray* a) {
    return boost::shared_ptr<const hvArray>(a, hvDestroyArray);
}

class FEvalRemoteTest : public ::testing::Test {
protected:
    void SetUp() override { startServer(); }
    void startServer() {
        endpoint_ = "ipc://" + dir_.path() + "/feval";
        server_ = std::make_unique<ServerProcess>(QUORL_FEVAL_SERVER,
                                                  std::vector<std::string>{"--listen", endpoint_});
        ASSERT_TRUE(server_->waitForLine("listening on " + endpoint_)) << server_->errors();
        quorl::matrixref::detail::refRegisterExchange(kServerTarn, endpoint_);
        distributor_ = CmdDistributor::create(
            FennID{0}, endpoint_, boost::none,
            quorl::eventmgr::createRemoteEventMgr(endpoint_, boost::none, boost::none));
    }
    void TearDown() override { stopServer(); }
    void stopServer() {
        distributor_.reset();
        if (server_) {
            server_->signal(SIGTERM);
            server_->wait();
            server_.reset();
        }
    }

    Results call(std::string const& name, std::size_t nlhs, Arguments const& args) {
        auto request = boost::make_shared<ArrayCall>(name, nlhs, args, nullptr, nullptr,
                                                     kClientTarn, kServerTarn);
        auto future = distributor_->enqueueWithFuture(request);
        return settle(future);
    }
    void eval(std::u16string const& code) {
        auto request =
            boost::make_shared<EvalCmdRequest>(true, UnsetIqmStreamID, nullptr, nullptr, code);
        auto future = distributor_->enqueueWithFuture(request);
        settle(future);
    }

    PrivateDir dir_;
    std::string endpoint_;
    std::unique_ptr<ServerProcess> server_;
    boost::shared_ptr<CmdDistributor> distributor_;
};

} // namespace

TEST_F(FEvalRemoteTest, ArgumentsAndResultsCrossInBothFormsAndErrorsKeepTheirStack) {
    eval(u"defined = 1;\n"
         u"function [c, n, t] = describe(x)\n  c = class(x);\n  n = numel(x);\n  t = x;\nend\n"
         u"function r = fails(x)\n  r = x;\n  error('test:bad', 'bad value %d', x);\nend\n");
    const char* fields[] = {"a"};
    hvArray* s = hvCreateStructMatrix(1, 2, 1, fields);
    hvSetField(s, 1, "a", hvCreateString("two"));
    hvArray* cell = hvCreateCellMatrix(1, 3);
    hvSetCell(cell, 2, hvCreateDoubleScalar(5));
    struct Case {
        hvArray* value;
        std::string cls;
        double n;
    };
    std::vector<Case> cases{{hvCreateNumericMatrix(hvDOUBLE_CLASS, 3, 2), "double", 6},
                            {hvCreateString("remote"), "char", 6},
                            {hvCreateClassArray("string", 1, 2), "string", 2},
                            {cell, "cell", 3},
                            {s, "struct", 2}};
    for (auto& c : cases) {
        SCOPED_TRACE(c.cls);
        auto argument = arg(c.value);
        Results r = call("describe", 3, {argument});
        ASSERT_EQ(r->size(), 3u);
        EXPECT_EQ(hvArrayToStdString((*r)[0].get()), c.cls);
        EXPECT_EQ(hvGetScalar((*r)[1].get()), c.n);
        if (c.cls != "string") { // a string comes back as a portable string
            EXPECT_TRUE(hvAreMatricesEqual((*r)[2].get(), argument.get()));
        }
    }
    // With nlhs 0 the language still hands back the first output, as its `ans`.
    Results ans = call("describe", 0, {arg(hvCreateDoubleScalar(1))});
    ASSERT_EQ(ans->size(), 1u);
    EXPECT_EQ(hvArrayToStdString((*ans)[0].get()), "double");
    auto plain = boost::make_shared<FEvalCmdRequest<void, void>>("tic", nullptr, nullptr,
                                                                 kClientTarn, kServerTarn);
    auto voidFuture = distributor_->enqueueWithFuture(plain);
    EXPECT_NO_THROW(settle(voidFuture));

    auto edi =
        boost::make_shared<EdiCall>("describe", 2, std::vector<Array>{Array::createChar(u"abc")},
                                    nullptr, nullptr, kClientTarn, kServerTarn);
    auto ediFuture = distributor_->enqueueWithFuture(edi);
    std::vector<Array> values = settle(ediFuture);
    ASSERT_EQ(values.size(), 2u);
    EXPECT_EQ(values[0], Array::createChar(u"char"));
    EXPECT_EQ(values[1], Array::createScalar(3.0));

    try {
        call("fails", 1, {arg(hvCreateDoubleScalar(9))});
        FAIL() << "the call ended without an error";
    } catch (RuntimeException const& e) {
        EXPECT_EQ(e.getExecutionStatus(), quorl::cmddistributor::ExecutionError);
        EXPECT_EQ(e.GetUnicodeMessageTxt(), u"bad value 9");
        ASSERT_FALSE(e.getStackFrames().empty());
        EXPECT_EQ(e.getStackFrames().front().func, "fails");
    }

    // Typed calls take the same road.
    quorl::cmddistributor::FEvalCall feval(distributor_, kClientTarn, kServerTarn);
    auto total = feval.call<double>("sum", std::vector<double>{1, 2, 3.5});
    EXPECT_EQ(settle(total), 6.5);
    auto sizes = feval.call<std::tuple<double, double>>("size", std::string("four"));
    EXPECT_EQ(settle(sizes), std::make_tuple(1.0, 4.0));
    auto power = feval.call<Array>("power", Array::createScalar(2.0), Array::createScalar(5.0));
    EXPECT_EQ(settle(power), Array::createScalar(32.0));

    // An object cannot travel: it comes back as a reference to the server's object.
    Results box = call("RefBox", 1, {arg(hvCreateDoubleScalar(3)), arg(hvCreateString("b"))});
    ASSERT_EQ(box->size(), 1u);
    EXPECT_TRUE(quorl::matrixref::refIsRef((*box)[0].get()));
    EXPECT_TRUE(
        quorl::matrixref::refIsRemoteRef(HvArrayPtr(hvCreateSharedDataCopy((*box)[0].get()))));
}

// The server's serializer can write double scalars only, as the real one cannot write an array
// beyond its message limit: a char result goes out with an empty payload, the client's reading
// stops there, and its future reports the result as too large.
TEST_F(FEvalRemoteTest, AResultTheServersSerializerCannotWriteArrivesAsThe2GBError) {
    stopServer();
    namespace fs = boost::filesystem;
    fs::path const root = fs::path(dir_.path()) / "plugins";
    fs::path const folder = root / "bin" / "win64" / "serializer_plugins";
    fs::create_directories(folder);
    std::ofstream((folder / "failing.manifest").string())
        << "bundle.library=" << FEVAL_FAILING_SERIALIZER
        << "\nzn.serialization.for_type=foundation::extdata::Array"
           "\nzn.serialization.method=protobuf\n";
    ::setenv("FEVAL_PLUGIN_ROOT", root.c_str(), 1);
    startServer();
    ::unsetenv("FEVAL_PLUGIN_ROOT");

    eval(u"defined = 1;\nfunction [t, n] = textAndNumber()\n  t = 'too large';\n  n = 1;\nend\n");
    auto withText = boost::make_shared<EdiCall>("textAndNumber", 2, std::vector<Array>{}, nullptr,
                                                nullptr, kClientTarn, kServerTarn);
    auto future = distributor_->enqueueWithFuture(withText);
    try {
        settle(future);
        FAIL() << "a result the serializer could not write arrived";
    } catch (RuntimeException const& e) {
        EXPECT_EQ(e.GetUnicodeMessageTxt(),
                  u"Error: At least one return argument is larger than 2 GB.");
        EXPECT_EQ(e.getExecutionStatus(), quorl::cmddistributor::ExecutionCommunicationError);
    }
}
