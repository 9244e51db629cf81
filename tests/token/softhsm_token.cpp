// A private SoftHSM2 token, initialised through PKCS#11 itself (no tool needed on the target).
#include "softhsm_token.h"

#include <p11-kit/p11-kit.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#ifndef KORA_SOFTHSM2_MODULE
#error "KORA_SOFTHSM2_MODULE must name the SoftHSM2 module"
#endif

namespace kora::test {

std::string make_softhsm_token(const std::string& dir) {
  const std::string tokens = dir + "/tokens";
  ::mkdir(dir.c_str(), 0700);
  ::mkdir(tokens.c_str(), 0700);
  std::ofstream(dir + "/softhsm2.conf")
      << "directories.tokendir = " << tokens << "\nobjectstore.backend = file\nlog.level = ERROR\n";
  ::setenv("SOFTHSM2_CONF", (dir + "/softhsm2.conf").c_str(), 1);
  CK_FUNCTION_LIST* m = p11_kit_module_load(KORA_SOFTHSM2_MODULE, 0);
  if (m == nullptr) {
    return std::string("cannot load ") + KORA_SOFTHSM2_MODULE + ": " + p11_kit_message();
  }
  std::string why;
  CK_SLOT_ID slots[8];
  CK_ULONG n = 8;
  CK_SESSION_HANDLE s = CK_INVALID_HANDLE;
  std::string label = "kora" + std::string(28, ' ');  // blank-padded to 32 bytes
  auto* so_pin = reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>("0000"));
  auto* pin = reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>(kTokenPin));
  if (p11_kit_module_initialize(m) != CKR_OK || m->C_GetSlotList(CK_FALSE, slots, &n) != CKR_OK || n == 0 ||
      m->C_InitToken(slots[0], so_pin, 4, reinterpret_cast<CK_UTF8CHAR*>(label.data())) != CKR_OK) {
    why = "cannot initialise a SoftHSM2 token";
  } else {
    // SoftHSM2 moves an initialised token to a new slot: look it up again.
    n = 8;
    CK_TOKEN_INFO info{};
    if (m->C_GetSlotList(CK_TRUE, slots, &n) != CKR_OK || n == 0 ||
        m->C_GetTokenInfo(slots[0], &info) != CKR_OK ||
        m->C_OpenSession(slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &s) != CKR_OK ||
        m->C_Login(s, CKU_SO, so_pin, 4) != CKR_OK ||
        m->C_InitPIN(s, pin, std::strlen(kTokenPin)) != CKR_OK) {
      why = "cannot set the user PIN of the SoftHSM2 token";
    }
    (void)m->C_CloseSession(s);  // refused as an invalid handle when none was opened
  }
  (void)p11_kit_module_finalize(m);
  p11_kit_module_release(m);
  return why;
}

std::string token_uri(const std::string& pin_part, const std::string& object) {
  return "pkcs11:token=kora;object=" + object + "?module-path=" KORA_SOFTHSM2_MODULE "&" + pin_part;
}

}  // namespace kora::test
