/* Every public header compiles as plain C11, and the records that cross the C border keep
 * their sizes, offsets and values on 32-bit and 64-bit targets alike. */
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "ds_system.h"
#include "fs_public.h"
#include "ivra_mutex.h"
#include "kora_net_ssl.h"
#include "msg_diag.h"
#include "ssl_KM_crypto_services.h"
#include "ssl_psk_table.h"
#include "ssl_store.h"
#include "ssl_store_layout.h"
#include "ssl_util.h"

#define ROUND_UP(n, a) ((((n) + (a)-1) / (a)) * (a))
#define PTR ((size_t)sizeof(void*))

/* Status codes and enumerations. */
_Static_assert(sizeof(kora_Status_t) == 4, "status is 32-bit");
_Static_assert(KORA_OK == 0 && KORA_ERROR == -1 && KORA_ERR_INVALID_PARAM == -2, "status values");
_Static_assert(KORA_ERR_NO_MEMORY == -3 && KORA_ERR_NOT_SUPPORTED == -8, "status values");
_Static_assert(sizeof(kora_Net_SSL_Cert_Type_t) == 4, "credential kind is 32-bit");
_Static_assert(KORA_NET_SSL_CERTIFICATE_E == 1 && KORA_NET_SSL_CA_LIST_E == 2, "credential kinds");
_Static_assert(KORA_NET_SSL_PSK_TABLE_E == 3 && KORA_NET_SSL_DI_CERT_E == 4, "credential kinds");

/* Public records. */
_Static_assert(sizeof(kora_Net_SSL_Cert_List_t) == 640, "name list is 10 x 64");
_Static_assert(sizeof(kora_Net_SSL_Identifier_t) == 68, "identifier record");
_Static_assert(offsetof(kora_Net_SSL_Identifier_t, identifier_Name) == 4, "identifier record");
_Static_assert(offsetof(kora_Net_SSL_PSK_Table_t, psk_Size) == 0, "PSK table record");
_Static_assert(offsetof(kora_Net_SSL_PSK_Table_t, psk_Buf) == PTR, "PSK buffer after a padded size");
_Static_assert(sizeof(kora_Net_SSL_PSK_Table_t) == 2 * PTR, "PSK table record");
_Static_assert(sizeof(kora_Net_SSL_Obj_Hdl_t) == 4 && sizeof(ssl_obj_hdl_t) == 4, "handles are 32-bit");

/* Diagnostic descriptor. */
_Static_assert(MSG_LEGACY_HIGH == 0x4u && MSG_LEGACY_ERROR == 0x8u, "level masks");
_Static_assert(offsetof(msg_const_type, desc.line) == 0 && offsetof(msg_const_type, desc.ss_id) == 2,
               "descriptor header");
_Static_assert(offsetof(msg_const_type, desc.ss_mask) == 4, "descriptor header");
_Static_assert(offsetof(msg_const_type, fmt) == 8 && offsetof(msg_const_type, fname) == 8 + PTR,
               "descriptor pointers");
_Static_assert(sizeof(msg_const_type) == 8 + 2 * PTR, "descriptor size");

/* The object layer's records, read by the store. */
_Static_assert(SSL_MAX_OBJ == 10 && sizeof(g_ssl_ctxt) / sizeof(g_ssl_ctxt[0]) == SSL_MAX_OBJ,
               "object table");
_Static_assert(SSL_DI_CERT_EX_DATA_INDEX == 1, "ex-data index of the identity certificate");
_Static_assert(offsetof(session_store_t, ciphersuite) == 0 && offsetof(session_store_t, protocol) == 256,
               "session record");
_Static_assert(offsetof(session_store_t, lifetime) == ROUND_UP(258, _Alignof(time_t)), "session record");
_Static_assert(offsetof(session_store_t, session_timestamp) ==
                   offsetof(session_store_t, lifetime) + sizeof(time_t),
               "session record");
_Static_assert(offsetof(gbl_ssl_ctx_t, obj_hndl) == 0 && offsetof(gbl_ssl_ctx_t, conn_hndl) == 4,
               "object record");
_Static_assert(offsetof(gbl_ssl_ctx_t, openssl_obj_hndl) == 8 &&
                   offsetof(gbl_ssl_ctx_t, openssl_conn_hndl) == 12,
               "object record");
_Static_assert(offsetof(gbl_ssl_ctx_t, sess) == 16 && offsetof(gbl_ssl_ctx_t, cert) == 528, "object record");
_Static_assert(offsetof(gbl_ssl_ctx_t, psk_identify_key) == 784, "object record: PSK pointer");
_Static_assert(offsetof(gbl_ssl_ctx_t, ciphersuite) == 784 + PTR, "object record");
_Static_assert(offsetof(gbl_ssl_ctx_t, protocol) == 784 + PTR + 256, "object record");
/* Store layout: literals that concatenate, directories ending in "/". */
_Static_assert(sizeof KORA_STORE_ROOT == sizeof "/data/data_velto/.ssl/", "store root");
_Static_assert(sizeof KORA_STORE_KEYBLOB_FILE == sizeof "/data/data_velto/.ssl/keyblob/takey.blob",
               "key blob");

int main(void) {
  /* A constant initializer in C. */
  static ivra_mutex_t m = IVRA_MUTEX_INITIALIZER;
  return m.held;
}
