/* The PSK table as the store keeps it: sealed in its file, and in memory once loaded onto an
 * SSL object. A 4-byte header (0xB7, 0x00, then the entry count as a big-endian 16-bit
 * number), then the entries back to back, each a big-endian 16-bit identity length, the
 * identity, a big-endian 16-bit key length and the key. Its size is not kept with it.
 * The one definition of the layout: the store's parser writes it, the store's callback and
 * SSL_psk_table_identities read it, and every holder releases it with kora_psk_table_free. */
#ifndef SSL_PSK_TABLE_H
#define SSL_PSK_TABLE_H

#include <malloc.h>
#include <openssl/crypto.h>
#include <stddef.h>
#include <stdint.h>

#define KORA_PSK_TABLE_MARK 0xB7u
#define KORA_PSK_TABLE_HEADER_SIZE 4u
#define KORA_PSK_TABLE_COUNT_OFFSET 2u
#define KORA_PSK_TABLE_LENGTH_SIZE 2u
#define KORA_PSK_MAX_IDENTITY_LENGTH 65535u
#define KORA_PSK_MAX_KEY_LENGTH 256u

#ifdef __cplusplus
extern "C" {
#endif

/* One entry, pointing into the table. */
typedef struct {
  const uint8_t* identity;
  uint16_t identity_len;
  const uint8_t* key_len_field; /* where the key's length is stored, right after the identity */
  const uint8_t* key;
  uint16_t key_len;
} kora_psk_entry_t;

static inline uint16_t kora_psk_get16(const uint8_t* at) { return (uint16_t)((at[0] << 8) | at[1]); }

static inline void kora_psk_put16(uint8_t* at, uint16_t value) {
  at[0] = (uint8_t)(value >> 8);
  at[1] = (uint8_t)(value & 0xFFu);
}

static inline uint16_t kora_psk_table_count(const uint8_t* table) {
  return kora_psk_get16(table + KORA_PSK_TABLE_COUNT_OFFSET);
}

/* The first entry of a table. */
static inline const uint8_t* kora_psk_table_entries(const uint8_t* table) {
  return table + KORA_PSK_TABLE_HEADER_SIZE;
}

/* Reads the entry at `at` of a table trusted whole, as the parser wrote it; returns its end,
 * where the next entry starts. */
static inline const uint8_t* kora_psk_entry_at(const uint8_t* at, kora_psk_entry_t* entry) {
  entry->identity_len = kora_psk_get16(at);
  entry->identity = at + KORA_PSK_TABLE_LENGTH_SIZE;
  entry->key_len_field = entry->identity + entry->identity_len;
  entry->key_len = kora_psk_get16(entry->key_len_field);
  entry->key = entry->key_len_field + KORA_PSK_TABLE_LENGTH_SIZE;
  return entry->key + entry->key_len;
}

/* The same for a table of `size` bytes not trusted: reads the entry at offset *at with every
 * length checked against the end and moves *at past it. 0, or -1 when the entry runs past the
 * end (nothing read). */
static inline int kora_psk_entry_next(const uint8_t* table, size_t size, size_t* at,
                                      kora_psk_entry_t* entry) {
  size_t pos = *at;
  if (pos > size || size - pos < KORA_PSK_TABLE_LENGTH_SIZE ||
      size - pos - KORA_PSK_TABLE_LENGTH_SIZE < kora_psk_get16(table + pos)) {
    return -1;
  }
  pos += KORA_PSK_TABLE_LENGTH_SIZE + kora_psk_get16(table + pos);
  if (size - pos < KORA_PSK_TABLE_LENGTH_SIZE ||
      size - pos - KORA_PSK_TABLE_LENGTH_SIZE < kora_psk_get16(table + pos)) {
    return -1;
  }
  *at = (size_t)(kora_psk_entry_at(table + *at, entry) - table);
  return 0;
}

/* Wipes and frees a table (malloc'd, as the store's read call hands it out; null is fine).
 * Its size is not kept with it, so the whole allocation is wiped. OpenSSL's free hands a
 * plain malloc back to free(). */
static inline void kora_psk_table_free(void* table) {
  if (table != NULL) {
    OPENSSL_clear_free(table, malloc_usable_size(table));
  }
}

#ifdef __cplusplus
}
#endif

#endif /* SSL_PSK_TABLE_H */
