// The library's event-timestamp ring as a trace that the Perfetto UI and
// chrome://tracing open: Chrome's trace-event JSON, one track (the ring
// does not say which thread recorded a mark). A start and the end that
// closes it become a slice; an end closes the innermost open start of its
// name. A mark that closes nothing or is never closed (the ring wrapped
// over its partner, or the program recorded it so) is kept as an instant
// event saying so, never dropped.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

struct diag_mark_t {
    std::string name;
    bool start;
    uint64_t time_us;  // the monotonic clock, microseconds
};

struct diag_trace_event_t {
    std::string name;
    uint64_t time_us;      // from the first mark
    uint64_t duration_us;  // a slice's; 0 for an instant
    bool slice;            // false: a mark that found no partner
    bool start;            // an instant's mark: a start (never closed) or an end (closing nothing)
    int depth;             // a slice's nesting: 0 outermost
};

// The ring's marks, oldest first, as event_timestamp_record_print hands
// them out (a wrapped ring leaves its oldest record out).
std::vector<diag_mark_t> diag_trace_marks_read();

// The slices and unmatched marks of marks, ordered by time, outer slices
// before the inner ones that start with them.
std::vector<diag_trace_event_t> diag_trace_events(const std::vector<diag_mark_t>& marks);

// The trace-event JSON document of events, its track named for process.
void diag_trace_write(const std::vector<diag_trace_event_t>& events, const char* process, FILE* out);
