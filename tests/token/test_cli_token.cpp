// kora-ssl-store on a root key in a private SoftHSM2 token: init makes and names the token
// key, later processes open what earlier ones sealed, and the demo passes.
#include <gtest/gtest.h>

#include <filesystem>

#include "cli_tool.h"
#include "kora_certgen.h"
#include "softhsm_token.h"

namespace kora::test {
namespace {

TEST(CliToken, InitNamesTheTokenKeyAndEveryProcessOpensWhatWasSealed) {
  ASSERT_EQ(make_softhsm_token("/data/hsm"), "");
  ::setenv("KORA_KM_PKCS11_URI", token_uri().c_str(), 1);
  ::setenv("KORA_KM_ROOT_KEY", "/data/km/root.key", 1);
  spill("/data/ca.pem", certgen::make_self_signed({{{"CN", "token-ca"}}, {}, false, true}).cert_pem());
  const struct {
    const char* command;
    const char* says[2];
  } steps[] = {{"init", {"pkcs11 backend, root key pkcs11:token=kora;object=kora-root", "root key made"}},
               {"put ca roots /data/ca.pem", {"", ""}},
               {"init", {"existing key material loaded", "key material works"}},
               {"demo", {"demo passed", ""}},
               {"rm ca roots", {"", ""}}};
  for (const auto& step : steps) {
    const Result r = cli(step.command);
    const std::string out = std::string(step.command) + ": " + r.out + r.err;
    EXPECT_EQ(r.code, 0) << out;
    for (const char* says : step.says) {
      EXPECT_NE(out.find(says), std::string::npos) << out;
    }
    EXPECT_EQ(out.find(kTokenPin), std::string::npos) << "the PIN was printed: " << out;
  }
  EXPECT_FALSE(std::filesystem::exists("/data/km/root.key")) << "the file backend was used";
}

}  // namespace
}  // namespace kora::test
