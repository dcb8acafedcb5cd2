#include "syslog_capture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace corvex_test {
namespace {

std::mutex records_mutex;
std::vector<LogRecord> records;
bool echo = false;

std::string formatted(const char* format, va_list args) {
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, format, args);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

void capture(int priority, const char* format, va_list args) {
    std::string text = formatted(format, args);
    std::lock_guard<std::mutex> hold(records_mutex);
    if (echo) {
        fprintf(stderr, "<%d>%s", priority, text.c_str());
        fflush(stderr);
    }
    records.push_back(LogRecord{priority, std::move(text)});
}

}  // namespace

void syslog_clear() {
    std::lock_guard<std::mutex> hold(records_mutex);
    records.clear();
}

std::vector<LogRecord> syslog_records() {
    std::lock_guard<std::mutex> hold(records_mutex);
    return records;
}

std::vector<std::string> syslog_texts(int priority) {
    std::vector<std::string> texts;
    for (const LogRecord& record : syslog_records()) {
        if (record.priority == priority) texts.push_back(record.text);
    }
    return texts;
}

std::string fmt(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = formatted(format, args);
    va_end(args);
    return text;
}

void syslog_echo_to_stderr(bool on) {
    std::lock_guard<std::mutex> hold(records_mutex);
    echo = on;
}

}  // namespace corvex_test

// These replace libc's for the whole test process, libcorvex.so included.
extern "C" void vsyslog(int priority, const char* format, va_list args) {
    corvex_test::capture(priority, format, args);
}

extern "C" void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    corvex_test::capture(priority, format, args);
    va_end(args);
}

// Fortified builds route syslog through these.
extern "C" void __vsyslog_chk(int priority, int /*flag*/, const char* format, va_list args) {
    corvex_test::capture(priority, format, args);
}

extern "C" void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
    va_list args;
    va_start(args, format);
    corvex_test::capture(priority, format, args);
    va_end(args);
}
