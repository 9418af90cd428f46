// SPDX-License-Identifier: Apache-2.0
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <list>

#include "support.h"

using testing::ElementsAre;

namespace {

constexpr int kMain = 0;
constexpr int kCallback = 1;

class AStubAmongBadClients : public PortTest {
 protected:
  AStubAmongBadClients() { EXPECT_EQ(server.Listen(), 0); }

  // Whatever has happened, a good client is served.
  ~AStubAmongBadClients() override {
    Client good;
    EXPECT_TRUE(good.ConnectNow());
    EXPECT_EQ(RunBeside([&] { return Call(good.main(), "text"); }), "text");
  }

  void ExpectDropped(const std::string& bytes) {
    const RawStream stream;
    EXPECT_TRUE(stream.Send(bytes));
    EXPECT_TRUE(stream.AwaitEnd()) << testing::PrintToString(bytes);
    EXPECT_THAT(server.events, ElementsAre());
  }

  Server server;
};

}  // namespace

TEST_F(AStubAmongBadClients, AcceptsTwoHellosOfTheSameToken) {
  const RawStream main;
  const RawStream callback;
  EXPECT_TRUE(main.Send(HelloBytes(kMain, 'a')));
  EXPECT_TRUE(callback.Send(HelloBytes(kCallback, 'a')));
  EXPECT_EQ(main.Await(kAcceptedBytes.size()), kAcceptedBytes);
  EXPECT_THAT(server.events, ElementsAre("connected org.example.raw"));
  EXPECT_EQ(server.instance, std::string(32, 'a'));
  EXPECT_TRUE(main.Send(Framed(Text("request"))));
  EXPECT_EQ(main.Await(16), Framed(Text("request")));
  EXPECT_EQ(server.Push("push"), 0);
  EXPECT_EQ(callback.Await(13), Framed(Text("push")));
}

TEST_F(AStubAmongBadClients, AcceptsTheHellosInAnyOrder) {
  const RawStream callback;
  EXPECT_TRUE(callback.Send(HelloBytes(kCallback, 'a')));
  RunAllReady();
  const RawStream main;
  EXPECT_TRUE(main.Send(HelloBytes(kMain, 'a')));
  EXPECT_EQ(main.Await(kAcceptedBytes.size()), kAcceptedBytes);
}

TEST_F(AStubAmongBadClients, AcceptsHellosThatComeByteByByte) {
  const RawStream main;
  const RawStream callback;
  const std::string bytes[] = {HelloBytes(kMain, 'a'), HelloBytes(kCallback, 'a')};
  for (size_t i = 0; i < bytes[0].size(); ++i) {
    EXPECT_THAT(server.events, ElementsAre());
    EXPECT_TRUE(main.Send(bytes[0].substr(i, 1)));
    EXPECT_TRUE(callback.Send(bytes[1].substr(i, 1)));
    RunAllReady();
  }
  EXPECT_EQ(main.Await(kAcceptedBytes.size()), kAcceptedBytes);
}

TEST_F(AStubAmongBadClients, ServesTheRequestThatCameWithTheHello) {
  const RawStream callback;
  EXPECT_TRUE(callback.Send(HelloBytes(kCallback, 'a')));
  const RawStream main;
  EXPECT_TRUE(main.Send(HelloBytes(kMain, 'a') + Framed(Text("early"))));
  EXPECT_EQ(main.Await(kAcceptedBytes.size() + 14), kAcceptedBytes + Framed(Text("early")));
}

TEST_F(AStubAmongBadClients, ServesTheRequestThatCameBeforeThePartner) {
  const RawStream main;
  EXPECT_TRUE(main.Send(HelloBytes(kMain, 'a')));
  RunAllReady();
  EXPECT_TRUE(main.Send(Framed(Text("early"))));
  RunAllReady();
  const RawStream callback;
  EXPECT_TRUE(callback.Send(HelloBytes(kCallback, 'a')));
  EXPECT_EQ(main.Await(kAcceptedBytes.size() + 14), kAcceptedBytes + Framed(Text("early")));
}

TEST_F(AStubAmongBadClients, TellsTheRejectedOne) {
  server.Decide([] { return false; });
  const RawStream main;
  const RawStream callback;
  EXPECT_TRUE(main.Send(HelloBytes(kMain, 'a')));
  EXPECT_TRUE(callback.Send(HelloBytes(kCallback, 'a')));
  EXPECT_EQ(main.Await(kRejectedBytes.size()), kRejectedBytes);
  EXPECT_TRUE(main.AwaitEnd());
  EXPECT_TRUE(callback.AwaitEnd());
  server.Decide([] { return true; });
}

