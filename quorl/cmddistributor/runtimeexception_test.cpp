#include <tests/support/golden.hpp>

#include <quorl/cmddistributor/runtimeexception.hpp>
#include <tests/golden/runtimeexception/taggeddata.hpp>

#include <fl/i18n/conversions.hpp>
#include <hv/hvarray.hpp>
#include <hv/matrix.hpp>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <limits>

BOOST_CLASS_EXPORT_IMPLEMENT(quorl_golden::TaggedData)

namespace cmddistributor {
// Readable failure messages.
void PrintTo(RuntimeException const& e, std::ostream* os) {
    *os << '\n';
    e.write(*os, "    ");
}
void PrintTo(RuntimeException::StackFrame const& f, std::ostream* os) {
    *os << fl::i18n::to_string(f.file) << ':' << f.func << ':' << f.line;
}
} // namespace cmddistributor

using cmddistributor::RuntimeException;
using quorl_golden::TaggedData;
using quorl_testing::Family;
using Frame = RuntimeException::StackFrame;
namespace status = quorl::cmddistributor;

namespace {

// An error of another library that keeps its own type through exception pointers.
class HostError : public RuntimeException {
public:
    HostError(RuntimeException const& e, int code) : RuntimeException(e), code(code) {}
    HostError* clone() const override { return new HostError(*this); }
    void rethrow() const override { throw HostError(*this); }
    int code;
};

class OtherData : public RuntimeException::AdditionalData {
public:
    bool isEqual(AdditionalData const& other) const override {
        return AdditionalData::isEqual(other);
    }
};

RuntimeException inner() {
    return RuntimeException(status::ExecutionInterrupted, u"inner", "c:d", "g",
                            {Frame(u"z.q", "h", 7)}, {});
}

RuntimeException sample() {
    RuntimeException bare(status::ExecutionError, u"outer \u00e9", "a:b", "f",
                          {Frame(u"x.q", "f", 12), Frame(u"y.q", "g", 3.5)},
                          {inner(), RuntimeException(status::ExecutionAborted, std::string("last"),
                                                     "", "k", {}, {})});
    return RuntimeException(bare, boost::make_shared<TaggedData>("tag"));
}

// An archive of RuntimeException at version 1, which no reader supports.
struct ErrorV1 {
    std::string id = "old";
    template <class Archive> void serialize(Archive& ar, unsigned int) {
        ar& boost::serialization::make_nvp("id", id);
    }
};

} // namespace

BOOST_CLASS_VERSION(ErrorV1, 1)

TEST(RuntimeException, IsThrownSharedAndCompared) {
    RuntimeException const e = sample();
    try {
        throw e;
    } catch (std::exception const& caught) {
        EXPECT_STREQ("outer \xc3\xa9", caught.what());
    }
    EXPECT_EQ(u"last", e.getCauses().at(1).GetUnicodeMessageTxt()) << "the narrow constructor";
    EXPECT_EQ(status::ExecutionError, RuntimeException().getExecutionStatus());

    // Copies share the data; other additional data leaves the rest shared.
    RuntimeException const copy(e);
    RuntimeException const other(e, boost::make_shared<OtherData>());
    RuntimeException assigned = inner();
    assigned = other;
    EXPECT_STREQ("outer \xc3\xa9", assigned.what());
    EXPECT_EQ(&e.getStackFrames(), &copy.getStackFrames());
    EXPECT_EQ(&e.getStackFrames(), &other.getStackFrames());
    EXPECT_EQ(&e.getCauses(), &assigned.getCauses());
    EXPECT_EQ(other.getAdditionalData(), assigned.getAdditionalData());
    EXPECT_EQ(e, copy);
    EXPECT_EQ(e, RuntimeException(sample(), boost::make_shared<TaggedData>("tag")));
    EXPECT_EQ(other, RuntimeException(e, boost::make_shared<OtherData>()));

    // Each field on its own makes a difference.
    auto const error = status::ExecutionError;
    std::vector<Frame> const frames{Frame(u"x", "f", 1)};
    RuntimeException const base(error, u"m", "i", "f", frames, {inner()});
    EXPECT_EQ(base, RuntimeException(error, u"m", "i", "f", frames, {inner()}));
    for (RuntimeException const& differing :
         {RuntimeException(status::ExecutionAborted, u"m", "i", "f", frames, {inner()}),
          RuntimeException(error, u"M", "i", "f", frames, {inner()}),
          RuntimeException(error, u"m", "I", "f", frames, {inner()}),
          RuntimeException(error, u"m", "i", "F", frames, {inner()}),
          RuntimeException(error, u"m", "i", "f", {Frame(u"x", "f", 2)}, {inner()}),
          RuntimeException(error, u"m", "i", "f", {Frame(u"X", "f", 1)}, {inner()}),
          RuntimeException(error, u"m", "i", "f", {Frame(u"x", "F", 1)}, {inner()}),
          RuntimeException(error, u"m", "i", "f", {}, {inner()}),
          RuntimeException(error, u"m", "i", "f", frames, {}),
          RuntimeException(error, u"m", "i", "f", frames,
                           {RuntimeException(inner(), boost::make_shared<OtherData>())}),
          RuntimeException(base, boost::make_shared<OtherData>())})
        EXPECT_NE(base, differing);
    // Additional data of another type, or of the same type with other contents.
    EXPECT_NE(e, other);
    EXPECT_NE(e, RuntimeException(e, boost::make_shared<TaggedData>("other")));

    // A NaN line differs from everything, also in a copy sharing the frames, but an object is
    // equal to itself.
    RuntimeException const nan(error, u"m", "i", "f",
                               {Frame(u"x", "f", std::numeric_limits<double>::quiet_NaN())}, {});
    RuntimeException const nanCopy(nan);
    EXPECT_TRUE(nan == nan);
    EXPECT_FALSE(nan == nanCopy);
}

