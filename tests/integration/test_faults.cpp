// Real faults under the store: a full file system, a read-only one, sealed files altered or
// cut short, key material missing or damaged at start-up, and garbage where certificates, keys, CA lists and
// PSK text belong. Each must end in a clear error, with nothing installed on the SSL object and the other
// credentials untouched.
//
// A store that fails to write keeps ssl_mutex held (legacy behaviour), so such stores run in a
// forked child; the files it leaves are on the same tmpfs and the parent looks at them.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "file_bytes.h"
#include "kora_certgen.h"
#include "kora_net_ssl.h"
#include "loading_fixture.h"
#include "log_capture.h"
#include "private_root.h"
#include "ssl_store.h"
#include "ssl_util.h"
#include "subprocess.h"

namespace kora::test {
namespace {

const std::string kBlob = kStoreRoot + "keyblob/takey.blob";
const std::string kNonce = kStoreRoot + "keyblob/takey.nonce";
const char* const kRootKey = "/data/km/root.key";

// Prints a row as its label rather than as raw bytes.
template <class Row, class = decltype(Row::label)>
std::ostream& operator<<(std::ostream& os, const Row& row) {
  return os << row.label;
}

// Names parameterised cases after their row's label.
const auto kLabel = [](const auto& p) { return std::string(p.param.label); };

struct Credentials {
  std::string cert, key, ca, psk;
};

Credentials make_credentials(const std::string& cn) {
  const auto pair = certgen::make_self_signed({{{"CN", cn}}, {}, false, false});
  const auto ca = certgen::make_self_signed({{{"CN", cn}}, {}, false, true});
  return {pair.cert_pem(), pair.key_pem(), ca.cert_pem(), psk_table({{"id", "\x01\x02\x03\x04"}})};
}

class FaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("KORA_KM_ROOT_KEY", kRootKey, 1);
    ::mkdir("/data/km", 0700);
  }
  void TearDown() override {
    if (hdl_ != 0) {
      ssl_obj_free(hdl_);
    }
  }

  void start() { ASSERT_EQ(ssl_store_init(), KORA_OK); }
  static void put_all(const std::string& name, const Credentials& c) {
    ASSERT_EQ(store(name, KORA_NET_SSL_CERTIFICATE_E, c.cert), KORA_OK);
    ASSERT_EQ(store(name, KORA_NET_SSL_CERTIFICATE_E, c.key, true), KORA_OK);
    ASSERT_EQ(store(name, KORA_NET_SSL_CA_LIST_E, c.ca), KORA_OK);
    ASSERT_EQ(store(name, KORA_NET_SSL_PSK_TABLE_E, c.psk), KORA_OK);
  }

  // Loads onto a fresh SSL object, which stays available in hdl_/ctx_ until the next load.
  int load(kora_Net_SSL_Cert_Type_t type, const std::string& name) {
    TearDown();  // frees the last object
    hdl_ = 0;
    EXPECT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &hdl_), 0);
    ctx_ = ssl_get_obj_context(hdl_);
    return SSL_cert_load(hdl_, type, name.c_str());
  }

  // Why something is installed on the last object, or "" when nothing is. A certificate is
  // tolerated when `cert_may_stay` (a failed key load keeps it, as designed).
  std::string installed(bool cert_may_stay = false) const {
    int index = -1;
    utility_get_ssl_ctxt(ctx_, &index);
    if (index < 0) {
      return "object not in the table";
    }
    const gbl_ssl_ctx_t& record = g_ssl_ctxt[index];
    if (!cert_may_stay && SSL_CTX_get0_certificate(ctx_) != nullptr) return "a certificate";
    if (SSL_CTX_get0_privatekey(ctx_) != nullptr) return "a private key";
    if (sk_X509_OBJECT_num(X509_STORE_get0_objects(SSL_CTX_get_cert_store(ctx_))) != 0) return "CA entries";
    if (record.psk_identify_key != nullptr) return "a PSK table";
    if (record.cert[0] != '\0') return std::string("the name ") + record.cert;
    if (exists(kStoreRoot + "temp")) return "the CA list's temporary file";
    return "";
  }

  // Every kind stored under `name` loads with `status`; a refused one leaves nothing installed.
  void expect_loads(const std::string& name, int status = KORA_OK) {
    for (auto type : {KORA_NET_SSL_CERTIFICATE_E, KORA_NET_SSL_CA_LIST_E, KORA_NET_SSL_PSK_TABLE_E}) {
      EXPECT_EQ(load(type, name), status) << name << " of kind " << type;
      EXPECT_TRUE(status == KORA_OK || installed().empty()) << "kind " << type << ": " << installed();
    }
  }

  ssl_obj_hdl_t hdl_ = 0;
  SSL_CTX* ctx_ = nullptr;
};