TEST_F(AStubAmongBadClients, RejectsAnotherVersionWhateverFollows) {
  for (const std::string& bytes :
       {HelloBytes(kMain, 'a', 2), HelloBytes(kMain, 'a', 0), Framed(Int32(0x4F4C4548) + Int32(2)),
        Framed(Int32(0x4F4C4548) + Int32(-1) + "new")}) {
    const RawStream main;
    EXPECT_TRUE(main.Send(bytes));
    EXPECT_EQ(main.Await(kRejectedBytes.size()), kRejectedBytes);
    EXPECT_TRUE(main.AwaitEnd());
  }
}

TEST_F(AStubAmongBadClients, DropsWhatIsNoHello) {
  ExpectDropped("GET / HTTP/1.1\r\n\r\n");
  ExpectDropped(Framed(""));
  ExpectDropped(Framed("HELO"));
  ExpectDropped(Framed(Int32(0x4F4C4549) + Int32(1)));
  ExpectDropped(Int32(-1) + std::string(100, 'x'));
  ExpectDropped(Int32(1025) + std::string(100, 'x'));
  ExpectDropped(std::string(5000, '\0'));
  ExpectDropped(std::string(5000, '\xFF'));
}

TEST_F(AStubAmongBadClients, DropsAHelloThatIsCutOffAnywhere) {
  const std::string content = HelloBytes(kMain, 'a').substr(4);
  for (size_t size = 0; size < content.size(); ++size) {
    ExpectDropped(Framed(content.substr(0, size)));
  }
}

TEST_F(AStubAmongBadClients, DropsAHelloWithImpossibleFields) {
  ExpectDropped(HelloBytes(2, 'a'));
  ExpectDropped(HelloBytes(-1, 'a'));
  ExpectDropped(HelloBytes(kMain, 'A'));
  ExpectDropped(HelloBytes(kMain, '/'));
  ExpectDropped(HelloBytes(kMain, 'a', 1, "org.example.another"));
  ExpectDropped(HelloBytes(kMain, 'a', 1, kOwnAppId, "AnotherPort"));
  ExpectDropped(HelloBytes(kMain, 'a', 1, kOwnAppId, kPortName, ""));
  ExpectDropped(HelloBytes(kMain, 'a', 1, kOwnAppId, kPortName, std::string(256, 'x')));
}

TEST_F(AStubAmongBadClients, DropsTheSecondHelloOfTheSameKind) {
  const RawStream main;
  const RawStream again;
  const RawStream callback;
  EXPECT_TRUE(main.Send(HelloBytes(kMain, 'a')));
  RunAllReady();
  EXPECT_TRUE(again.Send(HelloBytes(kMain, 'a')));
  EXPECT_TRUE(again.AwaitEnd());
  EXPECT_TRUE(callback.Send(HelloBytes(kCallback, 'a')));
  EXPECT_EQ(main.Await(kAcceptedBytes.size()), kAcceptedBytes);
}

TEST_F(AStubAmongBadClients, DropsAHelloWithTheTokenOfAConnection) {
  const RawStream main;
  const RawStream callback;
  EXPECT_TRUE(main.Send(HelloBytes(kMain, 'a')));
  EXPECT_TRUE(callback.Send(HelloBytes(kCallback, 'a')));
  EXPECT_EQ(main.Await(kAcceptedBytes.size()), kAcceptedBytes);
  const RawStream late_main;
  const RawStream late_callback;
  EXPECT_TRUE(late_main.Send(HelloBytes(kMain, 'a')));
  EXPECT_TRUE(late_callback.Send(HelloBytes(kCallback, 'a')));
  RunAllReady();
  EXPECT_TRUE(late_main.HasEnded());
  EXPECT_TRUE(late_callback.HasEnded());
  EXPECT_THAT(server.events, ElementsAre("connected org.example.raw"));
  EXPECT_TRUE(main.Send(Framed(Text("request"))));
  EXPECT_EQ(main.Await(16), Framed(Text("request")));
}

