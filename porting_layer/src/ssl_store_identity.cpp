// Device-identity certificates: the named certificate is attached to the SSL object's context
// (application data at index 1) and its identifier is worked out.
#include "ssl_store_identity.h"

#include <glib.h>
#include <openssl/x509v3.h>

#include <cstdlib>
#include <cstring>

#include "ssl_store.h"
#include "ssl_store_log.h"

namespace kora::store {
namespace {

// True when the string's length agrees with strlen, i.e. it holds no NUL byte.
bool is_clean(const ASN1_STRING* s, const char* text) {
  return static_cast<size_t>(ASN1_STRING_length(s)) == std::strlen(text);
}

const char* text_of(const ASN1_STRING* s) { return reinterpret_cast<const char*>(ASN1_STRING_get0_data(s)); }

int alt_name_identifier(X509* cert, kora_Net_SSL_Identifier_t* out) {
  // intended: the stack of alternative names is never freed.
  auto* san_names =
      static_cast<STACK_OF(GENERAL_NAME)*>(X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr));
  if (san_names == nullptr) {
    return KORA_ERROR;
  }
  const int san_names_nb = sk_GENERAL_NAME_num(san_names);
  for (int i = 0; i < san_names_nb; ++i) {
    const GENERAL_NAME* current_name = sk_GENERAL_NAME_value(san_names, i);
    kora_Net_SSL_Identifier_Type_t type;
    const ASN1_STRING* value;
    if (current_name->type == GEN_DNS) {
      type = KORA_NET_SSL_ID_ALT_DNS;
      value = current_name->d.dNSName;
    } else if (current_name->type == GEN_URI) {
      type = KORA_NET_SSL_ID_ALT_URI;
      value = current_name->d.uniformResourceIdentifier;
    } else {
      continue;  // e-mail, IP address, directory name and the rest
    }
    // The first DNS or URI entry decides, clean or not.
    const char* name = text_of(value);
    if (!is_clean(value, name)) {
      return KORA_ERROR;
    }
    g_strlcpy(out->identifier_Name, name, sizeof out->identifier_Name);
    out->identifier_Type = type;
    return KORA_OK;
  }
  return KORA_OK;  // no DNS or URI entry (or none at all): no identifier, no error
}

int load_get_identifier(kora_Net_SSL_Obj_Hdl_t hdl, kora_Net_SSL_Identifier_t* ref_Identifier,
                        const char* name) {
  char file_path[512] = {0};
  void* buffer = nullptr;
  size_t buf_size = 0;
  // The identifier is worked out here and goes no further: the caller's record is checked
  // for null only and never written.
  kora_Net_SSL_Identifier_t reference_Identifier{};
  int status = KORA_ERROR;

  if (hdl == 0 || ref_Identifier == nullptr || name == nullptr) {
    STORE_LOG_ERROR(
        "SSL_cert_load_get_identifier: Invalid EFS file name or Idenitifer or SSL handle is NULL\n");
    return KORA_ERR_INVALID_PARAM;
  }

  // No guard: the read-failure path below releases ssl_mutex twice on purpose.
  ivra_mutex_lock(&ssl_mutex);
  SSL_CTX* ssl = ssl_get_obj_context(hdl);
  if (ssl == nullptr) {
    // Only the null context is tested, whatever the text says about connections.
    STORE_LOG_ERROR("SSL_cert_load_get_identifier: Invalid SSL handle or already have a valid connection\n");
    ivra_mutex_unlock(&ssl_mutex);
    return KORA_ERR_INVALID_PARAM;
  }
  if (SSL_cert_get_abs_path(name, KORA_NET_SSL_DI_CERT_E, file_path, sizeof file_path, false) != 0) {
    STORE_LOG_ERROR("SSL_cert_load_get_identifier:Invalid abs path for the file name:%s type:%d", name,
                    static_cast<int>(KORA_NET_SSL_DI_CERT_E));
    ivra_mutex_unlock(&ssl_mutex);
    return KORA_ERROR;
  }

  if (ssl_store_cert_read_decrypt_from_file(file_path, &buffer, &buf_size) != 0) {
    STORE_LOG_ERROR("ERROR: Reading DI cert info from cert loc failed!! \r\n");
    // First release of two on this path: the common exit below releases again, which the
    // mutex shim tolerates.
    ivra_mutex_unlock(&ssl_mutex);
    status = KORA_ERROR;
  } else {
    auto* bytes = static_cast<uint8_t*>(buffer);
    const bool is_der = openssl_IsDerFormat(bytes, static_cast<uint16_t>(buf_size)) != 0;
    X509* cert = utility_get_X509_from_buffer(bytes, buf_size, is_der);
    if (cert == nullptr) {
      STORE_LOG_ERROR("Failed to get the X509 object \n");
      status = KORA_ERROR;
    } else {
      // intended: the certificate belongs to the context's application data from here; it is
      // never freed here, nor is any certificate it replaces at that index.
      (void)SSL_CTX_set_ex_data(ssl, SSL_DI_CERT_EX_DATA_INDEX, cert);
      status = work_out_identifier(cert, &reference_Identifier);
    }
  }

  if (buffer != nullptr) {
    free(buffer);
    buffer = nullptr;
  }
  ivra_mutex_unlock(&ssl_mutex);  // the second release on the read-failure path
  return status;
}

}  // namespace

int work_out_identifier(X509* cert, kora_Net_SSL_Identifier_t* out) {
  X509_NAME* subject = X509_get_subject_name(cert);
  const int common_name_loc = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (common_name_loc >= 0) {
    const X509_NAME_ENTRY* common_name_entry = X509_NAME_get_entry(subject, common_name_loc);
    const ASN1_STRING* common_name_asn1 =
        common_name_entry != nullptr ? X509_NAME_ENTRY_get_data(common_name_entry) : nullptr;
    if (common_name_asn1 != nullptr) {
      const char* common_name_str = text_of(common_name_asn1);
      if (is_clean(common_name_asn1, common_name_str)) {
        g_strlcpy(out->identifier_Name, common_name_str, sizeof out->identifier_Name);
        out->identifier_Type = KORA_NET_SSL_ID_CN;
        return KORA_OK;
      }
      // A common name holding a NUL byte is passed over, not refused.
    }
  }
  // Written here, before the alternative names are searched, and only when the common name
  // was not used; field logs key on it.
  STORE_LOG_HIGH("SSL_cert_load_get_identifier: Cert load and Got the Identifier \n");
  return alt_name_identifier(cert, out);
}

}  // namespace kora::store

extern "C" int SSL_cert_load_get_identifier(kora_Net_SSL_Obj_Hdl_t hdl,
                                            kora_Net_SSL_Identifier_t* ref_Identifier, const char* name) {
  return kora::store::load_get_identifier(hdl, ref_Identifier, name);
}
