// Whole-file reading, writing and removal, and removal of the session files bound to a
// credential.
#include <dirent.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ssl_store.h"
#include "ssl_store_internal.h"
#include "ssl_store_layout.h"
#include "ssl_store_log.h"

namespace kora::store {
namespace {

constexpr char kSessionSuffix[] = KORA_STORE_SESSION_SUFFIX;
constexpr char kTimestampSuffix[] = KORA_STORE_TIMESTAMP_SUFFIX;
constexpr size_t kSessionSuffixLength = sizeof kSessionSuffix - 1;
constexpr size_t kTimestampSuffixLength = sizeof kTimestampSuffix - 1;
// "_" plus ".session"; the same bound serves ".timestamp" files.
constexpr int kShortestBoundSuffix = 1 + static_cast<int>(kSessionSuffixLength);

bool ends_with(const char* name, size_t name_length, const char* suffix, size_t suffix_length) {
  return name_length >= suffix_length &&
         std::memcmp(name + name_length - suffix_length, suffix, suffix_length) == 0;
}

}  // namespace

int read_file(const char* name, void** buffer_ptr, size_t* buffer_size) {
  if (name == nullptr || buffer_ptr == nullptr || buffer_size == nullptr) {
    // -1 and the old function name: legacy callers match on both.
    STORE_LOG_ERROR("SSL_cert_store: ssl_store_read_buffer_from_file failed! \n");
    return KORA_ERROR;
  }
  std::FILE* file = std::fopen(name, "rb");
  if (file == nullptr) {
    STORE_LOG_ERROR("ssl_store_read_from_file: Unable to open file to read %s\n", name);
    return KORA_ERROR;
  }
  std::fseek(file, 0, SEEK_END);  // NOLINT(cert-err33-c): unchecked, the size is taken as ftell reports it
  const int numbytes = static_cast<int>(std::ftell(file));
  std::fseek(file, 0, SEEK_SET);  // NOLINT(cert-err33-c): unchecked, as the read after it
  // Exactly the file's size, no terminator.
  void* buffer = std::calloc(static_cast<size_t>(numbytes), 1);
  if (buffer == nullptr) {
    STORE_LOG_ERROR("ssl_store_read_from_file: KORA_ERR_NO_MEMORY \n");
    // intended: `file` is not closed on this path; the handle stays open as it always has.
    return KORA_ERR_NO_MEMORY;
  }
  // A short read is not detected: the size found by seeking is reported.
  (void)std::fread(buffer, 1, static_cast<size_t>(numbytes), file);
  *buffer_ptr = buffer;
  std::fclose(file);  // NOLINT(cert-err33-c): a stream only read from
  *buffer_size = static_cast<size_t>(numbytes);
  return KORA_OK;
}

int write_file(const char* name, const void* buffer_ptr, size_t buffer_size) {
  if (name == nullptr || buffer_ptr == nullptr || buffer_size == 0) {
    STORE_LOG_ERROR("ssl_store_write_to_file: name or buffer_ptr or buffer size is NULL\n");
    return KORA_ERROR;
  }
  // Rewritten in place: no temporary file, no rename.
  std::FILE* file = std::fopen(name, "wb+");
  if (file == nullptr) {
    STORE_LOG_ERROR("Error in opening %s\n", name);
    return KORA_ERROR;
  }
  // A short write is not detected.
  (void)std::fwrite(buffer_ptr, 1, buffer_size, file);
  std::fflush(file);  // NOLINT(cert-err33-c): a short write is not detected
  std::fclose(file);  // NOLINT(cert-err33-c): a short write is not detected
  // Commits every file system, not only this file; a power cut must not lose a credential.
  sync();
  return KORA_OK;
}

int delete_file(const char* name) {
  if (name == nullptr) {
    STORE_LOG_ERROR("ssl_store_delete_file: Invalid file name \n");
    return KORA_ERR_INVALID_PARAM;
  }
  // remove() also takes an empty directory.
  if (std::remove(name) != 0) {
    STORE_LOG_ERROR("Unable to delete the file\n");
    return KORA_ERROR;
  }
  return KORA_OK;
}

void delete_bound_session_files(const char* cert_name) {
  if (cert_name == nullptr) {
    STORE_LOG_ERROR("Cert file name passed is NULL\n");
    return;
  }
  const char* const sessions_dir = g_ssl_cert_sub_folder_name_for_session;
  DIR* dir = opendir(sessions_dir);
  if (dir == nullptr) {
    STORE_LOG_ERROR("Cannot open dir\n");
    return;
  }
  char tmp_file_path[256];
  while (const dirent* entry = readdir(dir)) {
    // Regular files only; an entry of unreported type is passed over too.
    if (entry->d_type != DT_REG) {
      continue;
    }
    // Both lengths are held in 16 bits, as the session writer's records have them.
    const auto dname_length = static_cast<uint16_t>(std::strlen(entry->d_name));
    const auto certname_length = static_cast<uint16_t>(std::strlen(cert_name));
    std::memset(tmp_file_path, 0, sizeof tmp_file_path);
    // NOLINTNEXTLINE(cert-err33-c): an overlong name just misses the prefix test below
    std::snprintf(tmp_file_path, sizeof tmp_file_path, "%s_", cert_name);
    if (certname_length + kShortestBoundSuffix > dname_length) {
      continue;
    }
    // Name and underscore only: the files of "abc_def" are bound to "abc" as well.
    if (std::strncmp(entry->d_name, tmp_file_path, std::strlen(tmp_file_path)) != 0) {
      continue;
    }
    if (!ends_with(entry->d_name, dname_length, kSessionSuffix, kSessionSuffixLength) &&
        !ends_with(entry->d_name, dname_length, kTimestampSuffix, kTimestampSuffixLength)) {
      continue;
    }
    std::memset(tmp_file_path, 0, sizeof tmp_file_path);
    // NOLINTNEXTLINE(cert-err33-c): an overlong path just fails to unlink
    std::snprintf(tmp_file_path, sizeof tmp_file_path, "%s%s", sessions_dir, entry->d_name);
    // A file that cannot be removed is passed over silently.
    (void)unlink(tmp_file_path);
  }
  closedir(dir);
}

}  // namespace kora::store

extern "C" {

int ssl_store_read_from_file(const char* name, void** buffer_ptr, size_t* buffer_size) {
  return kora::store::read_file(name, buffer_ptr, buffer_size);
}

int ssl_store_write_to_file(const char* name, void* buffer_ptr, size_t buffer_size) {
  return kora::store::write_file(name, buffer_ptr, buffer_size);
}

int ssl_store_delete_file(const char* name) { return kora::store::delete_file(name); }

void ssl_store_delete_binded_session_files(const char* cert_name, kora_Net_SSL_Cert_Type_t /*type*/) {
  // The sessions directory is searched whatever the credential's kind.
  kora::store::delete_bound_session_files(cert_name);
}

}  // extern "C"
