#ifndef VIDORA_OSTRA_ASSERT_H
#define VIDORA_OSTRA_ASSERT_H

#include "Vidora/Export.h"

namespace Kavio {
namespace Ostra {

// Called for each failed assertion with the expression's text, the source file relative to Src, and the line. When it
// returns, the code takes its failure path. Any thread.
typedef void (*assert_handler_t)(const char* expression, const char* file, int line);

// Installs a handler; null restores the default: debug builds log and abort, release builds log at error level.
VIDORA_API void SetAssertHandler(assert_handler_t handler);

// Reports a failed assertion; always false. Used by OSTRA_ASSERT only.
VIDORA_API bool AssertFailed(const char* expression, const char* file, int line);

}  // namespace Ostra
}  // namespace Kavio

// A bool expression that is true when `expression` holds, and otherwise reports its text and is false:
//     if (!OSTRA_ASSERT(len == TS_PACK_LEN)) return -1;
#define OSTRA_ASSERT(expression) ((expression) ? true : ::Kavio::Ostra::AssertFailed(#expression, __FILE__, __LINE__))

#endif  // VIDORA_OSTRA_ASSERT_H
