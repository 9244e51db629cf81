/* Diagnostic message service. */
#ifndef MSG_DIAG_H
#define MSG_DIAG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MSG_LEGACY_HIGH 0x4u
#define MSG_LEGACY_ERROR 0x8u

typedef struct {
  struct {
    uint16_t line;
    uint16_t ss_id;
    uint32_t ss_mask;
  } desc;
  const char* fmt;
  const char* fname;
} msg_const_type;

/* Hands one finished message to the platform logger, which formats `text` through the
 * descriptor's fmt ("%s"). */
void msg_sprintf(const msg_const_type* const_blk, const char* text);

/* Host logger: where messages go. The default sink writes one line per message
 * ("<LEVEL> <module>:<line> <text>") to stderr for error level and to nothing for other
 * levels unless verbose. A program may install its own sink (null restores the default). */
typedef void (*msg_sink_fn)(const msg_const_type* const_blk, const char* text, void* user);
void msg_set_sink(msg_sink_fn sink, void* user);
/* Default sink: non-zero prints every level (not only errors) to stderr. */
void msg_set_verbose(int verbose);

#ifdef __cplusplus
}
#endif

#endif /* MSG_DIAG_H */
