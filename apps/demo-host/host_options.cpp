// One voice for the programs' command-line refusals.
#include "host_options.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Why getopt_long stopped at word, a long option ("--name" or "--name=value").
int long_option_refuse(const char* program, int code, const option* longs, const char* word) {
    const std::string name(word + 2, strcspn(word + 2, "="));
    if (code == ':') return host_options_fail(program, ("--" + name).c_str(), nullptr, "needs a value");
    std::string matches;
    unsigned count = 0;
    for (const option* o = longs; o->name != nullptr; ++o) {
        if (name == o->name) return host_options_fail(program, word, nullptr, "takes no value");
        if (strncmp(o->name, name.c_str(), name.size()) == 0) {
            matches += std::string(count++ == 0 ? "--" : ", --") + o->name;
        }
    }
    // One option that the word abbreviates: it was given a value it does not take.
    if (count == 1) return host_options_fail(program, word, nullptr, ("takes no value: " + matches).c_str());
    if (count > 1) return host_options_fail(program, ("--" + name).c_str(), nullptr, ("ambiguous: " + matches).c_str());
    return host_options_fail(program, ("--" + name).c_str(), nullptr, "unknown option");
}

}  // namespace

int host_options_next(const char* program, int argc, char** argv, const char* shorts, const option* longs) {
    // '+': stop at the first word that is no option; ':': tell a missing value apart.
    const std::string conventions = std::string("+:") + shorts;
    opterr = 0;
    const int at = optind;
    const int code = getopt_long(argc, argv, conventions.c_str(), longs, nullptr);
    if (code == -1) {
        if (optind >= argc) return -1;
        host_options_fail(program, argv[optind], nullptr, "unexpected argument: every input is given by an option");
        return HOST_OPTIONS_REFUSED;
    }
    if (code != '?' && code != ':') {
        if (optarg == nullptr || optarg[0] != '\0') return code;
        const std::string word(argv[at], strcspn(argv[at], "="));
        host_options_fail(program, word.c_str(), nullptr, "needs a value, not an empty one");
        return HOST_OPTIONS_REFUSED;
    }
    const char* word = argv[at];
    if (strncmp(word, "--", 2) == 0) {
        long_option_refuse(program, code, longs, word);
    } else {
        // A short option, alone or in a cluster: getopt_long names it in optopt.
        const char letter[] = {'-', static_cast<char>(optopt), '\0'};
        host_options_fail(program, letter, nullptr, code == ':' ? "needs a value" : "unknown option");
    }
    return HOST_OPTIONS_REFUSED;
}

int host_options_fail(const char* program, const char* option, const char* value, const char* reason) {
    if (value != nullptr) fprintf(stderr, "%s: %s %s: %s\n", program, option, value, reason);
    else fprintf(stderr, "%s: %s: %s\n", program, option, reason);
    return HOST_OPTIONS_USAGE;
}

bool host_options_number(const char* text, unsigned long low, unsigned long high, unsigned long* number) {
    if (text[0] < '0' || text[0] > '9') return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < low || value > high) return false;
    *number = static_cast<unsigned long>(value);
    return true;
}

bool host_options_seconds(const char* program, const char* option, const char* text, unsigned* seconds) {
    static_assert(UINT_MAX == 4294967295u, "the message names the largest value");
    unsigned long number = 0;
    if (!host_options_number(text, 1, UINT_MAX, &number)) {
        host_options_fail(program, option, text, "not a whole number of seconds from 1 to 4294967295");
        return false;
    }
    *seconds = static_cast<unsigned>(number);
    return true;
}

void host_options_version(const char* program) { printf("%s %s\n", program, CORVEX_VERSION); }
