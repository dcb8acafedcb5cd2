// parser_printf: formatted text to the calling thread's terminal.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "cli_output.h"
#include "host_cli.h"

namespace {

struct OutputTarget {
    cli_output_sink_t sink = nullptr;
    void* context = nullptr;
};

thread_local OutputTarget current_target;

}  // namespace

extern "C" void cli_output_redirect(cli_output_sink_t sink, void* context) {
    current_target = OutputTarget{sink, context};
}

extern "C" void cli_output_current(cli_output_sink_t* sink, void** context) {
    *sink = current_target.sink;
    *context = current_target.context;
}

extern "C" void cli_output_file_sink(void* file, const char* text, size_t length) {
    fwrite(text, 1, length, static_cast<FILE*>(file));
}

extern "C" int parser_printf(const char* format, ...) {
    char small[512];
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int length = vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (length < 0) {
        va_end(again);
        return length;
    }
    char* text = small;
    if (static_cast<size_t>(length) >= sizeof small) {
        text = static_cast<char*>(malloc(static_cast<size_t>(length) + 1));
        if (text == nullptr) {
            va_end(again);
            return -1;
        }
        vsnprintf(text, static_cast<size_t>(length) + 1, format, again);
    }
    va_end(again);
    if (current_target.sink != nullptr) {
        current_target.sink(current_target.context, text, static_cast<size_t>(length));
    } else {
        fwrite(text, 1, static_cast<size_t>(length), stdout);
    }
    if (text != small) {
        free(text);
    }
    return length;
}
