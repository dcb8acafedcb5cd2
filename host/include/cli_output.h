/*
 * Where parser_printf's text goes. Each thread has its own destination: a
 * session executing a command points its thread at its terminal; with no
 * destination set, text goes to standard output.
 */
#ifndef CORVEX_HOST_CLI_OUTPUT_H
#define CORVEX_HOST_CLI_OUTPUT_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*cli_output_sink_t)(void* context, const char* text, size_t length);

/* Sends the calling thread's parser_printf text to sink; null restores stdout. */
void cli_output_redirect(cli_output_sink_t sink, void* context);

/* The calling thread's destination (null sink: stdout), to restore it later. */
void cli_output_current(cli_output_sink_t* sink, void** context);

/* A sink writing to a stdio stream: pass the FILE* as context. */
void cli_output_file_sink(void* file, const char* text, size_t length);

#ifdef __cplusplus
}
#endif

#endif /* CORVEX_HOST_CLI_OUTPUT_H */
