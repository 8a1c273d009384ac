#include "shared/Service.h"

namespace Service {

std::string const TERM4SVC = "service";

}  // namespace Service
