// PKCS#11 backend of the host key service. The root key is an AES-256 secret key object in
// a token, sensitive and never extractable; the data key is wrapped and unwrapped by the
// token (CKM_AES_KEY_WRAP_PAD) into a session object that never leaves it, and sealing runs
// in the token (CKM_AES_GCM). p11-kit parses KORA_KM_PKCS11_URI and loads the module it
// names. The session and the unwrapped key live for the process: opened on first use,
// guarded by one mutex (a session runs one operation at a time), closed at exit.
#include <glib.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <p11-kit/p11-kit.h>
#include <p11-kit/pin.h>
#include <p11-kit/uri.h>
#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host_km.h"
#include "ossl_ptr.h"
#include "secure_bytes.h"

namespace kora::km::token {
namespace {

using UriPtr = std::unique_ptr<P11KitUri, Free<&p11_kit_uri_free>>;

struct Token {
  std::string uri_text;  // the URI this state was opened for
  std::string shown;     // the same without a PIN, for messages
  CK_FUNCTION_LIST* module = nullptr;
  CK_SLOT_ID slot = 0;
  CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
  CK_OBJECT_HANDLE root = CK_INVALID_HANDLE;
  std::string label;  // of the root key
  std::vector<uint8_t> id;
  CK_OBJECT_HANDLE data_key = CK_INVALID_HANDLE;  // unwrapped from `blob`, a session object
  uint8_t blob[kKeyBlobLen] = {};
};

std::mutex g_mutex;
Token g_token;  // guarded by g_mutex
// A URI whose PIN the token refused: not tried again in this process, as tokens lock the PIN
// after a few wrong attempts.
std::string g_refused_pin_uri;  // guarded by g_mutex

const CK_BBOOL kTrue = CK_TRUE, kFalse = CK_FALSE;

Result token_error(const char* what, CK_RV rv) {
  return fail(kErrToken, "PKCS#11 %s failed: %s (0x%lx)", what, p11_kit_strerror(rv),
              static_cast<unsigned long>(rv));
}

void close_token() {
  Token& t = g_token;
  if (t.module != nullptr) {
    if (t.session != CK_INVALID_HANDLE) {
      if (t.data_key != CK_INVALID_HANDLE) {
        (void)t.module->C_DestroyObject(t.session, t.data_key);
      }
      (void)t.module->C_Logout(t.session);
      (void)t.module->C_CloseSession(t.session);
    }
    (void)p11_kit_module_finalize(t.module);
    p11_kit_module_release(t.module);
  }
  OPENSSL_cleanse(t.blob, sizeof t.blob);
  t = Token();
}

// The PIN from the URI's pin-value or pin-source (p11-kit reads a file: source).
Result log_in(Token& t, P11KitUri* uri, const char* token_label) {
  std::unique_ptr<P11KitPin, Free<&p11_kit_pin_unref>> pin;
  if (const char* value = p11_kit_uri_get_pin_value(uri); value != nullptr) {
    pin.reset(p11_kit_pin_new_for_string(value));
  } else if (const char* source = p11_kit_uri_get_pin_source(uri); source != nullptr) {
    // A file: URI or a plain path; GLib turns the URI into a file name.
    std::unique_ptr<char, Free<&g_free>> path(g_filename_from_uri(source, nullptr, nullptr));
    pin.reset(p11_kit_pin_file_callback(path ? path.get() : source, uri, token_label,
                                        P11_KIT_PIN_FLAGS_USER_LOGIN, nullptr));
    if (!pin) {
      return fail(kErrToken, "cannot read the PIN from pin-source %s", source);
    }
  } else {
    return fail(kErrToken, "KORA_KM_PKCS11_URI gives no pin-value or pin-source for token %s", token_label);
  }
  size_t len = 0;
  const unsigned char* value = p11_kit_pin_get_value(pin.get(), &len);
  while (len > 0 && (value[len - 1] == '\n' || value[len - 1] == '\r')) {
    --len;  // a PIN file written by echo
  }
  SecureVector copy(value, value + len);  // C_Login takes a writable PIN
  const CK_RV rv = t.module->C_Login(t.session, CKU_USER, copy.data(), copy.size());
  if (rv == CKR_PIN_INCORRECT || rv == CKR_PIN_LEN_RANGE) {
    g_refused_pin_uri = t.uri_text;
    return fail(kErrToken, "wrong PIN for token %s", token_label);
  }
  return rv == CKR_OK || rv == CKR_USER_ALREADY_LOGGED_IN ? kOk : token_error("login", rv);
}

// Every mechanism the backend needs, with the functions it uses; a token without one is
// refused here rather than at the first seal.
Result check_mechanisms(Token& t, const char* token_label) {
  const struct {
    CK_MECHANISM_TYPE type;
    const char* name;
    CK_FLAGS needs;
  } needed[] = {{CKM_AES_KEY_GEN, "CKM_AES_KEY_GEN", CKF_GENERATE},
                {CKM_AES_KEY_WRAP_PAD, "CKM_AES_KEY_WRAP_PAD", CKF_WRAP | CKF_UNWRAP},
                {CKM_AES_GCM, "CKM_AES_GCM", CKF_ENCRYPT | CKF_DECRYPT}};
  for (const auto& m : needed) {
    CK_MECHANISM_INFO info{};
    if (t.module->C_GetMechanismInfo(t.slot, m.type, &info) != CKR_OK || (info.flags & m.needs) != m.needs ||
        (info.ulMaxKeySize != 0 && info.ulMaxKeySize < kRootKeyLen)) {
      return fail(kErrToken, "token %s cannot do %s with 256-bit AES keys", token_label, m.name);
    }
  }
  return kOk;
}

// The token, session and login; the root key is looked up by find_root().
Result open_token(const char* uri_text) {
  Token& t = g_token;
  if (t.module != nullptr && t.uri_text == uri_text) {
    return kOk;
  }
  close_token();
  if (g_refused_pin_uri == uri_text) {
    return fail(kErrToken, "wrong PIN for the token of %s (not tried again in this process)",
                describe(uri_text).c_str());
  }
  UriPtr uri(p11_kit_uri_new());
  const int parsed = p11_kit_uri_parse(uri_text, P11_KIT_URI_FOR_OBJECT_ON_TOKEN_AND_MODULE, uri.get());
  if (parsed != P11_KIT_URI_OK) {
    return fail(kErrToken, "KORA_KM_PKCS11_URI is not a usable PKCS#11 URI: %s", p11_kit_uri_message(parsed));
  }
  const char* module_path = p11_kit_uri_get_module_path(uri.get());
  if (module_path == nullptr) {
    return fail(kErrToken, "KORA_KM_PKCS11_URI names no module-path");
  }
  t.module = p11_kit_module_load(module_path, 0);
  if (t.module == nullptr) {
    return fail(kErrToken, "cannot load the PKCS#11 module %s: %s", module_path, p11_kit_message());
  }
  if (const CK_RV rv = p11_kit_module_initialize(t.module); rv != CKR_OK) {
    p11_kit_module_release(t.module);
    t.module = nullptr;
    return token_error("module initialisation", rv);
  }
  // Registered after the module's own exit handlers, so that it runs before they tear the
  // module down; once per load, as a module loaded again registers its handlers again.
  (void)std::atexit(forget);
  t.uri_text = uri_text;
  t.shown = describe(uri_text);
  CK_ULONG count = 0;
  std::vector<CK_SLOT_ID> slots;
  if (t.module->C_GetSlotList(CK_TRUE, nullptr, &count) == CKR_OK) {
    slots.resize(count);
    if (count > 0 && t.module->C_GetSlotList(CK_TRUE, slots.data(), &count) != CKR_OK) {
      count = 0;
    }
    slots.resize(count);
  }
  CK_TOKEN_INFO info{};
  bool found = false;
  for (CK_SLOT_ID slot : slots) {
    if (t.module->C_GetTokenInfo(slot, &info) == CKR_OK &&
        p11_kit_uri_match_token_info(uri.get(), &info) == 1) {
      t.slot = slot;
      found = true;
      break;
    }
  }
  if (!found) {
    return fail(kErrToken, "no token in %s matches %s", module_path, t.shown.c_str());
  }
  const std::string token_label(reinterpret_cast<const char*>(info.label),
                                strnlen(reinterpret_cast<const char*>(info.label), sizeof info.label));
  const std::string trimmed = token_label.substr(0, token_label.find_last_not_of(' ') + 1);
  Result r = check_mechanisms(t, trimmed.c_str());
  if (r != kOk) {
    return r;
  }
  if (const CK_RV rv =
          t.module->C_OpenSession(t.slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &t.session);
      rv != CKR_OK) {
    return token_error("opening a session", rv);
  }
  r = log_in(t, uri.get(), trimmed.c_str());
  if (r != kOk) {
    return r;
  }
  CK_ULONG n_attrs = 0;
  CK_ATTRIBUTE* attrs = p11_kit_uri_get_attributes(uri.get(), &n_attrs);
  for (CK_ULONG i = 0; i < n_attrs; ++i) {
    const auto* v = static_cast<const char*>(attrs[i].pValue);
    if (attrs[i].type == CKA_LABEL) {
      t.label.assign(v, attrs[i].ulValueLen);
    } else if (attrs[i].type == CKA_ID) {
      t.id.assign(v, v + attrs[i].ulValueLen);
    }
  }
  if (t.label.empty() && t.id.empty()) {
    return fail(kErrToken, "KORA_KM_PKCS11_URI names no object (object= or id=) for the root key");
  }
  return kOk;
}

// The root key's handle: kOk with t.root set, or kErrRootKey (missing) with t.root invalid.
Result find_root(Token& t) {
  const CK_OBJECT_CLASS cls = CKO_SECRET_KEY;
  const CK_KEY_TYPE type = CKK_AES;
  std::vector<CK_ATTRIBUTE> tmpl{{CKA_CLASS, const_cast<CK_OBJECT_CLASS*>(&cls), sizeof cls},
                                 {CKA_KEY_TYPE, const_cast<CK_KEY_TYPE*>(&type), sizeof type}};
  if (!t.label.empty()) {
    tmpl.push_back({CKA_LABEL, t.label.data(), t.label.size()});
  }
  if (!t.id.empty()) {
    tmpl.push_back({CKA_ID, t.id.data(), t.id.size()});
  }
  CK_OBJECT_HANDLE found[2];
  CK_ULONG n = 0;
  CK_RV rv = t.module->C_FindObjectsInit(t.session, tmpl.data(), tmpl.size());
  if (rv == CKR_OK) {
    rv = t.module->C_FindObjects(t.session, found, 2, &n);
    (void)t.module->C_FindObjectsFinal(t.session);
  }
  if (rv != CKR_OK) {
    return token_error("finding the root key", rv);
  }
  if (n > 1) {
    return fail(kErrToken, "more than one AES key in the token matches %s", t.shown.c_str());
  }
  t.root = n == 1 ? found[0] : CK_INVALID_HANDLE;
  return n == 1 ? kOk : fail(kErrRootKey, "the token has no root key %s", t.shown.c_str());
}

// A new AES-256 key in the token: the root key (a token object, sensitive, never
// extractable, for wrapping only) or a data key (a session object, extractable only to be
// wrapped under the root key).
CK_RV generate_key(Token& t, bool root, CK_OBJECT_HANDLE* handle) {
  const CK_OBJECT_CLASS cls = CKO_SECRET_KEY;
  const CK_KEY_TYPE type = CKK_AES;
  const CK_ULONG len = kRootKeyLen;
  auto* yes = const_cast<CK_BBOOL*>(&kTrue);
  auto* no = const_cast<CK_BBOOL*>(&kFalse);
  std::vector<CK_ATTRIBUTE> tmpl{{CKA_CLASS, const_cast<CK_OBJECT_CLASS*>(&cls), sizeof cls},
                                 {CKA_KEY_TYPE, const_cast<CK_KEY_TYPE*>(&type), sizeof type},
                                 {CKA_VALUE_LEN, const_cast<CK_ULONG*>(&len), sizeof len},
                                 {CKA_TOKEN, root ? yes : no, sizeof(CK_BBOOL)},
                                 {CKA_PRIVATE, yes, sizeof(CK_BBOOL)},
                                 {CKA_SENSITIVE, yes, sizeof(CK_BBOOL)},
                                 {CKA_EXTRACTABLE, root ? no : yes, sizeof(CK_BBOOL)},
                                 {CKA_WRAP, root ? yes : no, sizeof(CK_BBOOL)},
                                 {CKA_UNWRAP, root ? yes : no, sizeof(CK_BBOOL)},
                                 {CKA_ENCRYPT, root ? no : yes, sizeof(CK_BBOOL)},
                                 {CKA_DECRYPT, root ? no : yes, sizeof(CK_BBOOL)}};
  if (root && !t.label.empty()) {
    tmpl.push_back({CKA_LABEL, t.label.data(), t.label.size()});
  }
  if (root && !t.id.empty()) {
    tmpl.push_back({CKA_ID, t.id.data(), t.id.size()});
  }
  CK_MECHANISM mech{CKM_AES_KEY_GEN, nullptr, 0};
  return t.module->C_GenerateKey(t.session, &mech, tmpl.data(), tmpl.size(), handle);
}

// A forked child starts without its parent's session and handles: PKCS#11 state belongs to
// the process that opened it.
void drop_in_child() { g_token = Token(); }

// Opens the token and finds (or, when `create`, makes) the root key. Caller holds g_mutex.
Result ready(bool create) {
  static const bool registered = ::pthread_atfork(nullptr, nullptr, drop_in_child) == 0;
  (void)registered;
  const char* uri = pkcs11_uri();
  Result r = open_token(uri);
  if (r != kOk) {
    close_token();
    return r;
  }
  Token& t = g_token;
  if (t.root != CK_INVALID_HANDLE) {
    return kOk;
  }
  r = find_root(t);
  if (r == kErrRootKey && create) {
    clear_error();
    const CK_RV rv = generate_key(t, true, &t.root);
    r = rv == CKR_OK ? kOk : token_error("making the root key", rv);
  } else if (r == kErrRootKey) {
    r = fail(kErrRootKey,
             "the token has no root key %s while a key blob exists: a new one would orphan every credential "
             "sealed under the old one (kora-ssl-store init --force-new-key starts over)",
             t.shown.c_str());
  }
  return r;
}

// Makes g_token.data_key the unwrapped key of `keyblob`. Caller holds g_mutex.
Result ensure_key(const uint8_t* keyblob) {
  Token& t = g_token;
  if (t.data_key != CK_INVALID_HANDLE && CRYPTO_memcmp(t.blob, keyblob, kKeyBlobLen) == 0) {
    return kOk;
  }
  if (t.data_key != CK_INVALID_HANDLE) {
    (void)t.module->C_DestroyObject(t.session, t.data_key);
    t.data_key = CK_INVALID_HANDLE;
  }
  const CK_OBJECT_CLASS cls = CKO_SECRET_KEY;
  const CK_KEY_TYPE type = CKK_AES;
  auto* yes = const_cast<CK_BBOOL*>(&kTrue);
  auto* no = const_cast<CK_BBOOL*>(&kFalse);
  CK_ATTRIBUTE tmpl[] = {{CKA_CLASS, const_cast<CK_OBJECT_CLASS*>(&cls), sizeof cls},
                         {CKA_KEY_TYPE, const_cast<CK_KEY_TYPE*>(&type), sizeof type},
                         {CKA_TOKEN, no, sizeof(CK_BBOOL)},
                         {CKA_PRIVATE, yes, sizeof(CK_BBOOL)},
                         {CKA_SENSITIVE, yes, sizeof(CK_BBOOL)},
                         {CKA_EXTRACTABLE, no, sizeof(CK_BBOOL)},
                         {CKA_ENCRYPT, yes, sizeof(CK_BBOOL)},
                         {CKA_DECRYPT, yes, sizeof(CK_BBOOL)}};
  CK_MECHANISM mech{CKM_AES_KEY_WRAP_PAD, nullptr, 0};
  const CK_RV rv = t.module->C_UnwrapKey(t.session, &mech, t.root, const_cast<uint8_t*>(keyblob), kKeyBlobLen,
                                         tmpl, sizeof tmpl / sizeof tmpl[0], &t.data_key);
  if (rv != CKR_OK) {
    t.data_key = CK_INVALID_HANDLE;
    return fail(kErrKeyBlob, "the key blob does not unwrap under the token key %s: %s", t.shown.c_str(),
                p11_kit_strerror(rv));
  }
  std::memcpy(t.blob, keyblob, kKeyBlobLen);
  return kOk;
}

Result run_gcm(const uint8_t* keyblob, const uint8_t* nonce, const uint8_t* iv, const uint8_t* in,
               size_t in_len, uint8_t* out, size_t* out_len, bool seal) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  Result r = ready(false);
  if (r == kOk) {
    r = ensure_key(keyblob);
  }
  if (r != kOk) {
    return r;
  }
  Token& t = g_token;
  uint8_t aad[kAadLen];
  seal_aad(kSealVersionToken, nonce, aad);
  CK_GCM_PARAMS params{const_cast<uint8_t*>(iv), kIvLen, kIvLen * 8, aad, kAadLen, kTagLen * 8};
  CK_MECHANISM mech{CKM_AES_GCM, &params, sizeof params};
  // Some tokens take a null pointer as a bad argument even for no bytes.
  uint8_t none = 0;
  auto* input = in_len > 0 ? const_cast<uint8_t*>(in) : &none;
  CK_ULONG n = *out_len;
  CK_RV rv = seal ? t.module->C_EncryptInit(t.session, &mech, t.data_key)
                  : t.module->C_DecryptInit(t.session, &mech, t.data_key);
  if (rv != CKR_OK) {
    return token_error(seal ? "AES-GCM encryption" : "AES-GCM decryption", rv);
  }
  rv = seal ? t.module->C_Encrypt(t.session, input, in_len, out, &n)
            : t.module->C_Decrypt(t.session, input, in_len, out, &n);
  if (rv != CKR_OK) {
    return seal ? token_error("AES-GCM encryption", rv)
                : fail(kErrAuth, "sealed data altered, or sealed under another key blob or nonce");
  }
  *out_len = n;
  return kOk;
}

}  // namespace

