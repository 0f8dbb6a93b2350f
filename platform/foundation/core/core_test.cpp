#include <cpp11compat/u16streams.hpp>
#include <foundation/core/diag/terminate.hpp>
#include <foundation/core/except/exception.hpp>
#include <foundation/core/io/streambufadaptor.hpp>
#include <foundation/core/log/diagnosticlogger.hpp>
#include <foundation/core/log/tracescope.hpp>
#include <foundation/core/memory/poolallocator.hpp>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <ostream>
#include <sstream>
#include <thread>
#include <vector>

using namespace foundation::core;

TEST(UserException, CarriesIdAndMessageInBothForms) {
    except::UserException e("quorl:test:id", u"caf\u00e9 \U0001F600");
    EXPECT_EQ(e.GetID(), "quorl:test:id");
    EXPECT_EQ(e.GetUnicodeMessageTxt(), u"caf\u00e9 \U0001F600");
    EXPECT_STREQ(e.what(), "caf\xC3\xA9 \xF0\x9F\x98\x80");
    EXPECT_EQ(e.ToUstring(), u"quorl:test:id: caf\u00e9 \U0001F600");
    // what() stays valid and equal from many threads and in copies.
    except::UserException copy(e);
    std::vector<std::thread> threads;
    std::vector<std::string> seen(8);
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&, i] { seen[i] = copy.what(); });
    for (auto& t : threads)
        t.join();
    for (auto const& s : seen)
        EXPECT_EQ(s, e.what());
    // Invalid text does not throw.
    except::UserException bad("", ustring(1, char16_t(0xD800)));
    EXPECT_NO_THROW(bad.what());
    try {
        throw except::UserException("x:y", std::string("narrow"));
    } catch (except::IUserException const& ie) {
        EXPECT_EQ(ie.GetMessageTxt(), "narrow");
    }
}

TEST(DiagnosticLogger, MaskIsTestedBeforeTextIsBuilt) {
    std::ostringstream out;
    log::set_console_stream(&out);
    log::diagnostic_logger logger("quorl::test::channel");
    int evaluated = 0;
    auto costly = [&] {
        ++evaluated;
        return 42;
    };
    log::set_channel_mask("quorl::test::channel", log::mask_from(log::warning));
    ZN_LOG(logger, log::debug) << "hidden " << costly();
    EXPECT_EQ(evaluated, 0);
    ZN_LOG(logger, log::error) << "shown " << costly();
    EXPECT_EQ(evaluated, 1);
    EXPECT_NE(out.str().find("[quorl::test::channel] error: shown 42"), std::string::npos);
    EXPECT_EQ(out.str().find("hidden"), std::string::npos);

    // A channel without its own mask follows the default.
    log::diagnostic_logger other("quorl::test::other");
    log::set_default_mask(log::all_severities);
    EXPECT_TRUE(other.is_enabled(log::trace));
    EXPECT_FALSE(logger.is_enabled(log::trace));
    log::clear_channel_mask("quorl::test::channel");
    EXPECT_TRUE(logger.is_enabled(log::trace));
    { log::trace_scope scope(other, "work"); }
    EXPECT_NE(out.str().find("enter work"), std::string::npos);
    EXPECT_NE(out.str().find("leave work"), std::string::npos);
    log::set_default_mask(log::mask_from(log::error));
    log::set_console_stream(&std::clog);
}

TEST(Diag, DemanglesAndTerminatesThroughHandler) {
    EXPECT_EQ(diag::detail::demangle_typeid_name(typeid(std::vector<int>)),
              "std::vector<int, std::allocator<int> >");
    EXPECT_DEATH(diag::terminate("buffer too big", "test/source"), "test/source: buffer too big");
}

