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

// Also writes each record to stderr as "<priority>text". Death tests turn
// this on inside the dying statement, so their expectation can match the
// records the child wrote before it stopped.
void syslog_echo_to_stderr(bool on);

}  // namespace corvex_test
