#include "golden.h"

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace corvex_test {
namespace {

bool is_word_char(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; }

}  // namespace

void GoldenMasks::add(const std::string& value, const std::string& name) {
    std::string placeholder = "<" + name;
    placeholder.resize(std::max<size_t>(placeholder.size(), 7), '_');
    masks_.emplace_back(value, placeholder + ">");
    std::stable_sort(masks_.begin(), masks_.end(),
                     [](const auto& a, const auto& b) { return a.first.size() > b.first.size(); });
}

void GoldenMasks::add_address(const void* address, const std::string& name) {
    char digits[2 * sizeof(uintptr_t) + 1];
    snprintf(digits, sizeof digits, "%" PRIxPTR, reinterpret_cast<uintptr_t>(address));
    add(digits, name);
}

std::string GoldenMasks::apply(std::string text) const {
    for (const auto& [value, placeholder] : masks_) {
        for (size_t at = text.find(value); at != std::string::npos; at = text.find(value, at + 1)) {
            size_t start = at;  // with the zeros that pad it
            while (start > 0 && text[start - 1] == '0') --start;
            const char before = start > 0 ? text[start - 1] : ' ';
            const char after = at + value.size() < text.size() ? text[at + value.size()] : ' ';
            if ((is_word_char(before) && before != 'x') || is_word_char(after)) continue;
            text.replace(start, at + value.size() - start, placeholder);
            at = start + placeholder.size() - 1;
        }
    }
    return text;
}

::testing::AssertionResult golden_matches(const std::string& path, const std::string& text) {
    const char* update = std::getenv("CORVEX_GOLDEN_UPDATE");
    if (update != nullptr && std::string(update) == "1") {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << text << std::flush;
        return out ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << "cannot write " << path;
    }
    std::ifstream file(path, std::ios::binary);
    std::stringstream golden;
    golden << file.rdbuf();
    if (file && golden.str() == text) {
        return ::testing::AssertionSuccess();
    }
    const std::string& want = golden.str();
    const size_t differs = std::mismatch(want.begin(), want.end(), text.begin(), text.end()).first - want.begin();
    const size_t from = differs == 0 ? 0 : want.rfind('\n', differs - 1) + 1;  // where that line starts
    const auto line_at = [from](const std::string& t) {
        return from < t.size() ? t.substr(from, t.find('\n', from) - from) : "(end)";
    };
    const auto line = 1 + std::count(want.begin(), want.begin() + static_cast<std::ptrdiff_t>(from), '\n');
    return ::testing::AssertionFailure()
           << (file ? path + " differs at line " + std::to_string(line)
                    : "no golden file " + path + " (CORVEX_GOLDEN_UPDATE=1 writes it)")
           << ":\n  golden: " << line_at(want) << "\n  output: " << line_at(text) << "\nwhole output:\n"
           << text;
}

}  // namespace corvex_test
