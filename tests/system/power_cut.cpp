// Power cut at any moment on flash. Runs in the ARM guest (scripts/system-armhf-init.sh) as
// root, with an attached, unmounted UBI volume "ubi0:data":
//
//   kora_power_cut CUTS [SEED]
//
// A workload process stores, replaces and removes credentials of every kind (certificate with
// key, CA list, PSK table, DI certificate; two names each), flushing the volume after each call, while
// UBIFS's power-cut emulation (debugfs tst_recovery) stops the flash at a random write,
// possibly leaving that write torn. When the emulation has not fired within a few seconds,
// the volume is switched to its error state instead (debugfs ro_error), which stops every
// further write between two writes. Either way nothing reaches the flash afterwards and the
// volume is not unmounted cleanly: the workload is killed, the volume is unmounted without
// writing and mounted again, which runs UBIFS's recovery. Then a fresh process starts the
// store and checks every credential against the last one known to be on flash:
//   - the credential being written when power went: the old or the new version, or refused
//     (unreadable) with nothing loading from it;
//   - every other credential: byte for byte its last version, and it loads;
//   - the key blob and root key: unchanged or missing, never different;
//   - a refused credential can be stored again (else the store is wedged).
// Prints the outcome counts; exit status 0 when no wrong bytes were accepted, no other
// credential was lost, every start worked and nothing was wedged.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "file_bytes.h"
#include "kora_certgen.h"
#include "storage_fixture.h"
#include "subprocess.h"

namespace {

using kora::test::in_child;
using kora::test::kStoreRoot;
using kora::test::read_stored;
using kora::test::slurp;

const char* const kVolume = "ubi0:data";
const char* const kDebugfs = "/sys/kernel/debug/ubifs/";
const std::string kRootKey = "/data/km/root.key";
const std::string kKeyblob = kStoreRoot + "keyblob/takey.blob";
constexpr int kVersions = 3;
constexpr int kAbsent = -1;

struct Credential {
  std::string name;
  kora_Net_SSL_Cert_Type_t type;
  std::string dir;                               // under the store root
  std::array<std::string, kVersions> bytes;      // what is stored, per version
  std::array<std::string, kVersions> key_bytes;  // certificates only: the private key
};

// What the verifier found for one credential.
// kRefusedMisreported: refused, and putting it back worked but the store's call said it
// failed (removing a certificate whose key file the cut kept from being written deletes the
// certificate and returns -1 for the missing key).
enum Outcome : char { kSame, kOld, kNew, kRefused, kRefusedMisreported, kWrongBytes, kLost, kWedged };

std::vector<Credential> make_credentials() {
  std::vector<Credential> creds;
  const std::array<std::pair<kora_Net_SSL_Cert_Type_t, const char*>, 4> kinds = {{
      {KORA_NET_SSL_CERTIFICATE_E, "certs/"},
      {KORA_NET_SSL_CA_LIST_E, "ca_lists/"},
      {KORA_NET_SSL_PSK_TABLE_E, "psk_table/"},
      {KORA_NET_SSL_DI_CERT_E, "di_certs/"},
  }};
  for (const auto& [type, dir] : kinds) {
    for (int n = 0; n < 2; ++n) {
      Credential c{std::string(dir).substr(0, 3) + std::to_string(n), type, dir, {}, {}};
      for (int v = 0; v < kVersions; ++v) {
        if (type == KORA_NET_SSL_PSK_TABLE_E) {
          c.bytes[v] =
              kora::test::psk_table({{c.name + "-client", std::string(16 + v, static_cast<char>('a' + v))}});
          continue;
        }
        const auto pair = kora::certgen::make_self_signed(
            {{{"CN", c.name + "-v" + std::to_string(v)}}, {}, false, type == KORA_NET_SSL_CA_LIST_E});
        c.bytes[v] = pair.cert_pem();
        c.key_bytes[v] = pair.key_pem();
      }
      creds.push_back(c);
    }
  }
  return creds;
}

// A switch that cannot be set would turn the cut into a clean stop: that ends the run.
void write_debugfs(const std::string& file, const char* value) {
  std::ofstream out(kDebugfs + file);
  if (!(out << value).flush()) {
    (void)std::fprintf(stderr, "power cut: cannot write %s%s\n", kDebugfs, file.c_str());
    std::exit(1);
  }
}

// Flushes the volume; false once the flash has stopped (the error reaches syncfs even when
// the volume is not marked read-only, as with the error state).
bool flushed(int volume) {
  struct statvfs st {};
  return syncfs(volume) == 0 && fstatvfs(volume, &st) == 0 && (st.f_flag & ST_RDONLY) == 0;
}

// Stores version `v` of `c` (kAbsent: removes it). Certificates take two calls.
int store(const Credential& c, int v) {
  if (v == kAbsent) {
    return SSL_cert_store(c.name.c_str(), c.type, nullptr, 0, false);
  }
  const int rc = kora::test::store(c.name, c.type, c.bytes[v]);
  return rc != KORA_OK || c.type != KORA_NET_SSL_CERTIFICATE_E
             ? rc
             : kora::test::store(c.name, c.type, c.key_bytes[v], true);
}

// One file's state: absent, unreadable (nullopt with the file present) or its bytes.
struct FileState {
  bool present = false;
  std::optional<std::string> bytes;
};

FileState file_state(const std::string& path) {
  const bool present = access(path.c_str(), F_OK) == 0;
  return {present, present ? read_stored(path) : std::nullopt};
}

bool matches(const FileState& s, int v, const std::array<std::string, kVersions>& versions) {
  return v == kAbsent ? !s.present : (s.bytes && *s.bytes == versions[v]);
}

bool loads(const Credential& c) {
  if (c.type == KORA_NET_SSL_DI_CERT_E) {
    return read_stored(kStoreRoot + c.dir + c.name).has_value();  // read back, not put on an object
  }
  ssl_obj_hdl_t obj = 0;
  if (ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &obj) != 0) {
    return false;
  }
  const bool ok = SSL_cert_load(obj, c.type, c.name.c_str()) == KORA_OK;
  ssl_obj_free(obj);
  return ok;
}

