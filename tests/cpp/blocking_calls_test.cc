// SPDX-License-Identifier: Apache-2.0
// A call that blocks on the session's thread, and what the main loop does meanwhile.
#include <signal.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "face_support.h"

namespace {

using face::AConnectedSession;
using face::Gate;
using face::Word;
namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;

class ABlockingCall : public AConnectedSession {
 protected:
  /** A call waits for the agent's reply. */
  vs::Token Block(vs::Milliseconds limit = vs::kNoLimit) {
    fake::OnSend([inside = inside, reply = reply](const fake::Sent&) {
      fake::OnSend(nullptr);
      inside->Open();
      reply->Pass();
      fake::QueueReply({11});
    });
    vs::Token token = session->AgentApiLevel(
        [this](const vs::Outcome<int>& level) { words.push_back(Word(level)); }, limit);
    inside->Pass();
    return token;
  }

  /** Waits until the call has returned: the calls are made one after the other. */
  void Join() {
    bool joined = false;
    const vs::Token token = session->RunBlocking<int>(
        []() -> vs::Outcome<int> { return 1; }, [&](const vs::Outcome<int>&) { joined = true; });
    while (!joined) loop.Await();
  }

  const std::shared_ptr<Gate> inside = std::make_shared<Gate>();
  const std::shared_ptr<Gate> reply = std::make_shared<Gate>();
  std::vector<std::string> words;
};

TEST_F(ABlockingCall, DoesNotStopTheMainLoopInItsNextRequest) {
  const vs::Token blocked = Block();
  Gate returned;
  bool in_time = false;
  // The agent replies when the request has returned, or, so that this ends, after a while.
  std::thread agent([&] {
    in_time = returned.PassWithin(5s);
    reply->Open();
  });
  const vs::Token token = Ask(1s);
  returned.Open();
  agent.join();
  EXPECT_TRUE(in_time) << "functions that make a request return at once";
  while (words.empty()) loop.Await();
}

TEST_F(ABlockingCall, KeepsTheConnectionUntilItHasReturned) {
  const vs::Token blocked = Block();
  session->Disconnect();
  const int during = fake::LiveObjects(fake::Kind::kProxy);
  reply->Open();
  Join();
  EXPECT_EQ(during, 1) << "no call may be under way when the connection is ended";
}

TEST_F(ABlockingCall, EndsWhereTheLoopDoesNotTakeItsAnswer) {
  std::string word;
  const vs::Token token = session->RunBlocking<int>(
      [this]() -> vs::Outcome<int> {
        loop.refuses = true;
        return 1;
      },
      [&](const vs::Outcome<int>& one) { word = Word(one); });
  while (loop.refused == 0) std::this_thread::yield();
  loop.refuses = false;
  loop.Pass(1h);
  EXPECT_NE(word, "") << "still pending: " << token.pending();
}

TEST_F(ABlockingCall, RunsWhereNoSignalOfTheApplicationComes) {
  std::atomic<int> blocked{-1};
  const vs::Token token = session->RunBlocking(
      [&]() -> vs::Outcome<int> {
        sigset_t set;
        pthread_sigmask(SIG_SETMASK, nullptr, &set);
        blocked = sigismember(&set, SIGTERM);
        return 1;
      },
      [this](const vs::Outcome<int>& one) { words.push_back(Word(one)); });
  while (words.empty()) loop.Await();
  EXPECT_EQ(blocked, 1);
}

}  // namespace
