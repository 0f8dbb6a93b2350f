// Writes the golden archives of cmddistributor::RuntimeException (versions 2, 3 and 4) and of
// RuntimeException::StackFrame (versions 1 and 2) into the folder given as the only argument,
// in text, XML and binary form. The old versions are written by stand-in classes that have the
// old layouts and versions; the current ones by the library's own classes. Run it only when a
// new version is added: the files it writes are kept in the repository, and tests read them.
#include <foundation/msg_svc/serialization/archives.hpp>

#include <tests/golden/goldenwriter.hpp>
#include <tests/golden/runtimeexception/taggeddata.hpp>

#include <foundation/msg_svc/serialization/serializable.hpp>
#include <foundation/msg_svc/serialization/ustring.hpp>
#include <quorl/cmddistributor/runtimeexception.hpp>

#include <boost/serialization/shared_ptr.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/vector.hpp>

#include <string>
#include <vector>

using cmddistributor::RuntimeException;

namespace old {

// StackFrame version 1: the file as UTF-8.
struct FrameV1 {
    std::string file;
    std::string func;
    double line = 0;
    template <class Archive> void serialize(Archive& ar, unsigned int) {
        ar& boost::serialization::make_nvp("file", file);
        ar& boost::serialization::make_nvp("func", func);
        ar& boost::serialization::make_nvp("line", line);
    }
};

// RuntimeException version 2: no additional data.
struct ErrorV2 {
    std::string id;
    ustring message;
    int status = 0;
    std::string function;
    std::vector<FrameV1> frames;
    std::vector<ErrorV2> causes;
    template <class Archive> void serialize(Archive& ar, unsigned int) {
        ar& boost::serialization::make_nvp("id", id);
        ar& boost::serialization::make_nvp("message", message);
        ar& boost::serialization::make_nvp("status", status);
        ar& boost::serialization::make_nvp("function", function);
        ar& boost::serialization::make_nvp("frames", frames);
        ar& boost::serialization::make_nvp("causes", causes);
    }
};

// RuntimeException version 3: additional data added.
struct ErrorV3 {
    std::string id;
    ustring message;
    int status = 0;
    std::string function;
    std::vector<RuntimeException::StackFrame> frames;
    std::vector<ErrorV3> causes;
    boost::shared_ptr<RuntimeException::AdditionalData> additionalData;
    template <class Archive> void serialize(Archive& ar, unsigned int) {
        ar& boost::serialization::make_nvp("id", id);
        ar& boost::serialization::make_nvp("message", message);
        ar& boost::serialization::make_nvp("status", status);
        ar& boost::serialization::make_nvp("function", function);
        ar& boost::serialization::make_nvp("frames", frames);
        ar& boost::serialization::make_nvp("causes", causes);
        ar& boost::serialization::make_nvp("additionalData", additionalData);
    }
};

} // namespace old

ZN_SERIALIZATION_TRAITS(old::FrameV1, 1)
ZN_SERIALIZATION_TRAITS(old::ErrorV2, 2)
ZN_SERIALIZATION_TRAITS(old::ErrorV3, 3)
BOOST_CLASS_EXPORT_IMPLEMENT(quorl_golden::TaggedData)

namespace {

template <class T>
void writeAll(std::string const& folder, std::string const& name, T const& value) {
    quorl_golden::writeValueArchives(folder + "/" + name, "object", value);
}

ustring const outerMessage = u"Index exceeds 3 \u00e9l\u00e9ments \U0001F600";

} // namespace

int main(int argc, char** argv) {
    return quorl_golden::generatorMain(argc, argv, [](std::string const& folder) {
        old::ErrorV2 inner2{
            "quorl:inner:v2", u"inner two", 4, "helper", {{"h\xc3\xa9lper.q", "helper", 7}}, {}};
        old::ErrorV2 v2{"quorl:outer:v2",
                        outerMessage,
                        2,
                        "lookup",
                        {{"/src/l\xc3\xa4ufer.q", "lookup", 12}, {"/src/main.q", "main", 3.5}},
                        {inner2}};
        writeAll(folder, "runtimeexception_v2", v2);

        old::ErrorV3 inner3{"quorl:inner:v3",
                            u"inner three",
                            4,
                            "helper",
                            {RuntimeException::StackFrame(u"helper.q", "helper", 7)},
                            {},
                            {}};
        old::ErrorV3 v3{"quorl:outer:v3",
                        outerMessage,
                        1,
                        "lookup",
                        {RuntimeException::StackFrame(u"/src/l\u00e4ufer.q", "lookup", 12)},
                        {inner3},
                        boost::make_shared<quorl_golden::TaggedData>("three")};
        writeAll(folder, "runtimeexception_v3", v3);

        RuntimeException inner4(quorl::cmddistributor::ExecutionInterrupted, u"inner four",
                                "quorl:inner:v4", "helper",
                                {RuntimeException::StackFrame(u"helper.q", "helper", 7)}, {});
        RuntimeException v4(quorl::cmddistributor::ExecutionError, outerMessage, "quorl:outer:v4",
                            "lookup",
                            {RuntimeException::StackFrame(u"/src/l\u00e4ufer.q", "lookup", 12),
                             RuntimeException::StackFrame(u"/src/main.q", "main", 3.5)},
                            {inner4});
        writeAll(folder, "runtimeexception_v4",
                 RuntimeException(v4, boost::make_shared<quorl_golden::TaggedData>("four")));

        writeAll(folder, "stackframe_v1", old::FrameV1{"/src/l\xc3\xa4ufer.q", "lookup", 12});
        writeAll(folder, "stackframe_v2",
                 RuntimeException::StackFrame(u"/src/l\u00e4ufer.q \U0001F600", "lookup", 12.25));
    });
}
