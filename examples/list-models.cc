// SPDX-License-Identifier: Apache-2.0
//
// list-models-cc: lists the models that this application may use, with their versions and
// descriptions.
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <velmora_svcmgr_glib.hpp>

namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;

namespace {

bool Print(const vs::Outcome<vs::ModelList>& models) {
  if (!models) {
    const vs::Error error = models.error();
    std::cerr << "list-models-cc: " << error << ". " << error.remedy() << '\n';
    return false;
  }
  for (const vs::Model& model : *models)
    std::cout << model.id() << ' ' << model.version() << ": " << model.description() << '\n';
  return true;
}

}  // namespace

int main() {
  bool waiting = true;
  bool listed = false;
  vs::GlibLoop loop;
  vs::Session session(loop);
  // Asked before the connection stands, the request waits for it.
  const vs::Token listing = session.ModelsWithDescriptions(
      [&](const vs::Outcome<vs::ModelList>& models) {
        listed = Print(models);
        waiting = false;
      },
      10s);
  while (waiting) g_main_context_iteration(nullptr, TRUE);
  return listed && std::cout.flush() ? EXIT_SUCCESS : EXIT_FAILURE;
}
