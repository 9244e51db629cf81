// A PKCS#11 module that forwards every call to SoftHSM2 and misbehaves in the calls named in
// KORA_P11_FAULT: C_Encrypt reports one byte fewer than it wrote; C_DestroyObject, C_GenerateKey,
// C_GetMechanismInfo, C_Logout, C_CloseSession and C_Finalize fail without reaching the token.
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>

#include <cstdlib>
#include <cstring>

namespace {

CK_FUNCTION_LIST g_shim;
CK_FUNCTION_LIST* g_real = nullptr;

bool faulty(const char* call) {
  const char* named = std::getenv("KORA_P11_FAULT");
  return named != nullptr && std::strstr(named, call) != nullptr;
}

CK_RV encrypt(CK_SESSION_HANDLE s, CK_BYTE_PTR in, CK_ULONG in_len, CK_BYTE_PTR out, CK_ULONG_PTR out_len) {
  const CK_RV rv = g_real->C_Encrypt(s, in, in_len, out, out_len);
  *out_len -= rv == CKR_OK && out != nullptr && faulty("C_Encrypt") ? 1 : 0;
  return rv;
}

CK_RV destroy_object(CK_SESSION_HANDLE s, CK_OBJECT_HANDLE object) {
  return faulty("C_DestroyObject") ? CKR_FUNCTION_FAILED : g_real->C_DestroyObject(s, object);
}

CK_RV log_out(CK_SESSION_HANDLE s) { return faulty("C_Logout") ? CKR_FUNCTION_FAILED : g_real->C_Logout(s); }

CK_RV close_session(CK_SESSION_HANDLE s) {
  return faulty("C_CloseSession") ? CKR_FUNCTION_FAILED : g_real->C_CloseSession(s);
}

CK_RV finalize(CK_VOID_PTR r) { return faulty("C_Finalize") ? CKR_FUNCTION_FAILED : g_real->C_Finalize(r); }

CK_RV mechanism_info(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR info) {
  return faulty("C_GetMechanismInfo") ? CKR_FUNCTION_FAILED : g_real->C_GetMechanismInfo(slot, type, info);
}

CK_RV generate_key(CK_SESSION_HANDLE s, CK_MECHANISM_PTR how, CK_ATTRIBUTE_PTR attrs, CK_ULONG n,
                   CK_OBJECT_HANDLE_PTR key) {
  return faulty("C_GenerateKey") ? CKR_FUNCTION_FAILED : g_real->C_GenerateKey(s, how, attrs, n, key);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  void* softhsm = dlopen(KORA_SOFTHSM2_MODULE, RTLD_NOW | RTLD_LOCAL);
  auto* get = reinterpret_cast<CK_C_GetFunctionList>(softhsm != nullptr ? dlsym(softhsm, "C_GetFunctionList")
                                                                        : nullptr);
  if (get == nullptr || get(&g_real) != CKR_OK) {
    return CKR_GENERAL_ERROR;
  }
  g_shim = *g_real;
  g_shim.C_Encrypt = encrypt;
  g_shim.C_DestroyObject = destroy_object;
  g_shim.C_Logout = log_out;
  g_shim.C_CloseSession = close_session;
  g_shim.C_Finalize = finalize;
  g_shim.C_GetMechanismInfo = mechanism_info;
  g_shim.C_GenerateKey = generate_key;
  *list = &g_shim;
  return CKR_OK;
}
