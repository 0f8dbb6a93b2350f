// Many threads copy, share, re-address, index and destroy references to the same entries on
// both sides of the release protocol, and pass the client's references back to the server,
// while objects are retired one after another so that releases cross during the work. At the
// end every count is zero and every object has been destroyed exactly once.
// QUORL_STRESS_COUNT sets the number of iterations per thread (default 20000).
#include <tests/matrixref/twoexchanges.hpp>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <random>
#include <thread>
#include <vector>

using namespace quorl::matrixref;
using quorl::contextmgr::TarnID;
using quorl_testing::deserialize;
using quorl_testing::serialize;
using quorl_testing::ServerAsClientKnowsIt;
using quorl_testing::ServerTarn;

namespace {

auto* const environment = ::testing::AddGlobalTestEnvironment(new quorl_testing::TwoExchanges);

int iterations() {
    char const* text = std::getenv("QUORL_STRESS_COUNT");
    int n = text ? std::atoi(text) : 0;
    return n > 0 ? n : 20000;
}

// One thread's copies of the references to one object: the server's and the client's.
struct Copies {
    HvArrayPtr server;
    HvArrayPtr client;
};

void exercise(Copies& c, std::mt19937& random) {
    TarnID const elsewhere{11};
    switch (random() % 7) {
    case 0: { // shared copies on both sides
        HvArrayPtr a(hvCreateSharedDataCopy(c.server.get()));
        HvArrayPtr b(hvCreateSharedDataCopy(c.client.get()));
        HvArrayPtr d(hvDuplicateArray(b.get()));
        break;
    }
    case 1: { // element references: a count each in the table
        auto a = refElementIndexRef(c.server, 0);
        auto b = refElementIndexRef(c.client, 0);
        EXPECT_TRUE(a && b);
        break;
    }
    case 2: { // the server's reference sent on to another peer, for local use
        HvArrayPtr copy(hvCreateSharedDataCopy(c.server.get()));
        auto readdressed = refCreateRef(elsewhere, ServerTarn, copy, false);
        EXPECT_TRUE(refIsLocalRef(readdressed));
        break;
    }
    case 3: { // the client passes its reference back: the server gets its object
        auto bytes = serialize(c.client.get());
        auto back = deserialize(bytes);
        EXPECT_STREQ(hvGetClassName(back.get()), "CountedTestArray");
        break;
    }
    case 4: { // the server reads its array through its reference
        auto array = refGetRef(c.server, false);
        EXPECT_TRUE(array);
        break;
    }
    case 5: { // the client asks about its remote array
        EXPECT_EQ(refGetClassname(c.client), "CountedTestArray");
        EXPECT_EQ(refGetDimensions(c.client).size(), 2u);
        break;
    }
    default: { // a reference stored in a cell that dies
        HvArrayPtr cell(hvCreateCellMatrix(1, 2));
        hvSetCell(cell.get(), 0, hvCreateSharedDataCopy(c.server.get()));
        hvSetCell(cell.get(), 1, hvCreateSharedDataCopy(c.client.get()));
        break;
    }
    }
}

} // namespace

TEST(MatrixRefStress, CountsEndAtZeroAndEachObjectDiesOnce) {
    int const objects = 16;
    int const threads = 8;
    int const rounds = iterations();
    auto& table = *quorl_testing::TwoExchanges::table;

    std::vector<std::atomic<int>> deaths(objects);
    std::atomic<int> dead{0};
    std::promise<void> allDead;
    std::vector<HvArrayPtr> server(objects), client(objects);
    for (int i = 0; i < objects; ++i) {
        auto object = quorl_testing::makeCounted(1, [&, i] {
            ++deaths[i];
            if (++dead == objects)
                allDead.set_value();
        });
        // The server keeps a reference of its own and sends one to the client.
        server[i] = refCreateRef(ServerAsClientKnowsIt, ServerTarn, object, false);
        HvArrayPtr reply(hvCreateCellMatrix(1, 1));
        hvSetCell(reply.get(), 0, hvCreateSharedDataCopy(server[i].get()));
        std::string error;
        auto converted = refCopyAndConvertArray(reply, ServerAsClientKnowsIt, ServerTarn, error);
        auto arrived = deserialize(serialize(converted.get()));
        client[i].reset(hvCreateSharedDataCopy(hvGetCell(arrived.get(), 0)));
        ASSERT_TRUE(refIsRemoteRef(client[i]));
    }

    // Each thread gets its own copies; object i is retired by every thread at its own round.
    std::vector<std::vector<Copies>> copies(threads);
    for (auto& perThread : copies) {
        perThread.resize(objects);
        for (int i = 0; i < objects; ++i) {
            perThread[i].server.reset(hvCreateSharedDataCopy(server[i].get()));
            perThread[i].client.reset(hvCreateSharedDataCopy(client[i].get()));
        }
    }
    server.clear();
    client.clear();

    std::promise<void> go;
    std::shared_future<void> start = go.get_future().share();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            std::mt19937 random(1234u + t);
            start.wait();
            auto& mine = copies[t];
            for (int round = 0; round < rounds; ++round) {
                int retiring = static_cast<int>(static_cast<long>(round) * objects / rounds);
                for (int i = 0; i < retiring; ++i) {
                    mine[i].server.reset();
                    mine[i].client.reset();
                }
                int i = retiring + static_cast<int>(random() % (objects - retiring));
                exercise(mine[i], random);
            }
            mine.clear();
        });
    }
    go.set_value();
    for (auto& w : workers)
        w.join();

    ASSERT_EQ(allDead.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready)
        << dead << " of " << objects << " objects destroyed";
    for (int i = 0; i < objects; ++i)
        EXPECT_EQ(deaths[i].load(), 1) << "object " << i;
    EXPECT_EQ(table.countActive(false), 0u);
    EXPECT_EQ(table.countTotal(false), 0u);
}
