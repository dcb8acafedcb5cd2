#include "diag_trace.h"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstring>

#include "diag_text.h"
#include "time_util.h"

namespace {

std::vector<diag_mark_t>* marks_reading = nullptr;

// One record as the library prints it: "%-32s  %-5s at %u sec %u usec\n"
// (name, "start" or "end", seconds, microseconds). The name is read up to
// the kind, its padding blanks left out.
bool mark_parse(const std::string& line, diag_mark_t* mark) {
    const size_t at = line.rfind(" at ");
    unsigned seconds = 0, microseconds = 0;
    char tail[8] = "";
    if (at == std::string::npos ||
        sscanf(line.c_str() + at, " at %u sec %u usec%1[\n]", &seconds, &microseconds, tail) != 3)
        return false;
    std::string head = line.substr(0, at);
    for (const char* kind : {"  start", "  end  "}) {
        if (!head.ends_with(kind)) continue;
        head.resize(head.size() - strlen(kind));
        head.erase(head.find_last_not_of(' ') + 1);
        *mark = {head, kind[2] == 's', uint64_t{seconds} * 1000000 + microseconds};
        return true;
    }
    return false;
}

int mark_collect(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string line(static_cast<size_t>(std::max(length, 0)), '\0');
    vsnprintf(line.data(), line.size() + 1, format, again);
    va_end(again);
    diag_mark_t mark;
    // The ring's format is fixed; a line that is not a record is no mark.
    if (mark_parse(line, &mark)) marks_reading->push_back(mark);
    return length;
}

}  // namespace

std::vector<diag_mark_t> diag_trace_marks_read() {
    std::vector<diag_mark_t> marks;
    marks_reading = &marks;
    event_timestamp_record_print(mark_collect);
    marks_reading = nullptr;
    return marks;
}

std::vector<diag_trace_event_t> diag_trace_events(const std::vector<diag_mark_t>& marks) {
    std::vector<diag_trace_event_t> events;
    const uint64_t origin = marks.empty() ? 0 : marks.front().time_us;
    auto instant = [&](const diag_mark_t& mark) {
        events.push_back({mark.name, mark.time_us - origin, 0, false, mark.start, 0});
    };
    std::vector<const diag_mark_t*> open;
    for (const diag_mark_t& mark : marks) {
        if (mark.start) {
            open.push_back(&mark);
            continue;
        }
        const auto closes = std::find_if(open.rbegin(), open.rend(), [&](const diag_mark_t* o) { return o->name == mark.name; });
        if (closes == open.rend()) {
            instant(mark);
            continue;
        }
        // Starts opened inside this one and still open stay unmatched.
        const auto first = closes.base() - 1;
        for (auto inner = first + 1; inner != open.end(); ++inner) instant(**inner);
        const diag_mark_t& start = **first;
        events.push_back({mark.name, start.time_us - origin, mark.time_us - start.time_us, true, true,
                          static_cast<int>(first - open.begin())});
        open.erase(first, open.end());
    }
    for (const diag_mark_t* start : open) instant(*start);
    std::stable_sort(events.begin(), events.end(), [](const diag_trace_event_t& a, const diag_trace_event_t& b) {
        if (a.time_us != b.time_us) return a.time_us < b.time_us;
        return a.depth < b.depth;
    });
    return events;
}

void diag_trace_write(const std::vector<diag_trace_event_t>& events, const char* process, FILE* out) {
    const int pid = static_cast<int>(getpid());
    fprintf(out,
            "{\"displayTimeUnit\": \"ms\", \"traceEvents\": [\n"
            "{\"ph\": \"M\", \"name\": \"process_name\", \"pid\": %d, \"tid\": 1, \"args\": {\"name\": %s}},\n"
            "{\"ph\": \"M\", \"name\": \"thread_name\", \"pid\": %d, \"tid\": 1, "
            "\"args\": {\"name\": \"event timestamps\"}}",
            pid, diag_json_quoted(process).c_str(), pid);
    for (const diag_trace_event_t& event : events) {
        const std::string name = diag_json_quoted(event.name);
        if (event.slice) {
            fprintf(out,
                    ",\n{\"ph\": \"X\", \"name\": %s, \"cat\": \"mark\", \"ts\": %" PRIu64 ", \"dur\": %" PRIu64
                    ", \"pid\": %d, \"tid\": 1}",
                    name.c_str(), event.time_us, event.duration_us, pid);
        } else {
            fprintf(out,
                    ",\n{\"ph\": \"i\", \"s\": \"t\", \"name\": %s, \"cat\": \"unmatched\", \"ts\": %" PRIu64
                    ", \"pid\": %d, \"tid\": 1, \"args\": {\"mark\": \"%s\"}}",
                    name.c_str(), event.time_us, pid, event.start ? "start without an end" : "end without a start");
        }
    }
    fprintf(out, "\n]}\n");
}
