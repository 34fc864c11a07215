#include "Vidora/AuthModule.h"

namespace Kavio {
namespace Vidora {

int IAuthModule::GetChallenge(const char* /*method_or_url*/, result_proc_t /*result*/, const char* /*info*/,
                              int /*kind*/) {
    return -1;
}

int IAuthModule::ProcessChallenge(const char* /*response*/, result_proc_t /*result*/, int /*kind*/) {
    return -1;
}

void IAuthModule::SetRequest(const char* /*method*/, const char* /*url*/) {}

}  // namespace Vidora
}  // namespace Kavio
