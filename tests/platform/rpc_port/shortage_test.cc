// SPDX-License-Identifier: Apache-2.0
// A client whose memory or descriptors run out for a while. A program of its own, because it
// replaces the allocators.
#include <glib.h>

#include <cstring>
#include <memory>

#include "failing_allocations.h"
#include "support.h"
#include "support/few_descriptors.h"

using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;

namespace {

// More allocations than there are.
constexpr int kMost = 500;

// Runs `work` with the first, second, third ... allocation failing, until none is left to fail;
// `judge` runs after it, when all succeed again. Returns how many failed.
int ForEachFailure(const std::function<void()>& work, const std::function<void()>& judge) {
  for (int n = 1; n < kMost; ++n) {
    SCOPED_TRACE("allocation " + std::to_string(n));
    int failed;
    {
      const auto failing = FailingAllocations::Nth(n);
      work();
      failed = failing.count();
    }
    judge();
    if (failed == 0 || testing::Test::HasFailure()) return n - 1;
  }
  ADD_FAILURE() << "the allocations do not end";
  return kMost;
}

class AClientInNeed : public PortTest {
 protected:
  // What a peer serves; see peer.cc.
  void Serve(const std::vector<std::string>& arguments) {
    server = std::make_unique<Peer>(arguments);
    ASSERT_EQ(server->Line(), "ready");
  }
  void ExpectServed() { EXPECT_EQ(Call(client->main(), "next"), "next"); }

  // Takes a received message only if there is memory for it.
  void TakeIfPossible() {
    client->on_received = [this] {
      rpc_port_parcel_h parcel = nullptr;
      const int result = rpc_port_parcel_create_from_port(&parcel, client->callback());
      if (result != 0) {
        EXPECT_EQ(result, -12);
        return;
      }
      const void* bytes = nullptr;
      EXPECT_EQ(rpc_port_desktop_parcel_get_bytes(parcel, &bytes, &size), 0);
      rpc_port_parcel_destroy(parcel);
      ++taken;
    };
  }

  std::unique_ptr<Peer> server;
  std::unique_ptr<Client> client = std::make_unique<Client>();
  int taken = 0;
  size_t size = 0;
};

using AClientShortOfMemory = AClientInNeed;
using AClientShortOfDescriptors = AClientInNeed;

}  // namespace

TEST_F(AClientShortOfDescriptors, FailsToConnectWithAnIoErrorOrConnects) {
  Serve({"serve"});
  int result = -1;
  for (int free = 0; result != 0; ++free) {
    SCOPED_TRACE(free);
    {
      const FewDescriptors few(free);
      result = client->Connect();
    }
    EXPECT_THAT(result, AnyOf(0, -5));
    ASSERT_LT(free, 20);
  }
  EXPECT_TRUE(RunUntil([&] { return !client->events.empty(); }));
  ExpectServed();
}

TEST_F(AClientShortOfMemory, HasAProxyWithItsEventsOrNone) {
  const auto ignore = [](const char*, const char*, void*) {};
  const auto ignore_port = [](const char*, const char*, rpc_port_h, void*) {};
  rpc_port_proxy_h proxy = nullptr;
  int created = 0;
  const int failures = ForEachFailure(
      [&] {
        proxy = nullptr;
        created = rpc_port_proxy_create(&proxy);
        if (created != 0) return;
        EXPECT_EQ(rpc_port_proxy_add_connected_event_cb(proxy, ignore_port, nullptr), 0);
        EXPECT_EQ(rpc_port_proxy_add_disconnected_event_cb(proxy, ignore, nullptr), 0);
        EXPECT_EQ(rpc_port_proxy_add_rejected_event_cb(proxy, ignore, nullptr), 0);
        EXPECT_EQ(rpc_port_proxy_add_received_event_cb(proxy, ignore, nullptr), 0);
      },
      [&] {
        EXPECT_THAT(created, AnyOf(0, -12));
        EXPECT_EQ(created == 0, proxy != nullptr);
        if (proxy != nullptr) {
          EXPECT_EQ(rpc_port_proxy_destroy(proxy), 0);
        }
      });
  EXPECT_GT(failures, 3);
}

TEST_F(AClientShortOfMemory, FailsToConnectWithAnIoErrorOrConnects) {
  Serve({"serve"});
  int result = 0;
  const int failures = ForEachFailure(
      [&] {
        result = client->Connect();
        if (result == 0) {
          EXPECT_TRUE(RunUntil([&] { return !client->events.empty(); }));
        }
      },
      [&] {
        EXPECT_THAT(result, AnyOf(0, -5));
        // A failure leaves the proxy as it was.
        if (result != 0) {
          EXPECT_TRUE(client->ConnectNow());
        }
        EXPECT_THAT(client->events, ElementsAre("connected"));
        ExpectServed();
        client = std::make_unique<Client>();
      });
  EXPECT_GT(failures, 10);
}

TEST_F(AClientShortOfMemory, IsDestroyedWithoutAny) {
  Serve({"serve"});
  int result = -1;
  for (int n = 1; result != 0; ++n) {
    SCOPED_TRACE("from allocation " + std::to_string(n));
    client = std::make_unique<Client>();
    const auto failing = FailingAllocations::From(n);
    result = client->Connect();
    EXPECT_THAT(result, AnyOf(0, -5));
    EXPECT_EQ(client->Destroy(), 0);
    ASSERT_LT(n, kMost);
  }
}

class AClientShortOfMemoryForPushes : public AClientInNeed,
                                      public testing::WithParamInterface<size_t> {};
INSTANTIATE_TEST_SUITE_P(OfSize, AClientShortOfMemoryForPushes,
                         testing::Values(4, 300, 5000, 100000));

