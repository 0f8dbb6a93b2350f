#pragma once
// Golden archives for tests: the bytes of a file under tests/golden, and the three forms in which
// each golden is kept (text, XML, binary), each read by a plain and a polymorphic archive.
#include <tests/support/archivetesting.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace quorl_testing {

// The bytes of tests/golden/`name`, found from QUORL_SOURCE_DIR or, without it, from this file's
// path (relative or absolute); a missing file is a test failure and gives no bytes.
inline std::string readGolden(std::string const& name) {
    std::string const here = __FILE__;
    char const* root = std::getenv("QUORL_SOURCE_DIR");
    std::string const path =
        (root ? std::string(root) + "/" : here.substr(0, here.rfind("tests/support/"))) +
        "tests/golden/" + name;
    std::ifstream is(path, std::ios::binary);
    EXPECT_TRUE(is) << "missing golden file " << path;
    std::ostringstream os;
    os << is.rdbuf();
    return os.str();
}

struct GoldenForm {
    char const* suffix;
    Family plain, polymorphic;
    bool byteExact; // binary archives carry platform sizes: some goldens are only read
};

inline std::vector<GoldenForm> goldenForms() {
    return {{".txt", Family::Text, Family::PolyText, true},
            {".xml", Family::Xml, Family::PolyXml, true},
            {".bin", Family::Binary, Family::PolyBinary, false}};
}

// Checks the goldens `stem` + suffix of each form of a class read and written through a pointer to
// `Base`, in the archive field `name`: each is read by the plain and the polymorphic archive as a T
// equal to `expected` (so its equality must cover every field), and written byte for byte as kept
// where the form is byte-exact, or in every form with `allExact`.
template <class Base, class T>
void expectGoldens(std::string const& stem, T const& expected, char const* name = "object",
                   bool allExact = false) {
    for (GoldenForm const& form : goldenForms()) {
        SCOPED_TRACE(stem + form.suffix);
        std::string const bytes = readGolden(stem + form.suffix);
        for (Family f : {form.plain, form.polymorphic}) {
            Base* back = nullptr;
            read(f, bytes, back, name);
            std::unique_ptr<Base> owner(back);
            ASSERT_TRUE(dynamic_cast<T const*>(back));
            EXPECT_TRUE(*back == expected);
        }
        Base const* asBase = &expected;
        if (form.byteExact || allExact) {
            EXPECT_EQ(write(form.plain, asBase, name), bytes) << "the wire form has changed";
        }
    }
}

} // namespace quorl_testing
