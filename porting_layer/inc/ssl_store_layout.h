/* Where the store keeps its files on the device: the one definition of the tree, read by the
 * store, the SSL object layer and the tools alike. Every directory ends in "/"; a credential's
 * file is its directory followed by its name. The texts are macros so that they concatenate
 * with other literals at compile time; the calls serve code that walks the tree. */
#ifndef SSL_STORE_LAYOUT_H
#define SSL_STORE_LAYOUT_H

#include <stdbool.h>
#include <stddef.h>

#include "kora_net_ssl.h"

/* The data root, which the device provides: the store never creates it. */
#define KORA_STORE_DATA_ROOT "/data/data_velto/"
/* The store's own tree below it. */
#define KORA_STORE_ROOT KORA_STORE_DATA_ROOT ".ssl/"
#define KORA_STORE_CERTS_DIR KORA_STORE_ROOT "certs/"
#define KORA_STORE_CA_LISTS_DIR KORA_STORE_ROOT "ca_lists/"
#define KORA_STORE_DI_CERTS_DIR KORA_STORE_ROOT "di_certs/"
#define KORA_STORE_PSK_TABLE_DIR KORA_STORE_ROOT "psk_table/"
#define KORA_STORE_PRIVATE_KEYS_DIR KORA_STORE_ROOT "private_keys/"
#define KORA_STORE_SESSIONS_DIR KORA_STORE_ROOT "sessions/"
#define KORA_STORE_KEYBLOB_DIR KORA_STORE_ROOT "keyblob/"

/* The key material provisioned once by ssl_store_init (the nonce file's path can be moved
 * before start-up through g_ssl_ta_keyblob_nonce_file_name, which starts as this). */
#define KORA_STORE_KEYBLOB_FILE KORA_STORE_KEYBLOB_DIR "takey.blob"
#define KORA_STORE_NONCE_FILE KORA_STORE_KEYBLOB_DIR "takey.nonce"

/* The plain scratch file a CA list passes through while it is loaded. */
#define KORA_STORE_CA_LIST_TEMP_FILE KORA_STORE_ROOT "temp"

/* Saved sessions in the sessions directory, bound to a credential name by their file names:
 * "<name>_<n>.session" and "<name>_<n>.timestamp", n counting from 1. Removing a credential
 * removes every file named "<name>_..." with either suffix. */
#define KORA_STORE_SESSION_SUFFIX ".session"
#define KORA_STORE_TIMESTAMP_SUFFIX ".timestamp"

/* The number of directories in the store's tree, the store root included. */
#define KORA_STORE_DIR_COUNT 8

#ifdef __cplusplus
extern "C" {
#endif

/* The directories of the tree in the order ssl_store_init creates them: the store root first,
 * each directory after its parent, the key blob directory last. NULL for an index of
 * KORA_STORE_DIR_COUNT or more. */
const char* ssl_store_layout_dir(size_t index);

/* The directory of a kind's credentials, or of the private keys when `key` is set (the kind is
 * then not looked at). NULL for a kind outside the four. */
const char* ssl_store_kind_dir(kora_Net_SSL_Cert_Type_t type, bool key);

#ifdef __cplusplus
}
#endif

#endif /* SSL_STORE_LAYOUT_H */
