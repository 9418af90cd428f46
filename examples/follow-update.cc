// SPDX-License-Identifier: Apache-2.0
//
// follow-update-cc [SECONDS]: has the agents updated, and follows the update to its end, also while
// the agent replaces itself. Gives up after so many seconds, 30 if not given.
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <velmora_svcmgr_glib.hpp>

namespace vs = velmora::svcmgr;

namespace {

/** One update of the agents. */
class Update {
 public:
  explicit Update(vs::Loop& loop) : loop_(loop), session_(loop) {}

  bool Run(vs::Milliseconds limit) {
    // What this subscription brings ends with its token.
    const auto statuses =
        session_.OnUpdateStatus([this](vs::UpdateStatus status) { Heard(status); });
    if (!statuses) return Complain(statuses.error());
    const vs::Token asking = session_.RequestUpdate(
        [this](vs::Outcome<void> taken) {
          if (!taken) End(Complain(taken.error()));
        },
        limit);
    const auto timer = loop_.StartTimer(limit, [this] { End(Complain(vs::Error(vs::kTimedOut))); });
    while (waiting_) g_main_context_iteration(nullptr, TRUE);
    loop_.CancelTimer(timer);
    return succeeded_;
  }

 private:
  void Heard(vs::UpdateStatus status) {
    if (status == vs::UpdateStatus::kStarted) {
      std::cout << "the update has begun\n";
    } else if (status == vs::UpdateStatus::kCompleted) {
      std::cout << "the update has ended well\n";
      End(true);
    } else {
      std::cerr << "follow-update-cc: the update has failed with the status "
                << static_cast<int>(status) << '\n';
      End(false);
    }
  }

  static bool Complain(vs::Error error) {
    std::cerr << "follow-update-cc: " << error << ". " << error.remedy() << '\n';
    return false;
  }

  void End(bool succeeded) {
    succeeded_ = succeeded;
    waiting_ = false;
  }

  vs::Loop& loop_;
  vs::Session session_;
  bool waiting_ = true;
  bool succeeded_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  const long seconds = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 30;
  vs::GlibLoop loop;
  const bool succeeded = Update(loop).Run(std::chrono::seconds(seconds));
  return succeeded && std::cout.flush() ? EXIT_SUCCESS : EXIT_FAILURE;
}
