// quorl-server with what the reference tests watch from outside: its release service counts the
// releases it serves, and code may call
//   liveToken()         a new token: an opaque array whose last copy's death is counted;
//   liveTokens()        how many tokens are alive in this process;
//   releasesServed()    how many releases the service has served;
//   clearContextRefs()  refClearAll for the context of the calling interpreter.
// A token kept in an object's property dies with the object, so liveTokens() tells whether the
// objects handed out by reference have really been destroyed.
#include <tools/server/serverapp.hpp>

#include <quorl/contextmgr/contextregistry.hpp>
#include <quorl/language/interpreter.hpp>
#include <quorl/matrixref/matrixref.hpp>
#include <quorl/matrixref/matrixrefservice.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>

#include <hv/hvopaque.hpp>

#include <boost/make_shared.hpp>

#include <atomic>

namespace {

std::atomic<long> liveTokenCount{0};
std::atomic<long> servedReleases{0};

struct Token {
    std::atomic<long> sharers{1};
};

void* shareToken(void* giblet) {
    static_cast<Token*>(giblet)->sharers.fetch_add(1);
    return giblet;
}

void destroyToken(void* giblet) {
    auto* token = static_cast<Token*>(giblet);
    if (token->sharers.fetch_sub(1) == 1) {
        delete token;
        liveTokenCount.fetch_sub(1);
    }
}

hvOpaqueClass const* tokenClass() {
    static hvOpaqueClass const* const cls = [] {
        hvOpaqueClassOps ops;
        ops.share = &shareToken;
        ops.destroy = &destroyToken;
        return hvSubclassOpaqueArray("RefServerLiveToken", &ops);
    }();
    return cls;
}

void liveToken(int, hvArray_tag** plhs, int, hvArray_tag**) {
    liveTokenCount.fetch_add(1);
    plhs[0] = hvCreateOpaqueGiblet(tokenClass(), new Token);
}

void liveTokens(int, hvArray_tag** plhs, int, hvArray_tag**) {
    plhs[0] = hvCreateDoubleScalar(static_cast<double>(liveTokenCount.load()));
}

void releasesServed(int, hvArray_tag** plhs, int, hvArray_tag**) {
    plhs[0] = hvCreateDoubleScalar(static_cast<double>(servedReleases.load()));
}

void clearContextRefs(int, hvArray_tag**, int, hvArray_tag**) {
    quorl::matrixref::detail::refClearAll(quorl::contextmgr::ContextRegistry::getTarnID());
}

// Counted before the release is applied: whoever sees its effect sees it counted.
struct CountingReleaseService : quorl::matrixref::MatrixRefService {
    boost::shared_ptr<foundation::msg_svc::exchange::Reply const>
    serve(quorl::matrixref::ReleaseRefMessage const& message) override {
        servedReleases.fetch_add(1);
        return MatrixRefService::serve(message);
    }
};

} // namespace

int main(int argc, char** argv) {
    return quorl::server::runServer(argc, argv, [] {
        namespace ex = foundation::msg_svc::exchange;
        ex::registerActor<quorl::matrixref::MatrixRefServiceAPI>(
            *ex::ExchangeApi::instance(), quorl::matrixref::MatrixRefServiceAPI::serviceName,
            boost::make_shared<CountingReleaseService>());
        tokenClass();
        quorl::language::registerHostFunction("liveToken", &liveToken);
        quorl::language::registerHostFunction("liveTokens", &liveTokens);
        quorl::language::registerHostFunction("releasesServed", &releasesServed);
        quorl::language::registerHostFunction("clearContextRefs", &clearContextRefs);
    });
}
