#include "Vidora/Ostra/Console.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

namespace Kavio {
namespace Ostra {

namespace {

const int MAX_COMMANDS = 64;
const size_t MAX_CONSOLE_LINE = 1023;
const int MAX_ARGUMENTS = 64;
const int SHORT_PRINT_SIZE = 1024;  // longer prints take heap memory

struct Command {
    console_command_t handler;
    const char* name;
    const char* help;
};

std::mutex g_mutex;  // guards the fields below; commands and the output run without it
Command g_commands[MAX_COMMANDS];
int g_command_count = 0;
console_output_t g_output = nullptr;
void* g_output_data = nullptr;

void print(const char* text, unsigned int length) {
    console_output_t output = nullptr;
    void* user_data = nullptr;
    {
        const std::lock_guard<std::mutex> guard(g_mutex);
        output = g_output;
        user_data = g_output_data;
    }
    if (output != nullptr) {
        output(user_data, text, length);
        return;
    }
    std::fwrite(text, 1, length, stdout);
    std::fflush(stdout);
}

bool find_command(const char* name, Command* command) {
    const std::lock_guard<std::mutex> guard(g_mutex);
    for (int i = 0; i < g_command_count; ++i) {
        if (std::strcmp(g_commands[i].name, name) == 0) {
            *command = g_commands[i];
            return true;
        }
    }
    return false;
}

void print_help() {
    Command commands[MAX_COMMANDS];
    int count = 0;
    {
        const std::lock_guard<std::mutex> guard(g_mutex);
        count = g_command_count;
        std::memcpy(commands, g_commands, sizeof(commands));
    }
    for (int i = 0; i < count; ++i) {
        R3Printf("%s: %s\n", commands[i].name, commands[i].help != nullptr ? commands[i].help : "");
    }
}

// Cuts `line` into words in place; the number of words.
int split_words(char* line, char** words) {
    int count = 0;
    char* rest = nullptr;
    for (char* word = strtok_r(line, " \t\r\n", &rest); word != nullptr && count < MAX_ARGUMENTS;
         word = strtok_r(nullptr, " \t\r\n", &rest)) {
        words[count++] = word;
    }
    return count;
}

}  // namespace

int R3Printf(const char* format, ...) {
    char short_text[SHORT_PRINT_SIZE];
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int length = std::vsnprintf(short_text, sizeof(short_text), format, args);
    va_end(args);
    if (length >= SHORT_PRINT_SIZE) {
        const size_t size = static_cast<size_t>(length) + 1;
        const std::unique_ptr<char[]> text(new (std::nothrow) char[size]);
        if (text != nullptr) {
            std::vsnprintf(text.get(), size, format, again);
            print(text.get(), static_cast<unsigned int>(length));
        } else {
            length = SHORT_PRINT_SIZE - 1;
            print(short_text, static_cast<unsigned int>(length));
        }
    } else if (length > 0) {
        print(short_text, static_cast<unsigned int>(length));
    }
    va_end(again);
    return length;
}

int R3Register(void* handler, const char* name, const char* help) {
    if (handler == nullptr || name == nullptr) {
        return -1;
    }
    const std::lock_guard<std::mutex> guard(g_mutex);
    int place = 0;
    while (place < g_command_count && std::strcmp(g_commands[place].name, name) != 0) {
        ++place;
    }
    if (place == MAX_COMMANDS) {
        return -1;
    }
    g_commands[place] = {reinterpret_cast<console_command_t>(handler), name, help};
    g_command_count = place == g_command_count ? place + 1 : g_command_count;
    return 0;
}

int R3Execute(const char* line) {
    if (line == nullptr || std::strlen(line) > MAX_CONSOLE_LINE) {
        return -1;
    }
    char words[MAX_CONSOLE_LINE + 1];
    std::strcpy(words, line);
    char* argv[MAX_ARGUMENTS + 1] = {};
    const int argc = split_words(words, argv);
    if (argc == 0) {
        return -1;
    }
    Command command = {};
    if (find_command(argv[0], &command)) {
        command.handler(argc, argv);
        return 0;
    }
    if (std::strcmp(argv[0], "help") == 0) {
        print_help();
        return 0;
    }
    return -1;
}

void R3SetOutput(console_output_t output, void* user_data) {
    const std::lock_guard<std::mutex> guard(g_mutex);
    g_output = output;
    g_output_data = user_data;
}

}  // namespace Ostra
}  // namespace Kavio
