#include <quorl/matrixref/matrixrefserviceapi.hpp>

namespace quorl {
namespace matrixref {

std::string const MatrixRefServiceAPI::serviceName = "TarnServer";

MatrixRefServiceAPI::~MatrixRefServiceAPI() = default;

} // namespace matrixref
} // namespace quorl
