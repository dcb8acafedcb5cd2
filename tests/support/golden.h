// Golden outputs: text a program printed, compared byte for byte with a
// file kept beside the test, after the values that vary from build to build
// or run to run (addresses, code addresses, names) are replaced by
// placeholders.
//
// A placeholder is "<name>" padded with '_' to 8 characters, whatever the
// width of the value it stands for. It takes the value and the zeros that
// pad it (how many digits a code address has depends on where the program
// was loaded); the blanks that pad a field, a "0x" and the separators stay
// in the text, so a changed column width or prefix still shows.
//
// With CORVEX_GOLDEN_UPDATE=1 in the environment a comparison writes the
// file from the output instead (and passes); review the change with git diff.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace corvex_test {

class GoldenMasks {
public:
    // Every occurrence of `value`, with the zeros in front of it, that no
    // other letter, digit or '_' touches (the 'x' of "0x" may) becomes
    // "<name>". Names have at most 6 characters.
    void add(const std::string& value, const std::string& name);
    // The address as "%p" and "%x" print its digits: lowercase hex.
    void add_address(const void* address, const std::string& name);

    std::string apply(std::string text) const;

private:
    std::vector<std::pair<std::string, std::string>> masks_;  // value, placeholder; longest value first
};

// One entry of a transcript: the command line, then what it printed.
inline std::string golden_entry(const std::string& command, const std::string& output) {
    return "== " + command + "\n" + output;
}

// Compares `text` with the file at `path`; a difference is reported with
// the first line that differs and the whole text.
::testing::AssertionResult golden_matches(const std::string& path, const std::string& text);

}  // namespace corvex_test
