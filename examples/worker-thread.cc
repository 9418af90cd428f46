// SPDX-License-Identifier: Apache-2.0
//
// worker-thread-cc: reads the agent's licence. The call blocks, so the session makes it on a thread
// of its own; the answer comes to the main loop, which goes on meanwhile.
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <velmora_svcmgr_glib.hpp>

namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;

int main() {
  bool waiting = true;
  bool answered = false;
  vs::GlibLoop loop;
  vs::Session session(loop);
  const vs::Token licence = session.License(
      [&](const vs::Outcome<std::string>& text) {
        waiting = false;
        answered = text.has_value();
        if (answered)
          std::cout << *text << '\n';
        else
          std::cerr << "worker-thread-cc: " << text.error() << ". " << text.error().remedy()
                    << '\n';
      },
      3s);
  while (waiting) g_main_context_iteration(nullptr, TRUE);
  return answered && std::cout.flush() ? EXIT_SUCCESS : EXIT_FAILURE;
}
