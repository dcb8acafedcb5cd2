// Captures the library's system log in the test binary.
//
// The test binary defines syslog and vsyslog itself, so every record the
// library writes lands here (priority and formatted text) instead of in the
// system log. Records are kept process-wide, in order, under a mutex.
#pragma once

#include <string>
#include <vector>

namespace corvex_test {

struct LogRecord {
    int priority;
    std::string text;
    bool operator==(const LogRecord&) const = default;
};

// Clears the captured records.
void syslog_clear();

// The records captured since the last clear.
std::vector<LogRecord> syslog_records();

// The texts of the records of one priority, in order.
std::vector<std::string> syslog_texts(int priority);

// Also writes each record to stderr as "<priority>text". Death tests turn
// this on inside the dying statement, so their expectation can match the
// records the child wrote before it stopped.
void syslog_echo_to_stderr(bool on);

// printf into a std::string, for expected log lines and terminal text.
std::string fmt(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace corvex_test

// A death whose log records reach the matcher as "<priority>text".
#define EXPECT_LOGGED_DEATH(statement, regex) \
    EXPECT_DEATH({ corvex_test::syslog_echo_to_stderr(true); statement; }, regex)
