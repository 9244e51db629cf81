/* Device SSL API: records, status codes and the exported credential-store calls. */
#ifndef KORA_NET_SSL_H
#define KORA_NET_SSL_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t kora_Status_t;

#define KORA_OK 0
#define KORA_ERROR (-1)
#define KORA_ERR_INVALID_PARAM (-2)
#define KORA_ERR_NO_MEMORY (-3)
#define KORA_ERR_NOT_SUPPORTED (-8)

typedef enum {
  KORA_NET_SSL_CERTIFICATE_E = 1,
  KORA_NET_SSL_CA_LIST_E = 2,
  KORA_NET_SSL_PSK_TABLE_E = 3,
  KORA_NET_SSL_DI_CERT_E = 4
} kora_Net_SSL_Cert_Type_t;

typedef struct {
  char name[10][64];
} kora_Net_SSL_Cert_List_t;

typedef enum {
  KORA_NET_SSL_ID_CN = 1,
  KORA_NET_SSL_ID_ALT_DNS = 2,
  KORA_NET_SSL_ID_SRV = 3,
  KORA_NET_SSL_ID_ALT_URI = 4
} kora_Net_SSL_Identifier_Type_t;

typedef struct {
  kora_Net_SSL_Identifier_Type_t identifier_Type;
  char identifier_Name[64];
} kora_Net_SSL_Identifier_t;

typedef struct {
  uint32_t psk_Size;
  uint8_t* psk_Buf;
} kora_Net_SSL_PSK_Table_t;

typedef uint32_t kora_Net_SSL_Obj_Hdl_t;

int SSL_cert_store(const char* name, const kora_Net_SSL_Cert_Type_t type, const void* cert, int size,
                   bool priv_key);
int SSL_cert_name_list(kora_Net_SSL_Cert_Type_t type, kora_Net_SSL_Cert_List_t* list);
int SSL_cert_der_2_pem(const void* der_cert, int size, uint8_t** pem_cert, int* pem_size);
int SSL_cert_load(kora_Net_SSL_Obj_Hdl_t hdl, kora_Net_SSL_Cert_Type_t type, const char* name);
int SSL_cert_load_get_identifier(kora_Net_SSL_Obj_Hdl_t hdl, kora_Net_SSL_Identifier_t* ref_Identifier,
                                 const char* name);

#ifdef __cplusplus
}
#endif

#endif /* KORA_NET_SSL_H */
