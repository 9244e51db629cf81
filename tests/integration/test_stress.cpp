// Eight threads share the store: 10,000 stores, loads, listings and removals over a few
// names of every kind, each thread on SSL objects of its own. Every call must return one of
// the results its kind allows; afterwards every file left is either absent or a whole sealed
// credential, byte for byte one that was stored (so it loads as any stored one does). Then processes in place
// of threads: CA loads of several processes at once never cross.
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "kora_certgen.h"
#include "kora_net_ssl.h"
#include "loading_fixture.h"
#include "ssl_store.h"
#include "ssl_util.h"

namespace kora::test {
namespace {

constexpr int kThreads = 8;
constexpr int kOperations = 10000;
// Far beyond a normal run even under valgrind or qemu; reaching it means a thread is stuck.
constexpr auto kDeadline = std::chrono::seconds(540);
const std::array<std::string, 3> kNames = {"alpha", "beta", "gamma"};

// What may be stored under one name: one certificate and key pair (the two files are written
// by separate calls, so a pair of different generations must never be possible), and two
// variants of CA list and PSK table, so that a file mixing two writes shows.
struct NameContent {
  std::string cert, key;
  std::array<std::string, 2> ca, psk;
};

enum class Op { kStoreCert, kStoreCa, kStorePsk, kLoadCert, kLoadCa, kLoadPsk, kList, kRemove, kCount };

// Each thread has one SSL object (the object table holds ten). Once a PSK table is installed
// on it, every later certificate or CA list load on it must be refused with -8.
struct Worker {
  ssl_obj_hdl_t obj = 0;
  bool psk_installed = false;
  std::atomic<int> last_op{-1};
  std::vector<std::string> faults;
};

// The loading fixture starts the store (and holds one object of its own, leaving nine).
class StressTest : public LoadingTest {
 protected:
  void SetUp() override {
    LoadingTest::SetUp();
    for (size_t i = 0; i < kNames.size(); ++i) {
      const auto pair = certgen::make_self_signed({{{"CN", kNames[i]}}, {}, false, false});
      const certgen::CertSpec ca{{{"CN", kNames[i]}}, {}, false, true};
      const auto ca_a = certgen::make_self_signed(ca), ca_b = certgen::make_self_signed(ca);
      // Alternate PEM and DER so that both decoders run under contention.
      content_[i].cert = i % 2 ? bytes_of(pair.cert_der()) : pair.cert_pem();
      content_[i].key = i % 2 ? bytes_of(pair.key_der()) : pair.key_pem();
      content_[i].ca = {ca_a.cert_pem(), ca_b.cert_pem()};
      content_[i].psk = {psk_table({{"client-" + kNames[i], std::string(16, 'a')}}),
                         psk_table({{"other-" + kNames[i], std::string(32, 'b')}})};
    }
  }

