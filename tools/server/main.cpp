#include <tools/server/serverapp.hpp>

int main(int argc, char** argv) {
    return quorl::server::runServer(argc, argv);
}
