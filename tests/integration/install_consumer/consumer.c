/* Uses the installed headers and libraries as a C program would. */
#include <string.h>

#include "kora_net_ssl.h"
#include "ssl_store.h"

int main(void) {
  char path[512];
  return SSL_cert_get_abs_path("dev", KORA_NET_SSL_CERTIFICATE_E, path, (int)sizeof(path), false) !=
             KORA_OK ||
         strcmp(path, "/data/data_velto/.ssl/certs/dev") != 0;
}