  // One operation; a result outside the set its call may return is recorded as a fault.
  void run_one(Worker& w, Op op, size_t n, int variant) {
    const NameContent& c = content_[n];
    const char* name = kNames[n].c_str();
    auto expect = [&](int got, const std::vector<int>& allowed, const char* what) {
      if (std::find(allowed.begin(), allowed.end(), got) == allowed.end()) {
        w.faults.push_back(std::string(what) + " " + name + " returned " + std::to_string(got));
      }
    };
    switch (op) {
      case Op::kStoreCert:
        expect(store(name, KORA_NET_SSL_CERTIFICATE_E, c.cert), {KORA_OK}, "store cert");
        expect(store(name, KORA_NET_SSL_CERTIFICATE_E, c.key, true), {KORA_OK}, "store key");
        break;
      case Op::kStoreCa:
      case Op::kStorePsk: {
        const bool ca = op == Op::kStoreCa;
        expect(
            store(name, ca ? KORA_NET_SSL_CA_LIST_E : KORA_NET_SSL_PSK_TABLE_E, (ca ? c.ca : c.psk)[variant]),
            {KORA_OK}, "store");
        break;
      }
      case Op::kLoadCert:  // -1 while the certificate or its key is absent
      case Op::kLoadCa:
        expect(SSL_cert_load(w.obj, op == Op::kLoadCa ? KORA_NET_SSL_CA_LIST_E : KORA_NET_SSL_CERTIFICATE_E,
                             name),
               w.psk_installed ? std::vector<int>{KORA_ERR_NOT_SUPPORTED}
                               : std::vector<int>{KORA_OK, KORA_ERROR},
               "load");
        break;
      case Op::kLoadPsk: {  // a missing file leaves an installed table in place
        const int status = SSL_cert_load(w.obj, KORA_NET_SSL_PSK_TABLE_E, name);
        expect(status, {KORA_OK, KORA_ERROR}, "load PSK table");
        w.psk_installed = w.psk_installed || status == KORA_OK;
        break;
      }
      case Op::kList: {
        const auto type = static_cast<kora_Net_SSL_Cert_Type_t>(1 + variant + (n % 2) * 2);
        kora_Net_SSL_Cert_List_t list{};
        const int count = SSL_cert_name_list(type, &list);
        if (count < 0 || count > static_cast<int>(kNames.size())) {
          w.faults.push_back("list of kind " + std::to_string(type) + " returned " + std::to_string(count));
          break;
        }
        for (int i = 0; i < count; ++i) {
          if (std::find(kNames.begin(), kNames.end(), list.name[i]) == kNames.end()) {
            w.faults.push_back(std::string("list returned the unknown name '") + list.name[i] + "'");
          }
        }
        break;
      }
      case Op::kRemove: {  // -1 when the file was not there
        const auto type = static_cast<kora_Net_SSL_Cert_Type_t>(1 + (variant + static_cast<int>(n)) % 3);
        expect(SSL_cert_store(name, type, nullptr, 0, false), {KORA_OK, KORA_ERROR}, "remove");
        break;
      }
      case Op::kCount:
        break;
    }
  }

  void run_worker(Worker& w, unsigned seed, int operations) {
    std::mt19937 random(seed);
    for (int i = 0; i < operations; ++i) {
      const auto op = static_cast<Op>(random() % static_cast<unsigned>(Op::kCount));
      w.last_op = static_cast<int>(op);
      run_one(w, op, random() % kNames.size(), static_cast<int>(random() % 2));
    }
    w.last_op = -1;
  }

  std::array<NameContent, kNames.size()> content_;
};

TEST_F(StressTest, EightThreadsLeaveOnlyWholeCredentials) {
  std::array<Worker, kThreads> workers;
  for (auto& w : workers) {
    ASSERT_EQ(ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &w.obj), 0);
  }

  std::vector<std::future<void>> done;
  for (int t = 0; t < kThreads; ++t) {
    done.push_back(std::async(std::launch::async, [this, &workers, t] {
      run_worker(workers[t], 1000u + static_cast<unsigned>(t), kOperations / kThreads);
    }));
  }
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  for (int t = 0; t < kThreads; ++t) {
    if (done[t].wait_until(deadline) != std::future_status::ready) {
      // A stuck thread cannot be joined: report every thread's last operation (-1: finished) and leave.
      for (int u = 0; u < kThreads; ++u) {
        std::fprintf(stderr, "thread %d: last operation %d\n", u, workers[u].last_op.load());
      }
      std::fprintf(stderr, "stress run did not finish within %lld s: a store call is stuck\n",
                   static_cast<long long>(kDeadline.count()));
      std::_Exit(1);
    }
  }
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_TRUE(workers[t].faults.empty()) << "thread " << t << ": " << workers[t].faults.size()
                                           << " unexpected results, first: " << workers[t].faults.front();
  }