// Classifies `c`, whose last version on flash is `committed` and which, when `in_flight`,
// was being changed to `next`.
Outcome classify(const Credential& c, int committed, bool in_flight, int next) {
  const FileState main = file_state(kStoreRoot + c.dir + c.name);
  const bool pair = c.type == KORA_NET_SSL_CERTIFICATE_E;
  const FileState key = pair ? file_state(kStoreRoot + "private_keys/" + c.name) : FileState{};
  auto whole = [&](int v) { return matches(main, v, c.bytes) && (!pair || matches(key, v, c.key_bytes)); };
  auto loads_as = [&](int v) { return v == kAbsent || loads(c); };
  if (whole(committed)) {
    return !loads_as(committed) ? (in_flight ? kRefused : kLost) : (in_flight ? kOld : kSame);
  }
  if (in_flight && whole(next)) {
    return loads_as(next) ? kNew : kRefused;
  }
  if (!in_flight) {
    return kLost;
  }
  // A torn write: any file that reads must hold bytes of the old or new version, and the
  // credential must not load (a certificate of one version with the key of another included).
  auto known = [&](const FileState& s, const std::array<std::string, kVersions>& versions) {
    return !s.bytes || (committed != kAbsent && *s.bytes == versions[committed]) ||
           (next != kAbsent && *s.bytes == versions[next]);
  };
  if (!known(main, c.bytes) || (pair && !known(key, c.key_bytes))) {
    return kWrongBytes;
  }
  return main.present && loads(c) ? kWrongBytes : kRefused;
}

struct Counts {
  int cuts = 0, torn = 0, forced = 0, idle = 0;
  std::array<int, kWedged + 1> outcome{};
  int failed_starts = 0, key_changed = 0, key_missing = 0;
};