std::string describe(const char* uri_text) {
  UriPtr uri(p11_kit_uri_new());
  char* text = nullptr;
  if (p11_kit_uri_parse(uri_text, P11_KIT_URI_FOR_ANY, uri.get()) != P11_KIT_URI_OK) {
    return "(not a PKCS#11 URI)";
  }
  p11_kit_uri_set_pin_value(uri.get(), nullptr);
  if (p11_kit_uri_format(uri.get(), P11_KIT_URI_FOR_ANY, &text) != P11_KIT_URI_OK) {
    return "(a PKCS#11 URI)";
  }
  std::string shown(text);
  std::free(text);
  return shown;
}

Result generate_keyblob(uint8_t** keyblob, size_t* keyblob_len) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  Result r = ready(true);
  if (r != kOk) {
    return r;
  }
  Token& t = g_token;
  CK_OBJECT_HANDLE data_key = CK_INVALID_HANDLE;
  CK_RV rv = generate_key(t, false, &data_key);
  if (rv != CKR_OK) {
    return token_error("making a data key", rv);
  }
  CK_MECHANISM mech{CKM_AES_KEY_WRAP_PAD, nullptr, 0};
  uint8_t wrapped[kKeyBlobLen + 16];
  CK_ULONG len = sizeof wrapped;
  rv = t.module->C_WrapKey(t.session, &mech, t.root, data_key, wrapped, &len);
  (void)t.module->C_DestroyObject(t.session, data_key);
  if (rv != CKR_OK || len != kKeyBlobLen) {
    return rv != CKR_OK ? token_error("wrapping the data key", rv)
                        : fail(kErrToken, "the token wrapped the data key into %lu bytes", len);
  }
  *keyblob = static_cast<uint8_t*>(std::malloc(len));
  if (*keyblob == nullptr) {
    return fail(kErrNoMemory, "no memory for a key blob");
  }
  std::memcpy(*keyblob, wrapped, len);
  *keyblob_len = len;
  return kOk;
}