TEST(RuntimeException, SurvivesEveryArchiveFamily) {
    RuntimeException const e = sample();
    for (Family f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        RuntimeException back = inner();
        RuntimeException const earlierCopy = back;
        quorl_testing::read(f, quorl_testing::write(f, e), back);
        EXPECT_EQ(e, back); // also compares the type of each additional data
        EXPECT_STREQ("outer \xc3\xa9", back.what());
        // Reading wrote into the shared record: a copy made before sees what was read.
        EXPECT_EQ(e.getExecutionStatus(), earlierCopy.getExecutionStatus());
        EXPECT_EQ(e.GetID(), earlierCopy.GetID());
        EXPECT_TRUE(e.GetUnicodeMessageTxt() == earlierCopy.GetUnicodeMessageTxt());
        EXPECT_EQ(e.getStackFrames(), earlierCopy.getStackFrames());
        EXPECT_EQ(e.getCauses(), earlierCopy.getCauses());
        Frame frame;
        quorl_testing::read(f, quorl_testing::write(f, Frame(u"\U0001F600", "g", -0.25)), frame);
        EXPECT_EQ(Frame(u"\U0001F600", "g", -0.25), frame);
    }
}

TEST(RuntimeException, PassesThroughExceptionPointersWithItsType) {
    HostError const host(sample(), 42);
    boost::exception_ptr caught;
    try {
        throw host;
    } catch (...) {
        caught = boost::current_exception();
    }
    for (boost::exception_ptr const& p : {caught, cmddistributor::toExceptionPtr(host)}) {
        try {
            boost::rethrow_exception(p);
        } catch (HostError const& e) {
            EXPECT_EQ(42, e.code);
            EXPECT_EQ(host, e);
        } catch (...) {
            ADD_FAILURE() << "the dynamic type was lost";
        }
    }
    try {
        boost::rethrow_exception(cmddistributor::toExceptionPtr(inner()));
    } catch (RuntimeException const& e) {
        EXPECT_EQ(inner(), e);
    }
}

TEST(RuntimeException, ReadsEveryGoldenVersion) {
    // The outer error and its one cause, as the generator made them for each version.
    auto golden = [](quorl::cmddistributor::inExecutionStatus status, std::string const& v,
                     std::vector<Frame> frames, ustring const& causeMessage,
                     ustring const& causeFile) {
        return RuntimeException(
            status, u"Index exceeds 3 \u00e9l\u00e9ments \U0001F600", "quorl:outer:" + v, "lookup",
            std::move(frames),
            {RuntimeException(status::ExecutionInterrupted, causeMessage, "quorl:inner:" + v,
                              "helper", {Frame(causeFile, "helper", 7)}, {})});
    };
    Frame const lookup(u"/src/l\u00e4ufer.q", "lookup", 12), caller(u"/src/main.q", "main", 3.5);
    RuntimeException const v2 =
        golden(status::ExecutionError, "v2", {lookup, caller}, u"inner two", u"h\u00e9lper.q");
    RuntimeException const v3(
        golden(status::ExecutionSyntaxError, "v3", {lookup}, u"inner three", u"helper.q"),
        boost::make_shared<TaggedData>("three"));
    RuntimeException const v4(
        golden(status::ExecutionError, "v4", {lookup, caller}, u"inner four", u"helper.q"),
        boost::make_shared<TaggedData>("four"));

    for (quorl_testing::GoldenForm const& form : quorl_testing::goldenForms()) {
        auto kept = [&](char const* stem) {
            return quorl_testing::readGolden(std::string("runtimeexception/") + stem + form.suffix);
        };
        for (Family f : {form.plain, form.polymorphic}) {
            SCOPED_TRACE(quorl_testing::familyName(f));
            RuntimeException e;
            quorl_testing::read(f, kept("runtimeexception_v2"), e);
            EXPECT_EQ(v2, e);
            quorl_testing::read(f, kept("runtimeexception_v3"), e);
            EXPECT_EQ(v3, e);
            std::string const current = kept("runtimeexception_v4");
            quorl_testing::read(f, current, e);
            EXPECT_EQ(v4, e);
            // The current form is written exactly as it was.
            EXPECT_EQ(current, quorl_testing::write(form.plain, v4));

            Frame frame;
            quorl_testing::read(f, kept("stackframe_v1"), frame);
            EXPECT_EQ(lookup, frame);
            std::string const currentFrame = kept("stackframe_v2");
            quorl_testing::read(f, currentFrame, frame);
            Frame const v2Frame(u"/src/l\u00e4ufer.q \U0001F600", "lookup", 12.25);
            EXPECT_EQ(v2Frame, frame);
            EXPECT_EQ(currentFrame, quorl_testing::write(form.plain, v2Frame));
        }
    }
}