  // Every file left is whole and byte for byte one of the credentials stored under its name
  // (absent is a valid outcome); there is no stray name and no temporary file.
  for (const char* kind : {"certs/", "private_keys/", "ca_lists/", "psk_table/", "di_certs/"}) {
    std::error_code ec;
    for (const auto& file : std::filesystem::directory_iterator(kStoreRoot + kind, ec)) {
      const std::string name = file.path().filename();
      const size_t n = std::find(kNames.begin(), kNames.end(), name) - kNames.begin();
      ASSERT_LT(n, kNames.size()) << "stray file " << kind << name;
      const NameContent& c = content_[n];
      const std::map<std::string, std::vector<std::string>> allowed = {{"certs/", {c.cert}},
                                                                       {"private_keys/", {c.key}},
                                                                       {"ca_lists/", {c.ca[0], c.ca[1]}},
                                                                       {"psk_table/", {c.psk[0], c.psk[1]}},
                                                                       {"di_certs/", {}}};
      const auto plain = read_stored(file.path());
      ASSERT_TRUE(plain) << kind << name << " is not a sealed credential";
      const auto& variants = allowed.at(kind);
      EXPECT_NE(std::find(variants.begin(), variants.end(), *plain), variants.end())
          << kind << name << " holds " << plain->size() << " bytes that were never stored under that name";
    }
  }
  EXPECT_FALSE(std::filesystem::exists(kStoreRoot + "temp"))
      << "the CA list's temporary file was left behind";
}

// Processes, not threads: every CA load on the host goes through one plain scratch file.
// Half the processes load the CA that issued a leaf, half another CA, and each verifies the
// leaf against what it loaded. Trusting the leaf after loading the other CA, or not trusting
// it after loading the right one, means two processes' loads crossed.
TEST_F(StressTest, ProcessesLoadingDifferentCaListsNeverTrustTheOtherOne) {
  constexpr int kProcesses = 8;
  constexpr int kLoads = 25;
  certgen::CertSpec ca;
  ca.is_ca = true;
  const auto right = certgen::make_self_signed(ca), wrong = certgen::make_self_signed(ca);
  const auto leaf = certgen::make_signed({}, right);
  put("right", KORA_NET_SSL_CA_LIST_E, right.cert_pem());
  put("wrong", KORA_NET_SSL_CA_LIST_E, wrong.cert_pem());

  std::vector<pid_t> pids;  // each exits with its wrong trusts, plus 32 times its failures
  for (int p = 0; p < kProcesses; ++p) {
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      const bool issuer = p % 2 == 0;
      int mistrusts = 0, failed = 0;
      for (int i = 0; i < kLoads; ++i) {
        ssl_obj_hdl_t obj = 0;
        bool loaded = ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &obj) == 0 &&
                      SSL_cert_load(obj, KORA_NET_SSL_CA_LIST_E, issuer ? "right" : "wrong") == KORA_OK;
        const std::unique_ptr<X509_STORE_CTX, Free<&X509_STORE_CTX_free>> check(X509_STORE_CTX_new());
        const bool trusted =
            loaded &&
            X509_STORE_CTX_init(check.get(), SSL_CTX_get_cert_store(ssl_get_obj_context(obj)),
                                leaf.cert.get(), nullptr) == 1 &&
            X509_verify_cert(check.get()) == 1;
        mistrusts += !issuer && trusted ? 1 : 0;
        failed += !loaded || (issuer && !trusted) ? 1 : 0;
        ssl_obj_free(obj);
      }
      _exit(std::min(mistrusts, 31) + 32 * std::min(failed, 7));
    }
    pids.push_back(pid);
  }
  int wrong_trusts = 0, failures = 0;
  for (const pid_t pid : pids) {
    int status = 0;
    const bool exited = ::waitpid(pid, &status, 0) == pid && WIFEXITED(status);
    wrong_trusts += exited ? WEXITSTATUS(status) % 32 : 0;
    failures += exited ? WEXITSTATUS(status) / 32 : kLoads;  // a process that did not exit failed every load
  }
  EXPECT_EQ(wrong_trusts, 0) << "a process trusted a leaf the CA it loaded never issued";
  EXPECT_EQ(failures, 0) << "a CA load failed or lost its CA to another process's";
}

}  // namespace
}  // namespace kora::test
