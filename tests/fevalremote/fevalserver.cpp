// quorl-server for the function-call tests: the reference host, with matrix references and
// external strings set up before it starts, so that results which cannot travel by value go back
// as references and strings as portable strings, and with the plug-in framework started for the
// data-array serializer: the build's, or the bundles under FEVAL_PLUGIN_ROOT when it is set.
#include <tools/server/serverapp.hpp>

#include <foundation/cppmicroservices/framework.hpp>
#include <quorl/extstring/extstring.hpp>
#include <quorl/matrixref/matrixref.hpp>

#include <cstdlib>

int main(int argc, char** argv) {
    return quorl::server::runServer(argc, argv, [] {
        quorl::matrixref::detail::refInitMatrixReferences({},
                                                          [](hvArray_tag const*) { return true; });
        quorl::extstring::extstrInitExtString();
        char const* root = std::getenv("FEVAL_PLUGIN_ROOT");
        foundation::cppmicroservices::startFramework(root ? boost::filesystem::path(root)
                                                          : boost::filesystem::path());
    });
}