// --- Sealed files altered on disk -------------------------------------------------------

struct TamperRow {
  const char* label;
  kora_Net_SSL_Cert_Type_t type;
  const char* file;
  const char* message;  // the loader's own report, error level
  bool cert_may_stay;
};

class TamperedFile : public FaultTest, public ::testing::WithParamInterface<TamperRow> {};

const char* const kCaListUnread = "ERROR: Reading ca_list info from cert loc failed!! \r\n";
const char* const kPskUnread = "ERROR: Reading psk info from cert loc failed!! \r\n";
const char* const kNoCaList = "CAList: Unable to retrieve the CAList\n";
const char* const kUnsealFailed = "ssl_store_cert_read_decrypt_from_file: Certificate decryption error \n";

TEST_P(TamperedFile, EveryFlippedByteAndEveryCutIsRefusedCleanly) {
  const TamperRow& row = GetParam();
  start();
  put_all("dev", make_credentials("dev"));
  put_all("other", make_credentials("other"));
  const std::string path = kStoreRoot + row.file;
  const std::string sealed = slurp(path);
  ASSERT_GT(sealed.size(), 16u);

  // The i-th variant has byte i flipped; then come cuts and one byte more.
  std::vector<std::string> variants(sealed.size(), sealed);
  for (size_t i = 0; i < sealed.size(); ++i) {
    variants[i][i] = static_cast<char>(sealed[i] ^ 0x5a);
  }
  variants.insert(variants.end(), {"", sealed.substr(0, 1), sealed.substr(0, sealed.size() / 2),
                                   sealed.substr(0, sealed.size() - 1), sealed + "x"});

  for (size_t v = 0; v < variants.size() && !HasFailure(); ++v) {  // the first variant let through is enough
    SCOPED_TRACE(row.file + (" variant " + std::to_string(v)) + ", " + std::to_string(variants[v].size()) +
                 " bytes");
    spill(path, variants[v]);
    LogCapture log;
    EXPECT_EQ(load(row.type, "dev"), KORA_ERROR);
    EXPECT_TRUE(log.has(row.message, kError));
    // Only the empty file fails as a read; every other variant fails authentication.
    EXPECT_TRUE(variants[v].empty() || log.has(kUnsealFailed, kError));
    EXPECT_EQ(installed(row.cert_may_stay), "");
  }

  spill(path, sealed);
  expect_loads("dev");
  expect_loads("other");
}

const TamperRow kTamperRows[] = {
    {"certificate", KORA_NET_SSL_CERTIFICATE_E, "certs/dev",
     "ERROR: Reading certificate info from cert loc failed!! \r\n", false},
    {"private_key", KORA_NET_SSL_CERTIFICATE_E, "private_keys/dev",
     "ERROR: Reading private key info from cert loc failed!! \r\n", true},
    {"ca_list", KORA_NET_SSL_CA_LIST_E, "ca_lists/dev", kCaListUnread, false},
    {"psk_table", KORA_NET_SSL_PSK_TABLE_E, "psk_table/dev", kPskUnread, false},
};
INSTANTIATE_TEST_SUITE_P(Files, TamperedFile, ::testing::ValuesIn(kTamperRows), kLabel);

// --- The file system fails under the store -----------------------------------------------

