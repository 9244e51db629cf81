/* Host key service: the calls a tool needs beside the two key-management calls, to say which
 * root key seals the store, to make it, and to explain the last failure. */
#ifndef KORA_HOST_KM_H
#define KORA_HOST_KM_H

#ifdef __cplusplus
extern "C" {
#endif

/* The backend of this process: "pkcs11" when KORA_KM_PKCS11_URI is set and non-empty, else
 * "file". */
const char* kora_km_backend(void);

/* The root key: the file's path (file backend) or the token URI (pkcs11 backend). */
const char* kora_km_root_key(void);

/* 1 when the root key exists and passes every check, 0 when it is missing, negative when it
 * cannot be used (kora_km_last_error() says why). Opens the token for the pkcs11 backend. */
int kora_km_root_key_state(void);

/* Makes the root key: when it is missing, or (replace != 0) in place of the existing one,
 * which orphans everything sealed under it. 0 on success. */
int kora_km_make_root_key(int replace);

/* Why the last call of the key service in this thread failed; "" after a success. */
const char* kora_km_last_error(void);

#ifdef __cplusplus
}
#endif

#endif /* KORA_HOST_KM_H */