TEST(StreambufAdaptor, DecodesUtf8SplitAcrossWrites) {
    auto target = boost::make_shared<cpp11compat::u16stringbuf>();
    auto narrow = io::make_streambuf_adaptor(target, "");
    std::string const text = "x\xE2\x82\xAC\xF0\x9F\x98\x80y";
    // One byte at a time through a stream: characters are split across every write.
    std::ostream os(narrow.get());
    for (char c : text)
        os.put(c);
    os.flush();
    EXPECT_EQ(target->str(), u"x\u20ac\U0001F600y");
    // A large write goes straight through; a bad byte becomes U+FFFD.
    std::string big(5000, 'a');
    big += "\xFF";
    narrow->sputn(big.data(), static_cast<std::streamsize>(big.size()));
    narrow->pubsync();
    EXPECT_EQ(target->str().size(), 5u + 5001u);
    EXPECT_EQ(target->str().back(), u'\uFFFD');

    auto latin = io::make_streambuf_adaptor(target, "ISO-8859-1");
    latin->sputn("\xE9", 1);
    EXPECT_EQ(target->str().back(), u'\u00e9');
    EXPECT_THROW(io::make_streambuf_adaptor(target, "no-such-charset"), std::invalid_argument);
    EXPECT_THROW(io::make_streambuf_adaptor(nullptr, ""), std::invalid_argument);
}

TEST(U16Streams, UnformattedWritesWork) {
    cpp11compat::u16stringbuf buf;
    cpp11compat::u16ostream os(&buf);
    cpp11compat::write(os, u"ab");
    os.put(u'c');
    os << u"de";
    EXPECT_TRUE(os.good());
    EXPECT_EQ(buf.str(), u"abcde");
}

namespace {
struct Pooled : memory::PoolAllocated {
    explicit Pooled(int v) : value(v) {}
    virtual ~Pooled() { ++destroyed; }
    int value;
    static std::atomic<int> destroyed;
};
std::atomic<int> Pooled::destroyed{0};
struct PooledChild : Pooled {
    explicit PooledChild(int v) : Pooled(v), extra{v, v, v, v, v, v} {}
    long long extra[6];
};
} // namespace

TEST(PoolAllocator, ObjectsMadeOnOneThreadDieOnAnother) {
    // A producer allocates every form the library uses; a consumer frees them, as interpreter
    // threads free what clients make. Values must arrive intact and every object die once.
    constexpr int count = 20000;
    std::mutex m;
    std::deque<std::pair<std::unique_ptr<Pooled>, std::shared_ptr<std::vector<int>>>> handed;
    std::deque<boost::shared_ptr<std::string>> strings;
    std::atomic<bool> done{false};
    long long sum = 0;
    std::thread consumer([&] {
        for (;;) {
            std::unique_lock<std::mutex> lock(m);
            if (handed.empty()) {
                if (done)
                    return;
                lock.unlock();
                std::this_thread::yield();
                continue;
            }
            auto item = std::move(handed.front());
            handed.pop_front();
            auto text = std::move(strings.front());
            strings.pop_front();
            lock.unlock();
            sum += item.first->value + item.second->back() + static_cast<long long>(text->size());
        }
    });
    long long expected = 0;
    for (int i = 0; i < count; ++i) {
        std::unique_ptr<Pooled> object(i % 2 ? new PooledChild(i) : new Pooled(i));
        std::vector<int, memory::PoolAllocator<int>> scratch(static_cast<std::size_t>(i % 50));
        auto shared = memory::makePooledShared<std::vector<int>>(3, i);
        auto text =
            memory::makePooledBoostShared<std::string>(static_cast<std::size_t>(i % 40), 'x');
        expected += i + i + i % 40;
        std::lock_guard<std::mutex> lock(m);
        handed.emplace_back(std::move(object), std::move(shared));
        strings.push_back(std::move(text));
    }
    done = true;
    consumer.join();
    EXPECT_EQ(sum, expected);
    EXPECT_EQ(Pooled::destroyed.load(), count);
    EXPECT_THROW(memory::PoolAllocator<double>().allocate(std::size_t(-1) / 4), std::bad_alloc);
}