TEST_F(FaultTest, FullFileSystemLeavesACutFileThatIsRefusedAndOthersIntact) {
  // A 64 KiB store: the tree, the key material and two small credentials fit; 256 KiB do not.
  ASSERT_EQ(mount_tmpfs("/data/data_velto", "size=64k"), "");
  start();
  put_all("keep", make_credentials("keep"));
  const std::string big = make_credentials("big").ca + std::string(256 * 1024, '#');

  // Short writes are not detected by the store, so the status is not the point here; what
  // the disk holds afterwards is.
  const int stored = in_child([&] { return store("big", KORA_NET_SSL_CA_LIST_E, big); });
  const int replaced = in_child([&] { return store("keep", KORA_NET_SSL_PSK_TABLE_E, big); });
  SCOPED_TRACE("child store statuses " + std::to_string(stored) + " and " + std::to_string(replaced));
  ASSERT_NE(stored, -1) << "the child did not exit";

  // The cut files fail cleanly. So does the whole CA list "keep" while the disk is full: its
  // loader needs room for a temporary copy.
  for (const auto& [type, name, message, mask] :
       {std::tuple{KORA_NET_SSL_CA_LIST_E, "big", kCaListUnread, kError},
        std::tuple{KORA_NET_SSL_PSK_TABLE_E, "keep", kPskUnread, kError},
        std::tuple{KORA_NET_SSL_CA_LIST_E, "keep", kNoCaList, kHigh}}) {
    LogCapture log;
    EXPECT_EQ(load(type, name), KORA_ERROR) << name;
    EXPECT_TRUE(log.has(message, mask)) << name;
    EXPECT_EQ(installed(), "") << name;
  }
  // The certificate the failed writes did not touch still loads, and the CA list loads again
  // once the cut file is removed.
  EXPECT_EQ(load(KORA_NET_SSL_CERTIFICATE_E, "keep"), KORA_OK);
  EXPECT_EQ(SSL_cert_store("big", KORA_NET_SSL_CA_LIST_E, nullptr, 0, false), KORA_OK);
  EXPECT_EQ(load(KORA_NET_SSL_CA_LIST_E, "keep"), KORA_OK);
}

TEST_F(FaultTest, ReadOnlyFileSystemRefusesWritesAndKeepsServingReads) {
  ASSERT_EQ(mount_tmpfs("/data/data_velto", "size=1m"), "");
  start();
  put_all("keep", make_credentials("keep"));
  ASSERT_EQ(remount_read_only("/data/data_velto"), "");
  ASSERT_NE(::access("/data/data_velto/.ssl/certs", W_OK), 0) << "the remount did not take";

  // A store fails as StorageTest.FailedWriteLeavesTheLockHeld shows; removal fails as clearly,
  // and takes nothing away.
  LogCapture log;
  EXPECT_EQ(SSL_cert_store("keep", KORA_NET_SSL_CA_LIST_E, nullptr, 0, false), KORA_ERROR);
  EXPECT_TRUE(log.has("Unable to delete the file\n", kError));
  kora_Net_SSL_Cert_List_t list{};
  EXPECT_EQ(SSL_cert_name_list(KORA_NET_SSL_CERTIFICATE_E, &list), 1);
  EXPECT_STREQ(list.name[0], "keep");
  EXPECT_EQ(load(KORA_NET_SSL_CERTIFICATE_E, "keep"), KORA_OK);
  EXPECT_EQ(load(KORA_NET_SSL_PSK_TABLE_E, "keep"), KORA_OK);
  // A CA list needs a writable temporary copy: on a read-only store it fails, cleanly.
  log.clear();
  EXPECT_EQ(load(KORA_NET_SSL_CA_LIST_E, "keep"), KORA_ERROR);
  EXPECT_TRUE(log.has("SSL_ca_list_load: storing Encrypted certificate in EFS failed!\n", kError));
  EXPECT_EQ(installed(), "");
}

// --- Key material missing or damaged between two starts ---------------------------------

struct KeyRow {
  const char* label;
  std::function<void()> damage;
  int init_status;
  const char* init_message;  // error level; "" when start-up reports nothing of its own
};

class DamagedKeyMaterial : public FaultTest, public ::testing::WithParamInterface<KeyRow> {};

TEST_P(DamagedKeyMaterial, LaterStartRefusesOldCredentialsCleanly) {
  const KeyRow& row = GetParam();
  const Credentials c = make_credentials("dev");
  // The first start runs in a child, so that this process starts afresh afterwards.
  ASSERT_EQ(in_child([&] {
              if (ssl_store_init() != KORA_OK) return 1;
              put_all("dev", c);
              return ::testing::Test::HasFailure() ? 2 : 0;
            }),
            0);
  ASSERT_TRUE(exists(kBlob) && exists(kNonce));
  row.damage();

  LogCapture log;
  EXPECT_EQ(ssl_store_init(), row.init_status);
  if (*row.init_message != '\0') {
    EXPECT_TRUE(log.has(row.init_message, kError)) << row.init_message;
  }
  expect_loads("dev", KORA_ERROR);
}

const std::string kGarbage(48, '\x17');