Result crypt(const uint8_t* keyblob, const uint8_t* nonce, const uint8_t* in, size_t in_len, void** out,
             size_t* out_len, bool seal) {
  if (!seal && (in_len < kSealOverhead || in[0] != kSealVersionToken)) {
    return fail(kErrFormat, in_len >= kSealOverhead && in[0] == kSealVersionFile
                                ? "sealed by the file backend; unset KORA_KM_PKCS11_URI to open it"
                                : "not a sealed file of this key service (version or length)");
  }
  // Room for the whole input plus the tag either way: a token may want more room than the
  // result takes.
  const size_t room = in_len + kSealOverhead;
  auto* buf = static_cast<uint8_t*>(std::malloc(room));
  if (buf == nullptr) {
    return fail(kErrNoMemory, "no memory for %zu bytes", room);
  }
  if (seal) {
    buf[0] = kSealVersionToken;
    size_t n = room - 1 - kIvLen;
    Result r = RAND_bytes(buf + 1, static_cast<int>(kIvLen)) == 1 ? kOk : fail(kErrCrypto, "no random bytes");
    if (r == kOk) {
      r = run_gcm(keyblob, nonce, buf + 1, in, in_len, buf + 1 + kIvLen, &n, true);
    }
    if (r == kOk && n != in_len + kTagLen) {
      r = fail(kErrToken, "the token sealed %zu bytes into %zu", in_len, n);
    }
    if (r != kOk) {
      std::free(buf);
      return r;
    }
    *out = buf;
    *out_len = room;
    return kOk;
  }
  size_t n = room;
  const Result r = run_gcm(keyblob, nonce, in + 1, in + 1 + kIvLen, in_len - 1 - kIvLen, buf, &n, false);
  if (r != kOk || n != in_len - kSealOverhead) {
    OPENSSL_clear_free(buf, room);
    return r != kOk ? r : fail(kErrToken, "the token unsealed into %zu bytes", n);
  }
  *out = buf;
  *out_len = n;
  return kOk;
}

void forget() {
  const std::lock_guard<std::mutex> lock(g_mutex);
  close_token();
}

int root_key_state() {
  const std::lock_guard<std::mutex> lock(g_mutex);
  const Result r = ready(false);
  return r == kOk ? 1 : r == kErrRootKey && g_token.module != nullptr ? 0 : r;
}

Result make_root_key(bool replace) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  Result r = ready(false);
  if (r == kOk && replace) {
    Token& t = g_token;
    const CK_RV rv = t.module->C_DestroyObject(t.session, t.root);
    t.root = CK_INVALID_HANDLE;
    if (rv != CKR_OK) {
      return token_error("removing the old root key", rv);
    }
  }
  if (r != kOk && r != kErrRootKey) {
    return r;
  }
  clear_error();
  return ready(true);
}

}  // namespace kora::km::token
