#include "Vidora/Ostra/Function.h"

#include "Vidora/Ostra/Log.h"

namespace Kavio {
namespace Ostra {

void LogInvalidFunctionCall(unsigned int type, const char* type_name) {
    logError("FUNCTION_FUNCTION::operator() invalid function type : %u, typeid : %s\n", type, type_name);
}

}  // namespace Ostra
}  // namespace Kavio
