// PSK tables: the callers' text form ("identity:hexkey" lines) turned into the stored binary
// table, which is then sealed and stored under a name like any other credential.
//
// Stored table: B7 00, entry count (16-bit big-endian), then per entry the identity length
// (16-bit big-endian), the identity bytes, the key length (16-bit big-endian), the key bytes.
#include <openssl/crypto.h>

#include <array>
#include <climits>
#include <cstdint>
#include <cstdlib>

#include "kora_net_ssl.h"
#include "ssl_store.h"
#include "ssl_store_log.h"

namespace kora::store {
namespace {

constexpr size_t kMaxIdentityLength = 65535;
constexpr size_t kMaxKeyLength = 256;
constexpr size_t kTableHeaderSize = 4;

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

void put_le32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) {
    at[i] = static_cast<uint8_t>((value >> (8 * i)) & 0xFF);
  }
}

void put_be16(uint8_t* at, size_t value) {
  at[0] = static_cast<uint8_t>((value >> 8) & 0xFF);
  at[1] = static_cast<uint8_t>(value & 0xFF);
}

// The work buffer holds the whole table. Each entry's stored form (4 + L + K bytes) is at
// most twice its text (at least L + 1 + 2K bytes), and so is a last key cut short, hence
// twice the text plus the header and some slack. The work buffer holds keys: it is wiped
// before it is released.
class WorkBuffer {
 public:
  explicit WorkBuffer(size_t text_size) {
    if (text_size <= (SIZE_MAX - 8) / 2) {
      size_ = 2 * text_size + 8;
      data_ = static_cast<uint8_t*>(std::calloc(size_, 1));
    }
  }
  ~WorkBuffer() {
    if (data_ != nullptr) {
      OPENSSL_cleanse(data_, size_);
      std::free(data_);
    }
  }
  WorkBuffer(const WorkBuffer&) = delete;
  WorkBuffer& operator=(const WorkBuffer&) = delete;

  uint8_t* data() const { return data_; }

 private:
  uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

enum class KeyEnd { kGood, kBad };

int32_t parse_and_store(const kora_Net_SSL_PSK_Table_t* psktbl, const uint8_t* out_file) {
  if (psktbl == nullptr || psktbl->psk_Buf == nullptr || psktbl->psk_Size == 0 || out_file == nullptr) {
    STORE_LOG_ERROR("Invalid input parameters!");
    return KORA_ERR_INVALID_PARAM;
  }

  WorkBuffer work(psktbl->psk_Size);
  uint8_t* const pskTable = work.data();
  if (pskTable == nullptr) {
    return KORA_ERR_NO_MEMORY;
  }

  const uint8_t* ptr = psktbl->psk_Buf;
  size_t size = psktbl->psk_Size;
  // Mark 0xB7 written as a little-endian 32-bit value; bytes 2-3 are overwritten with the
  // entry count at the end, so byte 1 stays 0x00.
  put_le32(pskTable, 0xB7);
  uint8_t* pti = pskTable + kTableHeaderSize;
  size_t nEntries = 0;
  int32_t ret_val = KORA_OK;

  for (;;) {
    // Identity, up to ":" (or "|" followed by ":" in bar mode).
    uint8_t* ppsk = pti;
    pti += 2;
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
    if (eSize == 0 || eSize > kMaxIdentityLength || size == 0) {
      return KORA_ERROR;
    }
    put_be16(ppsk, eSize);
    ppsk = pti;
    pti += 2;

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

    if (key_bytes == 0 || key_bytes > kMaxKeyLength) {
      // The entry is dropped uncounted. Only when the key ran to the very end of the text is
      // the table still stored (its dropped bytes trail the counted entries), and the call
      // still reports -1; otherwise nothing is stored.
      if (size != 0) {
        return KORA_ERROR;
      }
      ret_val = KORA_ERROR;
      break;
    }
    put_be16(ppsk, key_bytes);
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

  put_be16(pskTable + 2, nEntries & 0xFFFF);
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
