#include "Vidora/AuthModule.h"

namespace Kavio {
namespace Vidora {

int IAuthModule::GetChallenge(const char*, result_proc_t, const char*, int) {
    return -1;
}

int IAuthModule::ProcessChallenge(const char*, result_proc_t, int) {
    return -1;
}

}  // namespace Vidora
}  // namespace Kavio
