/*
 * What the library expects of the host's CLI library: terminal output for
 * the command being executed. The host provides these symbols at load time;
 * libcorvex itself does not link any CLI library.
 */
#ifndef CORVEX_HOST_CLI_H
#define CORVEX_HOST_CLI_H

#include "corvex_types.h"

CORVEX_BEGIN_DECLS

/* printf-style output to the terminal of the command being executed. */
int parser_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

CORVEX_END_DECLS

#endif /* CORVEX_HOST_CLI_H */
