// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "support.h"

namespace fs = std::filesystem;

using ARuntimeFolder = PortTest;

namespace {

mode_t ModeOf(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

}  // namespace

TEST_F(ARuntimeFolder, IsMadeForItsUserAlone) {
  umask(0);
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  EXPECT_EQ(ModeOf(folder()), 0700U);
  EXPECT_EQ(ModeOf(SocketPath()), 0600U);
}

TEST_F(ARuntimeFolder, IsLeftEmptyByAStubThatEnds) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  EXPECT_FALSE(fs::is_empty(folder()));
  server.Destroy();
  EXPECT_TRUE(fs::is_empty(folder()));
}

TEST_F(ARuntimeFolder, IsLeftEmptyByAStubThatCouldNotListen) {
  mkdir(folder().c_str(), 0700);
  ASSERT_EQ(mkdir(SocketPath().c_str(), 0700), 0);
  Server server;
  EXPECT_EQ(server.Listen(), -5);
  server.Destroy();
  rmdir(SocketPath().c_str());
  EXPECT_TRUE(fs::is_empty(folder()));
}

TEST_F(ARuntimeFolder, LiesBelowTheSessionsFolderByDefault) {
  unsetenv("VELMORA_RUNTIME_DIR");
  setenv("XDG_RUNTIME_DIR", home().c_str(), 1);
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  EXPECT_TRUE(fs::is_socket(home() + "/velmora/org.example.self:TestPort"));
  Client client;
  EXPECT_TRUE(client.ConnectNow());
}

TEST_F(ARuntimeFolder, MayHaveAPathOfAnyLength) {
  std::string path = home();
  for (int i = 0; i < 5; ++i) {
    path += "/" + std::string(100, 'x');
    mkdir(path.c_str(), 0700);
  }
  setenv("VELMORA_RUNTIME_DIR", (path + "/run").c_str(), 1);
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  EXPECT_TRUE(client.ConnectNow());
}

TEST_F(ARuntimeFolder, CannotBeMadeInAMissingFolder) {
  setenv("VELMORA_RUNTIME_DIR", (home() + "/missing/run").c_str(), 1);
  EXPECT_EQ(Server().Listen(), -5);
}

TEST_F(ARuntimeFolder, IsRefusedIfItIsASymbolicLink) {
  const std::string target = home() + "/target";
  mkdir(target.c_str(), 0700);
  ASSERT_EQ(symlink(target.c_str(), folder().c_str()), 0);
  for (const std::string& path : {folder(), folder() + "/", folder() + "//"}) {
    setenv("VELMORA_RUNTIME_DIR", path.c_str(), 1);
    EXPECT_EQ(Server().Listen(), -13) << path;
    EXPECT_EQ(Client().Connect(), -13) << path;
  }
  EXPECT_TRUE(fs::is_empty(target));
}

TEST_F(ARuntimeFolder, IsRefusedIfItIsAFile) {
  std::ofstream(folder()) << "text";
  EXPECT_EQ(Server().Listen(), -13);
  EXPECT_EQ(Client().Connect(), -13);
}

TEST_F(ARuntimeFolder, IsRefusedIfOthersMayEnterIt) {
  mkdir(folder().c_str(), 0700);
  for (const mode_t mode : {0710U, 0701U, 0720U, 0702U, 0740U, 0704U, 0755U, 0777U, 01777U}) {
    chmod(folder().c_str(), mode);
    EXPECT_EQ(Server().Listen(), -13) << std::oct << mode;
    EXPECT_EQ(Client().Connect(), -13) << std::oct << mode;
  }
  EXPECT_TRUE(fs::is_empty(folder()));
}

TEST_F(ARuntimeFolder, IsRefusedIfItBelongsToAnother) {
  if (geteuid() != 0) GTEST_SKIP() << "only the superuser can give a folder away";
  mkdir(folder().c_str(), 0700);
  ASSERT_EQ(chown(folder().c_str(), 12345, 12345), 0);
  EXPECT_EQ(Server().Listen(), -13);
  EXPECT_EQ(Client().Connect(), -13);
}

TEST_F(ARuntimeFolder, HoldsNoSocketOfAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "only the superuser can give a socket away";
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  ASSERT_EQ(chown(SocketPath().c_str(), 12345, 12345), 0);
  EXPECT_EQ(Client().Connect(), -13);
}

