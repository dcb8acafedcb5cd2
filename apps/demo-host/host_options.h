// The command-line conventions of the programs on the demonstration host:
// options parsed by getopt_long, in order, up to the first word that is
// not one; every refusal is one line on standard error naming the option,
// and the program then exits with status 2.
#pragma once

#include <getopt.h>

#include <cstdio>

// The exit status of a usage error.
constexpr int HOST_OPTIONS_USAGE = 2;
// What host_options_next returns after printing a refusal.
constexpr int HOST_OPTIONS_REFUSED = -2;

// The next option's code (its short letter or its long option's val), -1
// when every argument was read, or HOST_OPTIONS_REFUSED after saying why
// an argument was not taken: an unknown or ambiguous option, a value given
// to an option that takes none, a missing value, a word that is no option.
// The value of an option that takes one is in optarg, as with getopt_long.
int host_options_next(const char* program, int argc, char** argv, const char* shorts, const option* longs);

// Prints "PROGRAM: OPTION VALUE: REASON" (or "PROGRAM: OPTION: REASON"
// without a value); returns HOST_OPTIONS_USAGE.
int host_options_fail(const char* program, const char* option, const char* value, const char* reason);

// Reads a whole number from low to high, digits only: no sign, no spaces.
bool host_options_number(const char* text, unsigned long low, unsigned long high, unsigned long* number);

// Reads a number of seconds, 1 to 4294967295, the value of option; else
// says "PROGRAM: OPTION TEXT: not a whole number of seconds from 1 to
// 4294967295" and returns false.
bool host_options_seconds(const char* program, const char* option, const char* text, unsigned* seconds);

// Prints "PROGRAM VERSION" (the project's version) to standard output.
void host_options_version(const char* program);