// The workload: random changes, each followed by a sync, reported on `out` as
// "<cred> <version>\n" before the change and "done\n" once it is on flash. Only credentials
// that are there are removed: removing an absent one is refused and would end the run.
[[noreturn]] void workload(const std::vector<Credential>& creds, std::vector<int> state, int out,
                           unsigned seed) {
  const int volume = open("/data", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (volume < 0 || ssl_store_init() != KORA_OK) {
    _exit(3);
  }
  std::mt19937 rng(seed);
  for (;;) {
    const size_t c = rng() % creds.size();
    const int v = state[c] == kAbsent ? static_cast<int>(rng() % kVersions)
                                      : static_cast<int>(rng() % (kVersions + 1)) - 1;
    const std::string begin = std::to_string(c) + " " + std::to_string(v) + "\n";
    if (write(out, begin.data(), begin.size()) < 0) {
      _exit(4);
    }
    const int rc = store(creds[c], v);
    if (!flushed(volume)) {
      _exit(0);  // the cut: this change stays in doubt
    }
    if (rc != KORA_OK) {
      _exit(5);  // refused while the flash still worked
    }
    if (write(out, "done\n", 5) < 0) {
      _exit(4);
    }
    state[c] = v;
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int cuts = argc > 1 ? std::atoi(argv[1]) : 200;
  const unsigned seed = argc > 2 ? static_cast<unsigned>(std::atoi(argv[2])) : std::random_device{}();
  std::mt19937 rng(seed);
  const std::vector<Credential> creds = make_credentials();
  std::vector<int> committed(creds.size(), 0);
  setenv("KORA_KM_ROOT_KEY", kRootKey.c_str(), 1);

  if (mount(kVolume, "/data", "ubifs", 0, nullptr) != 0) {
    std::perror("mount ubi0:data");
    return 1;
  }
  // The first start provisions the key material; every credential starts at version 0.
  const int setup = in_child([&] {
    mkdir("/data/km", 0700);
    mkdir("/data/data_velto", 0755);
    if (ssl_store_init() != KORA_OK) {
      return 1;
    }
    for (const Credential& c : creds) {
      if (store(c, 0) != KORA_OK) {
        return 2;
      }
    }
    sync();
    return 0;
  });
  // Key files are never empty: "" means missing.
  const std::string keyblob = slurp(kKeyblob), root_key = slurp(kRootKey);
  if (setup != 0 || keyblob.empty() || root_key.empty()) {
    (void)std::fprintf(stderr, "power cut: the store cannot be set up (%d)\n", setup);
    return 1;
  }
  std::printf("power cut: %d cuts on UBIFS, seed %u\n", cuts, seed);

  Counts n;
  for (; n.cuts < cuts; ++n.cuts) {
    std::array<int, 2> pipe_fds{};
    if (pipe(pipe_fds.data()) != 0) {
      return 1;
    }
    (void)std::fflush(nullptr);
    const unsigned child_seed = rng();
    const pid_t pid = fork();
    if (pid == 0) {
      close(pipe_fds[0]);
      workload(creds, committed, pipe_fds[1], child_seed);
    }
    close(pipe_fds[1]);
    // Power goes at a random moment: the emulation arms now and fires at a write of its
    // choosing; the error state stops the flash if it has not fired within 1.5 s.
    std::this_thread::sleep_for(std::chrono::milliseconds(20 + rng() % 1500));
    write_debugfs("tst_recovery", "1");
    bool exited = false;
    int status = 0;
    for (int i = 0; i < 150 && !exited; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      exited = waitpid(pid, &status, WNOHANG) == pid;
    }
    if (exited && status != 0) {
      std::printf("power cut %d: the workload failed with the flash still working (%d)\n", n.cuts, status);
      ++n.failed_starts;
      break;
    }
    if (!exited) {
      write_debugfs("ubi0_0/ro_error", "1");
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
      ++n.forced;
    } else {
      ++n.torn;
    }
    write_debugfs("tst_recovery", "0");
    // Which change was in doubt: the last one begun and not reported done.
    std::string log;
    std::array<char, 4096> buf{};
    for (ssize_t got; (got = read(pipe_fds[0], buf.data(), buf.size())) > 0;) {
      log.append(buf.data(), static_cast<size_t>(got));
    }
    close(pipe_fds[0]);
    int doubt = -1, next = kAbsent;
    for (size_t at = 0, end; (end = log.find('\n', at)) != std::string::npos; at = end + 1) {
      const std::string line = log.substr(at, end - at);
      if (line == "done") {
        committed[doubt] = next;
        doubt = -1;
      } else {
        doubt = std::atoi(line.c_str());
        next = std::atoi(line.c_str() + line.find(' ') + 1);
      }
    }
    n.idle += doubt < 0 ? 1 : 0;
    // Unmounts /data without writing (the flash has stopped) and mounts it again: UBIFS recovers.
    if (umount("/data") != 0 || mount(kVolume, "/data", "ubifs", 0, nullptr) != 0) {
      std::perror("remount ubi0:data on /data");
      ++n.failed_starts;
      break;
    }
    // A fresh process starts the store, checks everything and stores a refused credential
    // again; it reports one outcome per credential on a pipe.
    if (pipe(pipe_fds.data()) != 0) {
      return 1;
    }
    const int verified = in_child([&] {
      close(pipe_fds[0]);
      if (ssl_store_init() != KORA_OK) {
        return 1;
      }
      std::string report;
      for (size_t c = 0; c < creds.size(); ++c) {
        Outcome o = classify(creds[c], committed[c], static_cast<int>(c) == doubt, next);
        if (o == kRefused) {
          const bool reported_ok = store(creds[c], committed[c]) == KORA_OK;
          o = classify(creds[c], committed[c], false, kAbsent) != kSame ? kWedged
              : reported_ok                                             ? kRefused
                                                                        : kRefusedMisreported;
        }
        report += static_cast<char>(o);
      }
      sync();
      return write(pipe_fds[1], report.data(), report.size()) == static_cast<ssize_t>(report.size()) ? 0 : 2;
    });
    close(pipe_fds[1]);
    std::string report(creds.size(), kLost);
    const ssize_t got = read(pipe_fds[0], report.data(), report.size());
    close(pipe_fds[0]);
    if (verified != 0 || got != static_cast<ssize_t>(report.size())) {
      std::printf("power cut %d: the store did not start again (%d)\n", n.cuts, verified);
      ++n.failed_starts;
      continue;
    }
    for (size_t c = 0; c < creds.size(); ++c) {
      const auto o = static_cast<Outcome>(report[c]);
      ++n.outcome[o];
      if (o == kNew) {
        committed[c] = next;
      }
      if (o == kWrongBytes || o == kLost || o == kWedged) {
        std::printf("power cut %d: %s %s (version %d, %s)\n", n.cuts, creds[c].name.c_str(),
                    o == kWrongBytes ? "accepted wrong bytes"
                    : o == kLost     ? "lost"
                                     : "cannot be stored again",
                    committed[c], static_cast<int>(c) == doubt ? "being written" : "not being written");
      }
    }
    const std::string kb = slurp(kKeyblob), rk = slurp(kRootKey);
    n.key_missing += (kb.empty() || rk.empty()) ? 1 : 0;
    n.key_changed += ((!kb.empty() && kb != keyblob) || (!rk.empty() && rk != root_key)) ? 1 : 0;
  }
  umount("/data");
  std::printf(
      "power cut: %d cuts on UBIFS (%d by the emulation at a write, %d by the error state between writes, "
      "%d with no change under way)\n"
      "power cut: changes under way: old %d, new %d, refused %d (each put back: %d wedged, %d reported as "
      "failed though done)\n"
      "power cut: wrong bytes accepted %d, other credentials lost %d, failed starts %d, key material "
      "changed %d, missing %d\n",
      n.cuts, n.torn, n.forced, n.idle, n.outcome[kOld], n.outcome[kNew],
      n.outcome[kRefused] + n.outcome[kRefusedMisreported] + n.outcome[kWedged], n.outcome[kWedged],
      n.outcome[kRefusedMisreported], n.outcome[kWrongBytes], n.outcome[kLost], n.failed_starts,
      n.key_changed, n.key_missing);
  const bool good = n.outcome[kWrongBytes] == 0 && n.outcome[kLost] == 0 && n.outcome[kWedged] == 0 &&
                    n.failed_starts == 0 && n.key_changed == 0;
  std::printf("power cut: %s\n", good ? "passed" : "FAILED");
  return good ? 0 : 1;
}
