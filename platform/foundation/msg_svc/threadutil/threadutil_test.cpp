#include <foundation/msg_svc/threadutil/concurrenttbbhashmap.hpp>
#include <foundation/msg_svc/threadutil/releasecountedmutexguard.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using namespace foundation::msg_svc::threadutil;

TEST(CountedMutex, CountsNestingAndReleasesCompletely) {
    CountedMutex m;
    EXPECT_FALSE(m.isLocked());
    m.lock();
    m.lock();
    EXPECT_TRUE(m.isLocked());
    EXPECT_EQ(m.depthOfCaller(), 2u);
    std::atomic<bool> otherGot{false};
    std::thread other;
    {
        ReleaseCountedMutexGuard guard(m);
        EXPECT_EQ(guard.releasedDepth(), 2u);
        EXPECT_FALSE(m.isLocked());
        other = std::thread([&] {
            m.lock();
            otherGot = true;
            m.unlock();
        });
        other.join();
    }
    EXPECT_TRUE(otherGot.load());
    EXPECT_EQ(m.depthOfCaller(), 2u);
    std::thread([&] {
        EXPECT_FALSE(m.try_lock());
        EXPECT_THROW(m.unlock(), std::logic_error);
        ReleaseCountedMutexGuard nothing(m); // not held here: does nothing
        EXPECT_EQ(nothing.releasedDepth(), 0u);
    }).join();
    m.unlock();
    EXPECT_TRUE(m.isLocked());
    m.unlock();
    EXPECT_FALSE(m.isLocked());
}

TEST(CountedMutex, ExcludesAcrossThreads) {
    CountedMutex m;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                m.lock();
                m.lock();
                ++counter;
                m.unlock();
                m.unlock();
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(counter, 80000);
}

TEST(ConcurrentTBBHashMap, KeyAndTableOperations) {
    ConcurrentTBBHashMap<ConcurrentMap<int, std::shared_ptr<int>>> map;
    EXPECT_TRUE(map.insert({1, std::make_shared<int>(10)}));
    EXPECT_FALSE(map.insert({1, std::make_shared<int>(11)}));
    EXPECT_EQ(**map.find(1), 10);
    EXPECT_FALSE(map.find(2));
    EXPECT_EQ(map.size(), 1u);
    auto removed = map.remove(1);
    ASSERT_TRUE(removed);
    EXPECT_EQ(**removed, 10);
    EXPECT_FALSE(map.remove(1));

    // getOrCreate runs the creation once per key, however many threads race for it.
    std::atomic<int> created{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int k = 0; k < 200; ++k) {
                auto v = map.getOrCreate(k, [&] {
                    ++created;
                    return std::make_shared<int>(k);
                });
                EXPECT_EQ(*v, k);
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(created.load(), 200);
    EXPECT_EQ(map.size(), 200u);
    // A throwing creation leaves no entry.
    EXPECT_THROW(
        map.getOrCreate(-1, []() -> std::shared_ptr<int> { throw std::runtime_error("x"); }),
        std::runtime_error);
    EXPECT_FALSE(map.find(-1));

    long sum = 0;
    map.forEach([&](std::pair<int const, std::shared_ptr<int>>& e) { sum += *e.second; });
    EXPECT_EQ(sum, 199 * 200 / 2);
    std::weak_ptr<int> watch = *map.find(5);
    map.clear();
    EXPECT_EQ(map.size(), 0u);
    EXPECT_TRUE(watch.expired());
}
