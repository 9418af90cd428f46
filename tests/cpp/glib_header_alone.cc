// SPDX-License-Identifier: Apache-2.0
#include <velmora_svcmgr_glib.hpp>

bool Start();

bool Start() {
  static velmora::svcmgr::GlibLoop loop;
  static velmora::svcmgr::Session session(loop);
  return session.state() == velmora::svcmgr::State::kConnecting;
}
