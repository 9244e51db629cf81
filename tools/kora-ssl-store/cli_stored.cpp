// Stored files: paths, names and unsealed contents.
#include "cli_stored.h"

#include <dirent.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cli_files.h"
#include "cli_keys.h"
#include "cli_report.h"
#include "commands.h"
#include "secure_bytes.h"
#include "ssl_store.h"

namespace kora::cli {
namespace {

// The size of the store's own path buffers.
constexpr int kPathBufferSize = 512;

}  // namespace

std::string stored_path(const std::string& name, kora_Net_SSL_Cert_Type_t type, bool key) {
  char path[kPathBufferSize] = {0};
  if (SSL_cert_get_abs_path(name.c_str(), type, path, sizeof path, key) != KORA_OK) {
    return "";
  }
  return path;
}

bool stored_exists(const std::string& name, kora_Net_SSL_Cert_Type_t type, bool key) {
  const std::string path = stored_path(name, type, key);
  return !path.empty() && fileExists(path.c_str()) == 1;
}

bool stored_names(kora_Net_SSL_Cert_Type_t type, bool key, std::vector<std::string>* names,
                  std::string* why) {
  // An empty name resolves to the kind's directory itself.
  const std::string directory = stored_path("", type, key);
  DIR* dir = directory.empty() ? nullptr : ::opendir(directory.c_str());
  if (dir == nullptr) {
    *why = "cannot open the store's directory " + directory + ": " + std::strerror(errno);
    return false;
  }
  names->clear();
  // readdir on a stream of our own is safe; readdir_r is deprecated.
  // cppcheck-suppress readdirCalled
  while (const struct dirent* entry = ::readdir(dir)) {
    if (entry->d_type == DT_REG) {
      names->emplace_back(entry->d_name);
    }
  }
  (void)::closedir(dir);
  std::sort(names->begin(), names->end());
  return true;
}

int open_target(const Args& args, const char* command, Target* target) {
  if (args.positional.size() != 2) {
    return usage_error(std::string(command) + " needs KIND and NAME");
  }
  target->name = args.positional[1];
  if (const std::string why = target_problem(args.positional[0], target->name, &target->kind); !why.empty()) {
    return usage_error(why);
  }
  if (const int rc = load_key_material(); rc != kExitOk) {
    return rc;
  }
  return refuse_irregular_credential(target->kind.type, target->name);
}

int fail_not_stored(const char* title, const std::string& name) {
  return fail(std::string("no ") + title + " named '" + name + "' in the store");
}

int load_credential(ssl_obj_hdl_t hdl, kora_Net_SSL_Cert_Type_t type, const std::string& name) {
  const Kind* kind = find_kind(type);
  const char* title = kind != nullptr ? kind->title : "credential";
  if (const int rc = refuse_irregular_credential(type, name); rc != kExitOk) {
    return rc;
  }
  if (Is_SSL_cert_file_exist(name.c_str(), type) != KORA_OK) {
    return fail_not_stored(title, name);
  }
  diag_clear();
  const int status = SSL_cert_load(hdl, type, name.c_str());
  if (status == KORA_OK) {
    return kExitOk;
  }
  if (status == KORA_ERR_NOT_SUPPORTED) {
    return fail_store(std::string("loading ") + title + " '" + name +
                          "' refused: a PSK table and certificates exclude each other on one SSL object",
                      status);
  }
  return fail_store(std::string("loading ") + title + " '" + name + "' failed", status);
}

bool read_stored(const std::string& name, kora_Net_SSL_Cert_Type_t type, bool key, SecureVector* out,
                 std::string* why) {
  const std::string path = stored_path(name, type, key);
  void* data = nullptr;
  size_t size = 0;
  const bool read = !path.empty() && ssl_store_cert_read_decrypt_from_file(path.c_str(), &data, &size) == 0;
  const SecureBytes plain = SecureBytes::adopt(data, size);
  if (!read || plain.data() == nullptr) {
    *why = "cannot unseal " + path + " (damaged, or sealed under other key material): store it again";
    return false;
  }
  out->assign(plain.data(), plain.data() + plain.size());
  return true;
}

}  // namespace kora::cli
