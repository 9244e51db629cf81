// PSK tables: the callers' text form ("identity:hexkey" lines) turned into the stored binary
// table, which is then sealed and stored under a name like any other credential.
// The stored table's layout is in ssl_psk_table.h.
#include <openssl/crypto.h>

#include <array>
#include <climits>
#include <cstdint>
#include <cstdlib>

#include "kora_net_ssl.h"
#include "secure_bytes.h"
#include "ssl_psk_table.h"
#include "ssl_store.h"
#include "ssl_store_log.h"

namespace kora::store {
namespace {

bool is_line_break(uint8_t c) { return c == '\r' || c == '\n'; }

// Values of the hexadecimal digits, -1 for every other byte. A table, not range tests: the
// digits of random keys defeat branch prediction on large tables.
constexpr std::array<int8_t, 256> kHexValues = [] {
  std::array<int8_t, 256> values{};
  for (int c = 0; c < 256; ++c) {
    values[c] = c >= '0' && c <= '9'   ? static_cast<int8_t>(c - '0')
                : c >= 'A' && c <= 'F' ? static_cast<int8_t>(c - 'A' + 10)
                : c >= 'a' && c <= 'f' ? static_cast<int8_t>(c - 'a' + 10)
                                       : int8_t{-1};
  }
  return values;
}();

int hex_value(uint8_t c) { return kHexValues[c]; }

// The work buffer holds the whole table. Each entry's stored form (4 + L + K bytes) is at
// most twice its text (at least L + 1 + 2K bytes), and so is a last key cut short, hence
// twice the text plus the header and some slack. It holds keys: a SecureBytes, wiped when
// released. Empty when the size would overflow.
SecureBytes make_work_buffer(size_t text_size) {
  return text_size <= (SIZE_MAX - 8) / 2 ? SecureBytes(2 * text_size + 8, true) : SecureBytes();
}

enum class KeyEnd { kGood, kBad };

int32_t parse_and_store(const kora_Net_SSL_PSK_Table_t* psktbl, const uint8_t* out_file) {
  if (psktbl == nullptr || psktbl->psk_Buf == nullptr || psktbl->psk_Size == 0 || out_file == nullptr) {
    STORE_LOG_ERROR("Invalid input parameters!");
    return KORA_ERR_INVALID_PARAM;
  }

  const SecureBytes work = make_work_buffer(psktbl->psk_Size);
  uint8_t* const pskTable = work.data();
  if (pskTable == nullptr) {
    return KORA_ERR_NO_MEMORY;
  }

  const uint8_t* ptr = psktbl->psk_Buf;
  size_t size = psktbl->psk_Size;
  // The mark, then 0x00; bytes 2-3 (zero-filled) take the entry count at the end.
  pskTable[0] = KORA_PSK_TABLE_MARK;
  uint8_t* pti = pskTable + KORA_PSK_TABLE_HEADER_SIZE;
  size_t nEntries = 0;
  int32_t ret_val = KORA_OK;

  for (;;) {
    // Identity, up to ":" (or "|" followed by ":" in bar mode).
    uint8_t* ppsk = pti;
    pti += KORA_PSK_TABLE_LENGTH_SIZE;
    bool is_bar_start = false;
    size_t eSize = 0;
    for (;;) {
      if (size == 0) {
        return KORA_ERROR;
      }
      const uint8_t c = *ptr++;
      --size;
      if (c == ':' && !is_bar_start) {
        break;
      }
      if (c == '|' && !is_bar_start) {
        is_bar_start = true;
        continue;
      }
      if (c == '|') {
        if (size == 0 || *ptr != ':') {
          return KORA_ERROR;
        }
        ++ptr;
        --size;
        break;
      }
      *pti++ = c;
      ++eSize;
    }
    if (eSize == 0 || eSize > KORA_PSK_MAX_IDENTITY_LENGTH || size == 0) {
      return KORA_ERROR;
    }
    kora_psk_put16(ppsk, static_cast<uint16_t>(eSize));
    ppsk = pti;
    pti += KORA_PSK_TABLE_LENGTH_SIZE;

    // Key: two hexadecimal digits per byte, high half first.
    size_t key_bytes = 0;
    KeyEnd end = KeyEnd::kGood;
    for (;;) {
      if (is_line_break(*ptr)) {
        break;
      }
      const int high = hex_value(*ptr);
      if (high < 0) {
        end = KeyEnd::kBad;
        break;
      }
      ++ptr;
      --size;
      if (size == 0) {
        end = KeyEnd::kBad;  // a lone final digit
        break;
      }
      const int low = hex_value(*ptr);
      if (low < 0) {
        end = KeyEnd::kBad;
        break;
      }
      ++ptr;
      --size;
      *pti++ = static_cast<uint8_t>((high << 4) | low);
      ++key_bytes;
      if (size == 0) {
        break;
      }
    }

    if (key_bytes == 0 || key_bytes > KORA_PSK_MAX_KEY_LENGTH) {
      // The entry is dropped uncounted. Only when the key ran to the very end of the text is
      // the table still stored (its dropped bytes trail the counted entries), and the call
      // still reports -1; otherwise nothing is stored.
      if (size != 0) {
        return KORA_ERROR;
      }
      ret_val = KORA_ERROR;
      break;
    }
    kora_psk_put16(ppsk, static_cast<uint16_t>(key_bytes));
    if (end == KeyEnd::kBad) {
      // Counted and kept with its complete bytes; stored only when the text is used up (a
      // lone final digit), and -1 reported all the same.
      ++nEntries;
      if (size != 0) {
        return KORA_ERROR;
      }
      ret_val = KORA_ERROR;
      break;
    }
    while (size != 0 && is_line_break(*ptr)) {
      ++ptr;
      --size;
    }
    ++nEntries;
    if (size == 0) {
      break;
    }
  }

  kora_psk_put16(pskTable + KORA_PSK_TABLE_COUNT_OFFSET, static_cast<uint16_t>(nEntries & 0xFFFF));
  const size_t table_size = static_cast<size_t>(pti - pskTable);
  if (table_size > static_cast<size_t>(INT_MAX)) {
    return KORA_ERROR;  // beyond what the store's int length can carry
  }
  if (SSL_cert_store(reinterpret_cast<const char*>(out_file), KORA_NET_SSL_PSK_TABLE_E, pskTable,
                     static_cast<int>(table_size), false) != KORA_OK) {
    return KORA_ERROR;
  }
  return ret_val;
}

}  // namespace
}  // namespace kora::store

extern "C" int32_t ssl_parse_and_store_psktable(kora_Net_SSL_PSK_Table_t* psktbl, const uint8_t* out_file) {
  return kora::store::parse_and_store(psktbl, out_file);
}
