#include "diag_text.h"

#include <cstdio>

namespace {

constexpr char kReplacement[] = "\xef\xbf\xbd";  // U+FFFD in UTF-8

// The length of the UTF-8 sequence text starts with, 0 when it is not one
// (or is an overlong or surrogate form).
size_t utf8_length(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    size_t length = lead < 0x80 ? 1 : lead >= 0xc2 && lead <= 0xdf ? 2 : lead >= 0xe0 && lead <= 0xef ? 3
                                  : lead >= 0xf0 && lead <= 0xf4 ? 4 : 0;
    if (length == 0 || length > text.size()) return 0;
    for (size_t i = 1; i < length; ++i)
        if ((byte(i) & 0xc0) != 0x80) return 0;
    if (length == 3 && ((lead == 0xe0 && byte(1) < 0xa0) || (lead == 0xed && byte(1) >= 0xa0))) return 0;
    if (length == 4 && ((lead == 0xf0 && byte(1) < 0x90) || (lead == 0xf4 && byte(1) >= 0x90))) return 0;
    return length;
}

// Walks text a character at a time; escape(c) gives the replacement of an
// ASCII character, or null to keep it.
template <class Escape>
std::string escaped(std::string_view text, Escape escape) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const size_t length = utf8_length(text);
        if (length == 0) {
            out += kReplacement;
            text.remove_prefix(1);
            continue;
        }
        const std::string replaced = length == 1 ? escape(text[0]) : std::string();
        out += !replaced.empty() ? replaced : std::string(text.substr(0, length));
        text.remove_prefix(length);
    }
    return out;
}

}  // namespace

std::string diag_json_quoted(std::string_view text) {
    return "\"" + escaped(text, [](char c) -> std::string {
               if (c == '"' || c == '\\') return std::string("\\") + c;
               if (static_cast<unsigned char>(c) >= 0x20) return "";
               char code[8];
               snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(c));
               return code;
           }) + "\"";
}

std::string diag_xml_escaped(std::string_view text) {
    return escaped(text, [](char c) -> std::string {
        switch (c) {
        case '&': return "&amp;";
        case '<': return "&lt;";
        case '>': return "&gt;";
        case '"': return "&quot;";
        case '\t':
        case '\n': return "";
        default: return static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? kReplacement : "";
        }
    });
}
