// Start-up: the store's directory tree below the data root, then the key material.
#include <dirent.h>
#include <glib.h>

#include <cstring>

#include "ds_system.h"
#include "ssl_store.h"
#include "ssl_store_internal.h"
#include "ssl_store_layout.h"
#include "ssl_store_log.h"

namespace kora::store {
namespace {

using CommandBuffer = char[300];

// Runs "mkdir <directory>" through the shell (its outcome is not looked at: only opening the
// directory decides) and opens `directory` to test it. The handle is returned open.
DIR* make_and_open(CommandBuffer& buffer, const char* directory) {
  g_strlcpy(buffer, "mkdir ", sizeof buffer);
  const gsize length = g_strlcat(buffer, directory, sizeof buffer);
  (void)ds_system_call(buffer, length);
  return opendir(directory);
}

}  // namespace

int init_store() {
  CommandBuffer command;
  std::memset(command, 0, sizeof command);

  // The data root is never created: without it the store is unavailable.
  DIR* root = opendir(KORA_STORE_DATA_ROOT);
  if (root == nullptr) {
    // High level, not error, as the device has always reported it.
    STORE_LOG_HIGH("Root directory unavailable\n");
    return KORA_ERROR;
  }
  // intended: this and every test handle below up to sessions/ is never closed.
  (void)root;

  // Plain mkdir, one level at a time, each relying on the one before.
  DIR* ssl_dir = make_and_open(command, KORA_STORE_ROOT);
  if (ssl_dir == nullptr) {
    STORE_LOG_ERROR("SSL directory unavailable \n");
    return KORA_ERROR;
  }
  DIR* certs_dir = make_and_open(command, KORA_STORE_CERTS_DIR);
  if (certs_dir == nullptr) {
    STORE_LOG_ERROR("Certs directory unavailable \n");
    return KORA_ERROR;
  }
  DIR* ca_lists_dir = make_and_open(command, KORA_STORE_CA_LISTS_DIR);
  if (ca_lists_dir == nullptr) {
    STORE_LOG_ERROR("CA lists directory unavailable \n");
    return KORA_ERROR;
  }
  DIR* di_certs_dir = make_and_open(command, KORA_STORE_DI_CERTS_DIR);
  if (di_certs_dir == nullptr) {
    STORE_LOG_ERROR("DI certs directory unavailable \n");
    return KORA_ERROR;
  }
  DIR* psk_dir = make_and_open(command, KORA_STORE_PSK_TABLE_DIR);
  if (psk_dir == nullptr) {
    STORE_LOG_ERROR("PSK key directory unavailable \n");
    return KORA_ERROR;
  }
  DIR* keys_dir = make_and_open(command, KORA_STORE_PRIVATE_KEYS_DIR);
  if (keys_dir == nullptr) {
    STORE_LOG_ERROR("Private keys directory unavailable \n");
    return KORA_ERROR;
  }
  DIR* sessions_dir = make_and_open(command, KORA_STORE_SESSIONS_DIR);
  if (sessions_dir == nullptr) {
    STORE_LOG_ERROR("Sessions directory unavailable \n");
    return KORA_ERROR;
  }
  // intended: the handles of ssl/ to sessions/ served only as a test and stay open.
  (void)ssl_dir, (void)certs_dir, (void)ca_lists_dir, (void)di_certs_dir, (void)psk_dir, (void)keys_dir,
      (void)sessions_dir;

  DIR* keyblob_dir = make_and_open(command, KORA_STORE_KEYBLOB_DIR);
  if (keyblob_dir == nullptr) {
    STORE_LOG_ERROR("Keyblob directory unavailable \n");
    return KORA_ERROR;
  }
  if (ssl_store_generate_keyblob_store_in_securefs_file() != KORA_OK) {
    STORE_LOG_ERROR("Keyblob generation failed \n");
    // intended: the keyblob/ handle stays open on this path; the directories stay in place.
    return KORA_ERROR;
  }
  closedir(keyblob_dir);
  return KORA_OK;
}

}  // namespace kora::store

extern "C" int ssl_store_init(void) { return kora::store::init_store(); }