TEST_F(AStubAmongBadClients, DropsAPartnerOfAnotherSender) {
  const RawStream main;
  const RawStream callback;
  EXPECT_TRUE(main.Send(HelloBytes(kMain, 'a')));
  RunAllReady();
  EXPECT_TRUE(callback.Send(HelloBytes(kCallback, 'a', 1, kOwnAppId, kPortName, "org.thief")));
  EXPECT_TRUE(callback.AwaitEnd());
  EXPECT_THAT(server.events, ElementsAre());
}

TEST_F(AStubAmongBadClients, ForgetsAStreamThatEndsBeforeItsPartnerComes) {
  {
    const RawStream main;
    EXPECT_TRUE(main.Send(HelloBytes(kMain, 'a')));
    RunAllReady();
  }
  RunAllReady();
  const RawStream callback;
  EXPECT_TRUE(callback.Send(HelloBytes(kCallback, 'a')));
  RunAllReady();
  EXPECT_THAT(server.events, ElementsAre());
  const RawStream main;
  EXPECT_TRUE(main.Send(HelloBytes(kMain, 'a')));
  EXPECT_EQ(main.Await(kAcceptedBytes.size()), kAcceptedBytes);
}

TEST_F(AStubAmongBadClients, IsDisconnectedFromOneThatDropsEitherStream) {
  char token = 'a';
  for (const int kind : {kMain, kCallback}) {
    const RawStream main;
    const RawStream callback;
    EXPECT_TRUE(main.Send(HelloBytes(kMain, token)));
    EXPECT_TRUE(callback.Send(HelloBytes(kCallback, token)));
    EXPECT_EQ(main.Await(kAcceptedBytes.size()), kAcceptedBytes);
    server.events.clear();
    shutdown(kind == kMain ? main.fd : callback.fd, SHUT_RDWR);
    EXPECT_TRUE(RunUntil([&] { return server.Saw("disconnected org.example.raw"); }));
    EXPECT_TRUE((kind == kMain ? callback : main).AwaitEnd());
    ++token;
  }
}

TEST_F(AStubAmongBadClients, IgnoresWhatComesOnTheCallbackStream) {
  const RawStream main;
  const RawStream callback;
  EXPECT_TRUE(main.Send(HelloBytes(kMain, 'a')));
  EXPECT_TRUE(callback.Send(HelloBytes(kCallback, 'a') + "noise"));
  EXPECT_EQ(main.Await(kAcceptedBytes.size()), kAcceptedBytes);
  EXPECT_TRUE(callback.Send(Int32(-1) + "more noise"));
  EXPECT_TRUE(main.Send(Framed(Text("request"))));
  EXPECT_EQ(main.Await(16), Framed(Text("request")));
}

TEST_F(AStubAmongBadClients, ServesOthersWhileManyStayHalfOpen) {
  std::list<RawStream> half_open;
  for (int i = 0; i < 200; ++i) {
    half_open.emplace_back();
    if (i % 2 == 0) half_open.back().Send(HelloBytes(kMain, 'a').substr(0, 20));
    RunAllReady();
  }
  Client good;
  EXPECT_TRUE(good.ConnectNow());
}

TEST_F(AStubAmongBadClients, ForgetsTheOldestWhenTooManyStayHalfOpen) {
  std::list<RawStream> half_open;
  for (int i = 0; i < 300; ++i) {
    half_open.emplace_back();
    RunAllReady();
  }
  EXPECT_FALSE(half_open.back().HasEnded());
  EXPECT_TRUE(half_open.front().HasEnded());
  Client good;
  EXPECT_TRUE(good.ConnectNow());
}

TEST_F(AStubAmongBadClients, LosesPatienceWithTheHalfOpen) {
  const RawStream silent;
  const RawStream without_partner;
  EXPECT_TRUE(without_partner.Send(HelloBytes(kMain, 'a')));
  Client good;
  EXPECT_TRUE(good.ConnectNow());
  EXPECT_TRUE(silent.AwaitEnd());
  EXPECT_TRUE(without_partner.AwaitEnd());
  EXPECT_THAT(good.events, ElementsAre("connected"));
}

TEST_F(AStubAmongBadClients, AcceptsAgainOnceDescriptorsAreFree) {
  const RawStream waiting;
  accept_failure = EMFILE;
  // This returns: a stream that cannot be accepted does not keep the loop busy.
  RunAllReady();
  accept_failure = 0;
  Client good;
  EXPECT_TRUE(good.ConnectNow());
}
