// Captures what parser_printf writes on the calling thread.
#pragma once

#include <string>

#include "cli_output.h"

namespace corvex_test {

class CliCapture {
public:
    CliCapture() { cli_output_redirect(&CliCapture::append, this); }
    ~CliCapture() { cli_output_redirect(nullptr, nullptr); }
    CliCapture(const CliCapture&) = delete;
    CliCapture& operator=(const CliCapture&) = delete;

    const std::string& text() const { return text_; }
    void clear() { text_.clear(); }

private:
    static void append(void* self, const char* text, size_t length) {
        static_cast<CliCapture*>(self)->text_.append(text, length);
    }
    std::string text_;
};

}  // namespace corvex_test
