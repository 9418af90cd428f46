// SPDX-License-Identifier: Apache-2.0
// A proxy together with the platform's own installed packages, without test doubles.
#include <gmock/gmock.h>
#include <package_desktop.h>
#include <rpc-port.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/few_descriptors.h"

namespace {

constexpr char kServer[] = "org.example.server";

class AProxyOfAnInstalledServer : public testing::Test {
 protected:
  AProxyOfAnInstalledServer() {
    std::string pattern = std::filesystem::temp_directory_path() / "rpc-port-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    home_ = pattern;
    setenv("VELMORA_RUNTIME_DIR", (home_ + "/run").c_str(), 1);
    setenv("VELMORA_PACKAGE_DIR", packages().c_str(), 1);
    setenv("VELMORA_APP_ID", "org.example.client", 1);
  }
  ~AProxyOfAnInstalledServer() override {
    std::error_code ignored;
    std::filesystem::remove_all(home_, ignored);
  }

  std::string packages() const { return home_ + "/packages"; }
  void Install(const std::string& clients) const {
    const std::string text = "[Package]\nVersion=1.0.0\n" + clients;
    EXPECT_EQ(package_desktop_install(packages().c_str(), kServer, text.c_str()), 0);
  }
  static int Connect() {
    rpc_port_proxy_h proxy = nullptr;
    EXPECT_EQ(rpc_port_proxy_create(&proxy), 0);
    const int result = rpc_port_proxy_connect(proxy, kServer, "TestPort");
    EXPECT_EQ(rpc_port_proxy_destroy(proxy), 0);
    return result;
  }

 private:
  std::string home_;
};

}  // namespace

TEST_F(AProxyOfAnInstalledServer, FailsDependingOnWhatIsInstalled) {
  EXPECT_EQ(Connect(), -22);
  Install("Clients=org.example.other\n");
  EXPECT_EQ(Connect(), -13);
  Install("Clients=org.example.c*\n");
  EXPECT_EQ(Connect(), -5);
  Install("");
  EXPECT_EQ(Connect(), -5);
  EXPECT_EQ(package_desktop_remove(packages().c_str(), kServer), 0);
  EXPECT_EQ(Connect(), -22);
}

// UndefinedBehaviorSanitizer checks pointers through a pipe of its own.
#if !defined(IS_SANITIZED)
TEST_F(AProxyOfAnInstalledServer, FailsWithAnIoErrorWithoutDescriptors) {
  Install("");
  for (int free = 0; free < 12; ++free) {
    const FewDescriptors few(free);
    EXPECT_EQ(Connect(), -5) << free;
  }
}
#endif
