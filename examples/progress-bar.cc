// SPDX-License-Identifier: Apache-2.0
//
// progress-bar-cc [--again] ID[@VERSION]...: has models updated, and shows how far the work has come
// until its end is known. With --again it asks again for what the agent's restart has swallowed.
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>
#include <velmora_svcmgr_glib.hpp>

namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;

namespace {

/** A bar on a terminal, a line for each tenth elsewhere. */
class Bar {
 public:
  /** @param percent  Never less than before. */
  void Show(int percent) {
    if (percent == shown_) return;
    if (isatty(STDOUT_FILENO) == 1) {
      const auto full = static_cast<std::size_t>(percent / 2);
      std::cout << '\r' << std::string(full, '#') << std::string(50 - full, '.') << ' ' << percent
                << " %" << (percent == 100 ? "\n" : "") << std::flush;
    } else if (percent / 10 != shown_ / 10) {
      std::cout << percent << " %" << '\n' << std::flush;
    }
    shown_ = percent;
  }

 private:
  int shown_ = 0;
};

vs::ModelName NameOf(const std::string& argument) {
  const std::size_t at = argument.rfind('@');
  if (at == std::string::npos) return {argument};
  return {argument.substr(0, at), argument.substr(at + 1)};
}

bool Update(std::vector<vs::ModelName> models, vs::Resend resend) {
  bool waiting = true;
  bool updated = false;
  Bar bar;
  vs::GlibLoop loop;
  vs::Session session(loop);
  vs::WorkOptions options;
  options.silence_limit = 30s;
  options.resend = resend;
  const vs::ModelWork work = session.Update(
      std::move(models), [&](const vs::Progress& progress) { bar.Show(progress.total); },
      [&](vs::Outcome<void> end) {
        waiting = false;
        updated = end.has_value();
        if (updated) return bar.Show(100);
        std::cerr << "progress-bar-cc: " << end.error() << ". " << end.error().remedy() << '\n';
      },
      std::move(options));
  while (waiting) g_main_context_iteration(nullptr, TRUE);
  return updated;
}

}  // namespace

int main(int argc, char** argv) {
  const bool again = argc > 1 && std::string_view(argv[1]) == "--again";
  const int first = again ? 2 : 1;
  if (argc <= first) {
    std::cerr << "usage: progress-bar-cc [--again] ID[@VERSION]...\n";
    return 2;
  }
  std::vector<vs::ModelName> models;
  for (int i = first; i < argc; ++i) models.push_back(NameOf(argv[i]));
  const auto resend = again ? vs::Resend::kAfterAnyLoss : vs::Resend::kNever;
  return Update(std::move(models), resend) && std::cout.flush() ? EXIT_SUCCESS : EXIT_FAILURE;
}
