/*
 * Checksums and the hex dump.
 *
 * inc_crc32 is the reflected CRC-32 of IEEE 802.3 (polynomial 0xEDB88320)
 * with no inversion before or after: the register starts at the value given
 * and its final value is returned, so results chain across pieces of a
 * buffer. The standard CRC-32 of a buffer is
 * inc_crc32(buffer, len, 0xFFFFFFFF) ^ 0xFFFFFFFF.
 *
 * ip_cksum and in_checksum are the Internet checksum of RFC 1071 over
 * 16-bit words read in the processor's order; stored with a native 16-bit
 * store, the result gives the checksum bytes in network order.
 *
 * hex_dump prints memory on the CLI terminal, 16 bytes a line:
 *   LEADER41 42 43 44 45 46 47 48 - 49 4a 4b 4c 4d 4e 4f 50    ABCDEFGHIJKLMNOP
 */
#ifndef CORVEX_HEXDUMP_H
#define CORVEX_HEXDUMP_H

#include "corvex_types.h"

CORVEX_BEGIN_DECLS

/* The CRC register after feeding len bytes of s into a register holding crc32val. */
CORVEX_API unsigned int inc_crc32(const unsigned char* s, unsigned int len, long unsigned int crc32val);

/* inc_crc32(s, len, 0). */
CORVEX_API unsigned int crc32(const unsigned char* s, unsigned int len);

/* The Internet checksum of bytes bytes at pkt. */
CORVEX_API u_int16_t ip_cksum(u_int8_t* pkt, u_int32_t bytes);

/*
 * The Internet checksum of bytes bytes at pkt, starting from the partial
 * sum initsum (for example the sum of a pseudo-header).
 */
CORVEX_API u_int16_t in_checksum(u_int8_t* pkt, u_int32_t bytes, u_int32_t initsum);

/* Prints size bytes at data through parser_printf, each line led by leader. */
CORVEX_API void hex_dump(const char* leader, const void* data, size_t size);

CORVEX_END_DECLS

#endif /* CORVEX_HEXDUMP_H */