const KeyRow kKeyRows[] = {{"nonce_missing", [] { std::remove(kNonce.c_str()); }, KORA_ERROR,
                            "SSL_cert_store: Reading nonce from EFS failed failed!"},
                           {"blob_missing_makes_a_new_key", [] { std::remove(kBlob.c_str()); }, KORA_OK, ""},
                           {"blob_garbage", [] { spill(kBlob, kGarbage); }, KORA_OK, ""},
                           {"blob_cut", [] { spill(kBlob, slurp(kBlob).substr(0, 8)); }, KORA_OK, ""},
                           {"nonce_garbage", [] { spill(kNonce, std::string(12, '\x55')); }, KORA_OK, ""},
                           {"root_key_missing", [] { std::remove(kRootKey); }, KORA_OK, ""},
                           {"root_key_garbage", [] { spill(kRootKey, kGarbage); }, KORA_OK, ""}};
INSTANTIATE_TEST_SUITE_P(Files, DamagedKeyMaterial, ::testing::ValuesIn(kKeyRows), kLabel);

// --- Garbage where credentials belong ---------------------------------------------------

struct GarbageRow {
  const char* label;
  kora_Net_SSL_Cert_Type_t type;
  bool garbage_key;  // certificate kind: the key is the garbage, the certificate is valid
  std::string bytes;
  const char* message;
  uint32_t mask;
};

class Garbage : public FaultTest, public ::testing::WithParamInterface<GarbageRow> {};

TEST_P(Garbage, IsRefusedWithItsMessageAndNothingInstalled) {
  const GarbageRow& row = GetParam();
  start();
  const Credentials c = make_credentials("dev");
  put_all("other", c);
  ASSERT_EQ(store("dev", row.type, row.garbage_key ? c.cert : row.bytes), KORA_OK);
  if (row.type == KORA_NET_SSL_CERTIFICATE_E) {
    ASSERT_EQ(store("dev", row.type, row.garbage_key ? row.bytes : c.key, true), KORA_OK);
  }

  LogCapture log;
  EXPECT_EQ(load(row.type, "dev"), KORA_ERROR);
  EXPECT_TRUE(log.has(row.message, row.mask)) << row.message;
  EXPECT_EQ(installed(row.garbage_key), "");
  expect_loads("other");
}

const char* const kNoX509 = "Failed to get the X509 object \n";
const char* const kNoKey = "Failed to set the private key \n";
const std::string kFakeDer = std::string("\x30\x82\x01\x00", 4) + std::string(256, '\x02');

const GarbageRow kGarbageRows[] = {
    {"text_as_certificate", KORA_NET_SSL_CERTIFICATE_E, false, "hello, not a certificate\n", kNoX509, kError},
    {"der_header_as_certificate", KORA_NET_SSL_CERTIFICATE_E, false, kFakeDer, kNoX509, kError},
    {"pem_armour_without_body", KORA_NET_SSL_CERTIFICATE_E, false,
     "-----BEGIN CERTIFICATE-----\n@@@@\n-----END CERTIFICATE-----\n", kNoX509, kError},
    {"text_as_key", KORA_NET_SSL_CERTIFICATE_E, true, "not a key at all", kNoKey, kError},
    {"der_header_as_key", KORA_NET_SSL_CERTIFICATE_E, true, kFakeDer, kNoKey, kError},
    {"text_as_ca_list", KORA_NET_SSL_CA_LIST_E, false, "no certificates in here\n", kNoCaList, kHigh},
    {"binary_as_ca_list", KORA_NET_SSL_CA_LIST_E, false, kFakeDer, kNoCaList, kHigh}};
INSTANTIATE_TEST_SUITE_P(Credentials, Garbage, ::testing::ValuesIn(kGarbageRows), kLabel);

TEST_F(FaultTest, GarbagePskTextStoresNothingAndKeepsTheEarlierTable) {
  start();
  const auto parse_and_store = [](std::string text) {
    kora_Net_SSL_PSK_Table_t table{static_cast<uint32_t>(text.size()),
                                   reinterpret_cast<uint8_t*>(text.data())};
    return ssl_parse_and_store_psktable(&table, reinterpret_cast<const uint8_t*>("dev"));
  };
  ASSERT_EQ(parse_and_store("client:00112233\n"), KORA_OK);
  const std::string before = slurp(kStoreRoot + "psk_table/dev");
  for (const char* text :
       {"\x01\x02\xff\xfe binary, no separator", "id:zz00\nx:11", "|open bar without end:00", ":00ff"}) {
    EXPECT_EQ(parse_and_store(text), KORA_ERROR) << text;
    EXPECT_EQ(slurp(kStoreRoot + "psk_table/dev"), before) << text;
  }
  EXPECT_EQ(load(KORA_NET_SSL_PSK_TABLE_E, "dev"), KORA_OK);
}

}  // namespace
}  // namespace kora::test
