#include "FuzzSupport.h"
#include "Vidora/Ostra/Assert.h"
#include "Vidora/Ostra/Log.h"

using namespace Kavio;

// Runs the program's target without a log, and with assertions that take the failure path, as in a release build.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Ostra::SetLogLevel(Ostra::LOG_LEVEL_NONE);
    Ostra::SetAssertHandler([](const char*, const char*, int) {});
    Vidora::Fuzz::Target(data, size);
    return 0;
}
