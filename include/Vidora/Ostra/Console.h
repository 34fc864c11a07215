#ifndef VIDORA_OSTRA_CONSOLE_H
#define VIDORA_OSTRA_CONSOLE_H

#include "Vidora/Export.h"

namespace Kavio {
namespace Ostra {

// A console command: receives its arguments, argv[0] being the command's own name.
typedef void (*console_command_t)(int argc, char** argv);

// Receives what the console prints, `length` bytes with a final NUL. Null restores standard output.
typedef void (*console_output_t)(void* user_data, const char* text, unsigned int length);

// Prints to the host's debug console, apart from the log. Any thread.
VIDORA_API int R3Printf(const char* format, ...) VIDORA_PRINTF(1, 2);

// Registers a command under `name` with its `help` text; both must stay valid. `handler` is a console_command_t.
// A second registration of a name replaces the first. 0, or -1 for a null handler or name, or a full table (64).
VIDORA_API int R3Register(void* handler, const char* name, const char* help);

// Runs one console line on the calling thread: words separated by blanks, the first one the command. "help" lists all
// commands. 0, or -1 if the line is null or longer than 1023 bytes, or names no command.
VIDORA_API int R3Execute(const char* line);

// Sets where R3Printf goes. Any thread.
VIDORA_API void R3SetOutput(console_output_t output, void* user_data);

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_CONSOLE_H