TEST_F(ARuntimeFolder, IsKeptByItsUserWhileItIsReplaced) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  const std::string moved = home() + "/moved";
  ASSERT_EQ(rename(folder().c_str(), moved.c_str()), 0);
  mkdir(folder().c_str(), 0700);
  std::ofstream(SocketPath()) << "not ours";
  server.Destroy();
  EXPECT_TRUE(fs::is_empty(moved));
  EXPECT_TRUE(fs::exists(SocketPath()));
}

TEST_F(ARuntimeFolder, HoldsNoSymbolicLinkThatIsFollowed) {
  mkdir(folder().c_str(), 0700);
  const std::string target = home() + "/target";
  std::ofstream(target) << "kept";
  ASSERT_EQ(symlink(target.c_str(), SocketPath().c_str()), 0);
  EXPECT_EQ(Client().Connect(), -13);
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  EXPECT_TRUE(fs::is_regular_file(target));
  EXPECT_TRUE(fs::is_socket(fs::symlink_status(SocketPath())));
}

TEST_F(ARuntimeFolder, HoldsNoSymbolicLinkToALivingServer) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  const std::string moved = folder() + "/moved";
  ASSERT_EQ(rename(SocketPath().c_str(), moved.c_str()), 0);
  ASSERT_EQ(symlink(moved.c_str(), SocketPath().c_str()), 0);
  EXPECT_EQ(Client().Connect(), -13);
}

TEST_F(ARuntimeFolder, HoldsNoLockThatIsASymbolicLink) {
  mkdir(folder().c_str(), 0700);
  const std::string target = home() + "/target";
  ASSERT_EQ(symlink(target.c_str(), (SocketPath() + ".lock").c_str()), 0);
  EXPECT_EQ(Server().Listen(), -5);
  EXPECT_FALSE(fs::exists(target));
}

using ADeadServersSocket = PortTest;

TEST_F(ADeadServersSocket, IsReplaced) {
  Peer peer({"serve"});
  ASSERT_EQ(peer.Line(), "ready");
  peer.Signal(SIGKILL);
  EXPECT_EQ(peer.Wait(), -SIGKILL);
  ASSERT_TRUE(fs::exists(SocketPath()));
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  EXPECT_TRUE(client.ConnectNow());
}

using ALivingServersSocket = PortTest;

TEST_F(ALivingServersSocket, IsNotReplacedByAnotherProcess) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Peer rival({"listen"});
  EXPECT_EQ(rival.Wait(), 1);
  Client client;
  EXPECT_TRUE(client.ConnectNow());
}

TEST_F(ALivingServersSocket, IsNotReplacedWhileTheServerIsStopped) {
  Peer peer({"serve"});
  ASSERT_EQ(peer.Line(), "ready");
  peer.Signal(SIGSTOP);
  Server rival;
  EXPECT_EQ(rival.Listen(), -5);
  peer.Signal(SIGCONT);
  Client client;
  EXPECT_TRUE(client.ConnectNow());
}

TEST_F(ALivingServersSocket, IsNotReplacedByTheSameProcess) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Server rival;
  EXPECT_EQ(rival.Listen(), -5);
  rival.Destroy();
  Client client;
  ASSERT_TRUE(client.ConnectNow());
  EXPECT_TRUE(server.Saw("connected org.example.self"));
}

TEST_F(ALivingServersSocket, IsFreeOnceTheServerHasEnded) {
  for (int i = 0; i < 3; ++i) {
    Server server;
    ASSERT_EQ(server.Listen(), 0);
    Client client;
    EXPECT_TRUE(client.ConnectNow());
  }
}

TEST_F(ALivingServersSocket, ServesOneOfManyThatStartAtOnce) {
  std::vector<std::unique_ptr<Peer>> peers;
  for (int i = 0; i < 6; ++i) {
    peers.push_back(std::make_unique<Peer>(std::vector<std::string>{"serve"}));
  }
  int ready = 0;
  for (const auto& peer : peers) ready += peer->Line() == "ready" ? 1 : 0;
  EXPECT_EQ(ready, 1);
  Client client;
  EXPECT_TRUE(client.ConnectNow());
}
