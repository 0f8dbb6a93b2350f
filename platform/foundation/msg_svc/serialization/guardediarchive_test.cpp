#include <foundation/msg_svc/serialization/guardediarchive.hpp>

#include <foundation/msg_svc/exchange/wire.hpp>
#include <tests/support/errorof.hpp>

#include <boost/archive/polymorphic_binary_oarchive.hpp>
#include <boost/make_shared.hpp>
#include <boost/serialization/base_object.hpp>
#include <boost/serialization/export.hpp>
#include <boost/serialization/shared_ptr.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/vector.hpp>
#include <gtest/gtest.h>

#include <sstream>

using foundation::msg_svc::exchange::Message;
using foundation::msg_svc::exchange::Reply;
using foundation::msg_svc::exchange::Routing;
namespace wire = foundation::msg_svc::exchange::wire;

namespace {

// A message with a field of every kind the guard watches; `first` and `second` may be one
// object, which the writer then sends as a reference.
class Probe : public Message {
public:
    Probe() = default;
    Probe(bool flag, std::string text, std::vector<int> numbers)
        : flag(flag), text(std::move(text)), numbers(std::move(numbers)) {}
    ~Probe() override {
        if (second != first)
            delete second;
        delete first;
    }
    boost::shared_ptr<Reply const> deliver(Routing const&) const override { return nullptr; }

    bool flag = false;
    std::string text;
    std::vector<int> numbers;
    Message* first = nullptr;
    Message* second = nullptr;

    template <class A> void serialize(A& ar, unsigned) {
        ar& boost::serialization::make_nvp("message",
                                           boost::serialization::base_object<Message>(*this));
        ar& boost::serialization::make_nvp("flag", flag);
        ar& boost::serialization::make_nvp("text", text);
        ar& boost::serialization::make_nvp("numbers", numbers);
        ar& boost::serialization::make_nvp("first", first);
        ar& boost::serialization::make_nvp("second", second);
    }
};

std::string encode(Probe const& p) {
    return wire::encodeMessage(p);
}

std::string refusalOf(std::string const& bytes) {
    return quorl_testing::errorOf([&] { wire::decodeMessage(bytes); });
}

// Where two encodings first differ.
std::size_t firstDifference(std::string const& a, std::string const& b) {
    std::size_t i = 0;
    while (i < a.size() && i < b.size() && a[i] == b[i])
        ++i;
    return i;
}

std::size_t headerSize() {
    std::ostringstream os;
    { boost::archive::polymorphic_binary_oarchive oa(os); }
    return os.str().size();
}

// An abstract class held through a smart pointer, one kind of it, and a class of the same form
// that is not one.
class Shape {
public:
    virtual ~Shape() = default;
    virtual int corners() const = 0;
    template <class A> void serialize(A&, unsigned) {}
};

class GuardCircle : public Shape {
public:
    int corners() const override { return 0; }
    std::string name = "circle";
    template <class A> void serialize(A& ar, unsigned) {
        ar& boost::serialization::make_nvp("shape",
                                           boost::serialization::base_object<Shape>(*this));
        ar& boost::serialization::make_nvp("name", name);
    }
};

class GuardSquare {
public:
    virtual ~GuardSquare() = default;
    std::string name = "square";
    template <class A> void serialize(A& ar, unsigned) {
        ar& boost::serialization::make_nvp("name", name);
    }
};

class Holder : public Message {
public:
    boost::shared_ptr<Reply const> deliver(Routing const&) const override { return nullptr; }
    boost::shared_ptr<Shape> shape;
    template <class A> void serialize(A& ar, unsigned) {
        ar& boost::serialization::make_nvp("message",
                                           boost::serialization::base_object<Message>(*this));
        ar& boost::serialization::make_nvp("shape", shape);
    }
};

class Answer : public Reply {
public:
    std::string text = "answer";
    template <class A> void serialize(A& ar, unsigned) {
        ar& boost::serialization::make_nvp("reply",
                                           boost::serialization::base_object<Reply>(*this));
        ar& boost::serialization::make_nvp("text", text);
    }
};

// `bytes` with the length-prefixed class name `from` replaced by `to` (of the same length).
std::string renamed(std::string bytes, std::string const& from, std::string const& to) {
    std::size_t const at = bytes.find(from);
    EXPECT_NE(at, std::string::npos);
    EXPECT_EQ(from.size(), to.size());
    if (at != std::string::npos)
        bytes.replace(at, from.size(), to);
    return bytes;
}

} // namespace

BOOST_SERIALIZATION_ASSUME_ABSTRACT(Shape)
BOOST_CLASS_EXPORT(Probe)
BOOST_CLASS_EXPORT(GuardCircle)
BOOST_CLASS_EXPORT(GuardSquare)
BOOST_CLASS_EXPORT(Holder)
BOOST_CLASS_EXPORT(Answer)

