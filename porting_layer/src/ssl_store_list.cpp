// Listing the names stored for one kind of credential.
#include <dirent.h>
#include <glib.h>

#include <cstring>
#include <string_view>

#include "ivra_lock.h"
#include "ivra_mutex.h"
#include "kora_net_ssl.h"
#include "ssl_store.h"
#include "ssl_store_internal.h"
#include "ssl_store_log.h"
#include "ssl_util.h"

namespace kora::store {
namespace {

constexpr int kPathBufferSize = 512;
constexpr int kMaxListed = 10;
constexpr size_t kNameSlotSize = sizeof(kora_Net_SSL_Cert_List_t{}.name[0]);

int list_names(kora_Net_SSL_Cert_Type_t type, kora_Net_SSL_Cert_List_t* list) {
  char file_path[kPathBufferSize];
  std::memset(file_path, 0, sizeof file_path);
  if (list == nullptr) {
    STORE_LOG_ERROR("Cert List is Null. \n");
    return KORA_ERR_INVALID_PARAM;
  }

  const IvraLock lock(&ssl_mutex);

  // The kind's own directory: private keys are never listed.
  const std::string_view directory = directory_for(type, false);
  if (directory.empty()) {
    STORE_LOG_HIGH("Invalid Cert Type: %d", static_cast<int>(type));
    return KORA_ERR_INVALID_PARAM;
  }
  DIR* dirp = opendir(directory.data());
  if (dirp == nullptr) {
    STORE_LOG_ERROR("Opening folder failed\n");
    return KORA_ERROR;
  }

  int num_files = 0;
  struct dirent* dp = nullptr;
  // The entry read once ten names are listed is dropped unlisted.
  while ((dp = readdir(dirp)) != nullptr && num_files < kMaxListed) {
    // Every name is checked before its type: one unacceptable name fails the whole listing.
    if (SSL_cert_get_abs_path(dp->d_name, type, file_path, kPathBufferSize, false) < 0) {
      STORE_LOG_ERROR("SSL_cert_load KORA_ERR_INVALID_PARAM \n");
      // intended: dirp is left open on this path (legacy behaviour: no closedir here).
      return KORA_ERR_INVALID_PARAM;
    }
    if (dp->d_type != DT_REG) {
      continue;  // ".", "..", subdirectories, links and entries of unknown type
    }
    g_strlcpy(list->name[num_files], dp->d_name, kNameSlotSize);
    STORE_LOG_HIGH("SSL_cert_load filepath %s num_files%d", dp->d_name, num_files);
    ++num_files;
  }

  if (closedir(dirp) != 0) {
    STORE_LOG_ERROR("closing EFS folder failed\n");
    return KORA_ERROR;
  }
  return num_files;
}

}  // namespace
}  // namespace kora::store

extern "C" int SSL_cert_name_list(kora_Net_SSL_Cert_Type_t type, kora_Net_SSL_Cert_List_t* list) {
  return kora::store::list_names(type, list);
}
