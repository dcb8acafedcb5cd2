// Fatal assertions of the library.
//
// A failed check stops the process through libc's standard assertion, so
// the message names the module's source ("llist/llist", "heap/heap", ...),
// the function and the expression exactly as the library documents them,
// independently of how this file is named or whether NDEBUG is set.
#pragma once

// libc's assertion reporter, declared here because <assert.h> hides it
// when NDEBUG is set; these checks hold in every build.
extern "C" [[noreturn]] void __assert_fail(const char* assertion, const char* file, unsigned int line,
                                           const char* function) noexcept;

#define CORVEX_ASSERT_AT(cond, expr_text, source, line)                                 \
    ((cond) ? static_cast<void>(0)                                                     \
            : __assert_fail((expr_text), (source), (line), __func__))

#define CORVEX_ASSERT(cond, expr_text, source) CORVEX_ASSERT_AT(cond, expr_text, source, __LINE__)