TEST(GuardedIArchive, ReadsWhatTheBinaryArchiveWritesIncludingNestedPointers) {
    Probe p(true, "text", {1, 2, 3});
    p.first = new Probe(false, "inner", {});
    auto back = wire::decodeMessage(encode(p));
    auto const* probe = dynamic_cast<Probe const*>(back.get());
    ASSERT_TRUE(probe);
    EXPECT_TRUE(probe->flag);
    EXPECT_EQ(probe->text, "text");
    EXPECT_EQ(probe->numbers, (std::vector<int>{1, 2, 3}));
    auto const* inner = dynamic_cast<Probe const*>(probe->first);
    ASSERT_TRUE(inner);
    EXPECT_EQ(inner->text, "inner");
    EXPECT_EQ(probe->second, nullptr);
}

TEST(GuardedIArchive, RefusesBadBoolsLengthsCountsClassIdsAndReferences) {
    // A bool byte other than 0 or 1.
    std::string const yes = encode(Probe(true, "", {}));
    std::string const no = encode(Probe(false, "", {}));
    std::size_t const flagAt = firstDifference(yes, no);
    ASSERT_LT(flagAt, yes.size());
    std::string bad = yes;
    bad[flagAt] = 2;
    EXPECT_NE(refusalOf(bad).find("a bool byte of 2"), std::string::npos) << refusalOf(bad);

    // A string length beyond the bytes left: refused before anything is allocated for it.
    std::string const text = encode(Probe(false, "ABCDEFGH", {}));
    std::size_t const textAt = text.find("ABCDEFGH");
    ASSERT_NE(textAt, std::string::npos);
    bad = text;
    for (int i = 0; i < 8; ++i)
        bad[textAt - 8 + i] = i == 3 ? 0x40 : 0; // 1 GiB
    EXPECT_NE(refusalOf(bad).find("count of 1073741824"), std::string::npos) << refusalOf(bad);

    // An element count beyond the bytes left.
    std::string const three = encode(Probe(false, "", {7, 7, 7}));
    std::string const four = encode(Probe(false, "", {7, 7, 7, 7}));
    std::size_t const countAt = firstDifference(three, four);
    bad = three;
    bad[countAt] = 0;
    bad[countAt + 3] = 0x20;
    EXPECT_NE(refusalOf(bad).find("count of"), std::string::npos) << refusalOf(bad);

    // Class ids: negative, or beyond the classes met.
    std::string const plain = encode(Probe(false, "", {}));
    for (int id : {-5, -32768, 99}) {
        bad = plain;
        bad[headerSize()] = static_cast<char>(id & 0xFF);
        bad[headerSize() + 1] = static_cast<char>((id >> 8) & 0xFF);
        EXPECT_NE(refusalOf(bad).find("class id " + std::to_string(id)), std::string::npos)
            << refusalOf(bad);
    }

    // A class that has no loader for pointers (an abstract base) named as the object.
    std::string const abstractKey = "foundation::msg_svc::eventmgr::BaseEvent";
    std::string named = plain;
    std::size_t const keyAt = named.find("Probe");
    ASSERT_NE(keyAt, std::string::npos);
    // The class name is length-prefixed: replace it with the abstract base's.
    std::string const probeKey = named.substr(keyAt, 5);
    std::size_t const lengthAt = keyAt - 8;
    named.replace(keyAt, probeKey.size(), abstractKey);
    named[lengthAt] = static_cast<char>(abstractKey.size());
    EXPECT_NE(refusalOf(named).find("cannot be loaded through a pointer"), std::string::npos)
        << refusalOf(named);

    // A reference to an object loaded before, here the object the first pointer made.
    Probe shared(false, "", {});
    shared.first = shared.second = new Probe(false, "shared", {});
    EXPECT_NE(refusalOf(encode(shared)).find("references to loaded objects are not accepted"),
              std::string::npos);

    // Truncated anywhere: an error, never a read past the end.
    Probe nested(true, "outer", {4, 5});
    nested.first = new Probe(true, "inner", {6});
    std::string const whole = encode(nested);
    for (std::size_t n = 0; n < whole.size(); ++n)
        EXPECT_NE(refusalOf(whole.substr(0, n)), "(no error)") << n;
}

// A class named for a pointer that cannot hold it: Boost would make the object, then fail to
// convert the pointer and lose it (LeakSanitizer sees that in the sanitizer build).
TEST(GuardedIArchive, RefusesOrFreesAnObjectOfAClassThePointerCannotHold) {
    // The outermost pointer: a reply where a message is due, refused before it is made.
    std::string const reply = wire::encodeReply(Answer());
    EXPECT_NE(refusalOf(reply).find("is not a kind of"), std::string::npos) << refusalOf(reply);
    EXPECT_TRUE(wire::decodeReply(reply));

    // A pointer to an abstract class inside a message: its class cannot be checked before the
    // load, so the object made is freed when the conversion fails.
    Holder holder;
    holder.shape = boost::make_shared<GuardCircle>();
    std::string const good = wire::encodeMessage(holder);
    auto back = wire::decodeMessage(good);
    auto const* held = dynamic_cast<Holder const*>(back.get());
    ASSERT_TRUE(held && held->shape);
    EXPECT_EQ(held->shape->corners(), 0);
    EXPECT_NE(refusalOf(renamed(good, "GuardCircle", "GuardSquare")), "(no error)");
}
