#include "diag_call_sites.h"

#include <cctype>
#include <cstdlib>

#include "diag_symbols.h"

namespace {

// The report lines below a title: indented by three blanks; the first one
// that is not ends the report.
constexpr std::string_view kIndent = "   ";

bool starts_with(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

// The titles of the reports that list PCs (not the one by size alone).
bool report_titled(std::string_view line) {
    return (starts_with(line, " Allocated blocks of heap ") || starts_with(line, " Allocations and frees of heap ")) &&
           line.find(" by PC") != std::string_view::npos;
}

// A row's PC: all its digits, right after the indent.
bool row_pc(std::string_view line, uintptr_t* pc) {
    const std::string_view digits = line.substr(kIndent.size(), kDiagPcDigits);
    if (!starts_with(line, kIndent) || digits.size() != kDiagPcDigits ||
        (line.size() > kIndent.size() + kDiagPcDigits && line[kIndent.size() + kDiagPcDigits] != ' '))
        return false;
    for (char c : digits)
        if (!isxdigit(static_cast<unsigned char>(c))) return false;
    *pc = static_cast<uintptr_t>(strtoull(std::string(digits).c_str(), nullptr, 16));
    return true;
}

// What a line of a report gains: the column's title, its rule, or the
// name of the row's PC.
std::string column_of(std::string_view line) {
    uintptr_t pc = 0;
    if (starts_with(line, "   PC ")) return "  Call site";
    if (starts_with(line, "   ---")) return "  ---------";
    if (!row_pc(line, &pc)) return "";
    const std::string name = diag_symbol_describe(pc);
    return name.empty() ? "" : "  " + name;
}

}  // namespace

void DiagCallSites::pass(void* self, const char* text, size_t length) {
    static_cast<DiagCallSites*>(self)->take(text, length);
}

void DiagCallSites::take(const char* text, size_t length) {
    std::string_view rest(text, length);
    for (size_t end; (end = rest.find('\n')) != std::string_view::npos; rest.remove_prefix(end + 1)) {
        if (mid_line_) {
            sink_(context_, rest.data(), end + 1);
            mid_line_ = false;
        } else {
            line_pass(pending_ + std::string(rest.substr(0, end)));
            pending_.clear();
        }
    }
    if (rest.empty()) return;
    // The library prints a report's lines whole; other text goes on at
    // once, so that a prompt or a partial line is never held back.
    if (in_report_ && !mid_line_) {
        pending_ += rest;
    } else {
        sink_(context_, rest.data(), rest.size());
        mid_line_ = true;
    }
}

void DiagCallSites::line_pass(std::string line) {
    if (report_titled(line)) {
        in_report_ = true;
    } else if (in_report_ && !starts_with(line, kIndent)) {
        in_report_ = false;
    } else if (in_report_) {
        line += column_of(line);
    }
    line += '\n';
    sink_(context_, line.data(), line.size());
}

void DiagCallSites::flush() {
    if (pending_.empty()) return;
    sink_(context_, pending_.data(), pending_.size());
    pending_.clear();
    mid_line_ = true;
}