TEST(RuntimeException, RejectsHostileArchives) {
    RuntimeException e;
    // An unsupported old version.
    std::string const v1 = quorl_testing::write(Family::Text, ErrorV1());
    EXPECT_THROW(quorl_testing::read(Family::Text, v1, e), boost::archive::archive_exception);

    // A frame count that the bytes do not back fails at the end of the bytes, without
    // reserving memory for it.
    std::string bytes =
        quorl_testing::write(Family::Text, RuntimeException(status::ExecutionError, u"", "", "MARK",
                                                            {Frame(u"f", "g", 1)}, {}));
    std::string const mark = "MARK 0 0 1 ";
    std::string const lastLine = "1.00000000000000000e+00";
    ASSERT_NE(std::string::npos, bytes.find(mark));
    ASSERT_NE(std::string::npos, bytes.find(lastLine));
    bytes.erase(bytes.find(lastLine) + lastLine.size());
    bytes.replace(bytes.find(mark), mark.size(), "MARK 0 0 4000000000000000000 ");
    EXPECT_THROW(quorl_testing::read(Family::Text, bytes, e), boost::archive::archive_exception);

    // Causes nested beyond any real program are refused before they exhaust the stack.
    auto nested = [](int depth) {
        RuntimeException chain(status::ExecutionError, u"leaf", "", "", {}, {});
        for (int i = 0; i < depth; ++i)
            chain = RuntimeException(status::ExecutionError, u"", "", "", {}, {chain});
        return quorl_testing::write(Family::Binary, chain);
    };
    EXPECT_NO_THROW(quorl_testing::read(Family::Binary, nested(200), e));
    EXPECT_THROW(quorl_testing::read(Family::Binary, nested(300), e), std::runtime_error);
    // The reader is usable again afterwards.
    quorl_testing::read(Family::Text, quorl_testing::write(Family::Text, inner()), e);
    EXPECT_EQ(inner(), e);
}

TEST(RuntimeException, ConvertsAStructArrayStack) {
    EXPECT_TRUE(cmddistributor::convertStack(nullptr).empty());

    char const* full[] = {"line", "file", "name"};
    HvArrayPtr stack(hvCreateStructMatrix(1, 3, 3, full));
    hvSetField(stack.get(), 0, "file", hvCreateString("/src/a\xc3\xa9.q"));
    hvSetField(stack.get(), 0, "name", hvCreateString("outer"));
    hvSetField(stack.get(), 0, "line", hvCreateDoubleScalar(12));
    hvSetField(stack.get(), 1, "file", hvCreateString("b.q"));
    hvSetField(stack.get(), 1, "name", hvCreateString("inner"));
    hvSetField(stack.get(), 1, "line", hvCreateNumericScalar(hvINT32_CLASS, 3));
    // Element 3 stays empty.
    EXPECT_EQ((std::vector<Frame>{Frame(u"/src/a\u00e9.q", "outer", 12), Frame(u"b.q", "inner", 3),
                                  Frame(u"", "", 0)}),
              cmddistributor::convertStack(stack.get()));

    char const* noLine[] = {"name", "file"};
    HvArrayPtr partial(hvCreateStructMatrix(2, 1, 2, noLine));
    hvSetField(partial.get(), 0, "file", hvCreateString("x"));
    hvSetField(partial.get(), 1, "name", hvCreateString("y"));
    EXPECT_EQ((std::vector<Frame>{Frame(u"x", "", 0), Frame(u"", "y", 0)}),
              cmddistributor::convertStack(partial.get()));

    HvArrayPtr number(hvCreateDoubleScalar(1));
    EXPECT_THROW(cmddistributor::convertStack(number.get()), std::invalid_argument);
    hvSetField(partial.get(), 0, "name", hvCreateDoubleScalar(5));
    EXPECT_THROW(cmddistributor::convertStack(partial.get()), std::invalid_argument);
    hvSetField(stack.get(), 2, "line", hvCreateCellMatrix(1, 1));
    EXPECT_THROW(cmddistributor::convertStack(stack.get()), std::invalid_argument);
}
