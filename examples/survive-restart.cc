// SPDX-License-Identifier: Apache-2.0
//
// survive-restart-cc: asks for the models again and again, until SIGTERM or SIGINT, whatever becomes
// of the agent in between. Where only a new process helps, it ends with 75.
#include <glib-unix.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <velmora_svcmgr_glib.hpp>

namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;

namespace {

/** What supervisors take for "try again" (EX_TEMPFAIL of sysexits.h). */
constexpr int kStartMeAnew = 75;

class Client {
 public:
  Client() : session_(loop_, Waiting()) {
    session_.OnState([this](vs::State state) { Changed(state); });
    Ask();
  }

  /** Returns the exit status. */
  int Run() {
    g_unix_signal_add(SIGTERM, OnSignal, this);
    g_unix_signal_add(SIGINT, OnSignal, this);
    while (running_) g_main_context_iteration(nullptr, TRUE);
    return status_;
  }

 private:
  /** Queries wait through any loss. */
  static vs::Options Waiting() {
    vs::Options options;
    options.resend = vs::Resend::kAfterAnyLoss;
    return options;
  }

  void Ask() {
    query_ = session_.Models(
        [this](const vs::Outcome<vs::ModelList>& models) {
          if (models)
            std::cout << models->size() << " models" << '\n' << std::flush;
          else
            std::cout << models.error() << '\n' << std::flush;
          loop_.StartTimer(500ms, [this] { Ask(); });
        },
        70s);
  }

  void Changed(vs::State state) {
    std::cout << vs::NameOf(state) << '\n' << std::flush;
    if (state == vs::State::kRejected) End(kStartMeAnew);
    if (state != vs::State::kFailed) return;
    const int code = session_.error() ? session_.error()->code() : 0;
    if (code == SVCMGR_ERROR_NOT_SUPPORTED || code == SVCMGR_ERROR_PERMISSION_DENIED)
      End(EXIT_FAILURE);
    else
      loop_.StartTimer(1s, [this] { static_cast<void>(session_.Connect()); });
  }

  void End(int status) {
    status_ = status;
    running_ = false;
  }

  static gboolean OnSignal(void* client) {
    static_cast<Client*>(client)->End(EXIT_SUCCESS);
    return G_SOURCE_CONTINUE;
  }

  vs::GlibLoop loop_;
  vs::Session session_;
  vs::Token query_;
  bool running_ = true;
  int status_ = EXIT_SUCCESS;
};

}  // namespace

int main() { return Client().Run(); }