TEST_P(AClientShortOfMemoryForPushes, GetsAllOfThem) {
  Serve({"serve-pushing", std::to_string(GetParam())});
  int result = 0;
  const int failures = ForEachFailure(
      [&] {
        TakeIfPossible();
        taken = 0;
        result = client->Connect();
        if (result == 0) {
          EXPECT_TRUE(RunUntil([&] { return taken == 20; }));
        }
      },
      [&] {
        EXPECT_THAT(client->events, Each("connected"));
        if (result == 0) {
          EXPECT_EQ(size, GetParam() + 5);
        }
        RunAllReady();
        EXPECT_EQ(taken, result == 0 ? 20 : 0);
        client = std::make_unique<Client>();
      });
  EXPECT_GT(failures, 20);
}

TEST_P(AClientShortOfMemoryForPushes, LooksAgainNowAndThenOnly) {
  Serve({"serve-pushing", std::to_string(GetParam())});
  ASSERT_TRUE(client->ConnectNow());
  client->events.clear();
  TakeIfPossible();
  taken = 0;
  {
    // Allocations fail whether the messages wait in the kernel or here.
    const auto failing = FailingAllocations::AtLeast(GetParam() > 4000 ? 1000 : 200);
    const gint64 begin = g_get_monotonic_time();
    EXPECT_TRUE(RunUntil([&] { return failing.count() >= 4; }));
    EXPECT_GE(g_get_monotonic_time() - begin, 3 * G_USEC_PER_SEC / 20);
  }
  EXPECT_TRUE(
      RunUntil([&] { return static_cast<std::size_t>(taken) + client->events.size() >= 20; }));
  EXPECT_EQ(taken, 20);
}

TEST_P(AClientShortOfMemoryForPushes, GetsThemBeforeTheEndOfTheServer) {
  Serve({"serve-pushing", std::to_string(GetParam())});
  TakeIfPossible();
  // The end must not be what makes the client look again.
  bool short_of_memory = true;
  client->on_disconnected = [&] { EXPECT_FALSE(short_of_memory); };
  ASSERT_TRUE(client->ConnectNow());
  {
    const auto failing = FailingAllocations::AtLeast(200);
    EXPECT_TRUE(RunUntil([&] { return failing.count() >= 1; }));
    EXPECT_EQ(server->Line(), "pushed");
    server->Signal(SIGKILL);
    server->Wait();
    const int failures = failing.count();
    EXPECT_TRUE(RunUntil([&] { return failing.count() >= failures + 2; }));
    EXPECT_EQ(taken, 0);
  }
  short_of_memory = false;
  EXPECT_TRUE(RunUntil([&] { return client->Saw("disconnected"); }));
  // The kernel holds 20 small ones, and a few of the largest.
  EXPECT_GE(taken, GetParam() <= 5000 ? 20 : 1);
  EXPECT_THAT(client->events, ElementsAre("connected", "disconnected"));
}

class AClientShortOfMemoryForAReply : public AClientInNeed,
                                      public testing::WithParamInterface<size_t> {};
INSTANTIATE_TEST_SUITE_P(OfSize, AClientShortOfMemoryForAReply,
                         testing::Values(4, 300, 5000, 100000, (16 << 20) - 100));

TEST_P(AClientShortOfMemoryForAReply, SkipsItAndGoesOn) {
  Serve({"serve"});
  ASSERT_TRUE(client->ConnectNow());
  const Message request(std::string(GetParam(), 'x'));
  rpc_port_parcel_h reply = nullptr;
  int result = 0;
  for (int n = 1, failed = 1; failed > 0; ++n) {
    SCOPED_TRACE(n);
    // Beyond the first round the buffer may be left from the round before.
    ASSERT_LT(n, kMost);
    ASSERT_EQ(request.Send(client->main()), 0);
    {
      const auto failing = FailingAllocations::Nth(n);
      result = rpc_port_parcel_create_from_port(&reply, client->main());
      failed = failing.count();
    }
    EXPECT_EQ(result, failed > 0 ? -12 : 0);
    if (result == 0) rpc_port_parcel_destroy(reply);
    ExpectServed();
    if (HasFailure()) return;
  }
  RunAllReady();
  EXPECT_THAT(client->events, ElementsAre("connected"));
}

TEST_P(AClientShortOfMemoryForAReply, SkipsAllThatComeMeanwhile) {
  Serve({"serve"});
  ASSERT_TRUE(client->ConnectNow());
  const Message request(std::string(GetParam(), 'x'));
  {
    const auto failing = FailingAllocations::AtLeast(200);
    for (int i = 0; i < 3; ++i) {
      ASSERT_EQ(request.Send(client->main()), 0);
      rpc_port_parcel_h reply = nullptr;
      EXPECT_EQ(rpc_port_parcel_create_from_port(&reply, client->main()), -12);
    }
    EXPECT_GE(failing.count(), 3);
  }
  ExpectServed();
  RunAllReady();
  EXPECT_THAT(client->events, ElementsAre("connected"));
}

TEST_F(AClientShortOfMemory, HearsOfTheEndWhileItSkipsAReply) {
  Serve({"serve-half"});
  ASSERT_TRUE(client->ConnectNow());
  ASSERT_EQ(Message("text").Send(client->main()), 0);
  {
    const auto failing = FailingAllocations::AtLeast(1);
    rpc_port_parcel_h reply = nullptr;
    EXPECT_EQ(rpc_port_parcel_create_from_port(&reply, client->main()), -5);
  }
  EXPECT_TRUE(RunUntil([&] { return client->Saw("disconnected"); }));
}
