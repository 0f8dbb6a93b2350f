#include <tools/quorl/cli.hpp>

int main(int argc, char** argv) {
    return quorl::cli::runCli(argc, argv);
}
