// SPDX-License-Identifier: Apache-2.0
#include "alarm.h"

namespace events {

namespace {

struct AlarmSource {
  GSource base;
  void (*ring)();
};

gboolean Ring(GSource* base, GSourceFunc, gpointer) {
  reinterpret_cast<AlarmSource*>(base)->ring();
  return G_SOURCE_CONTINUE;
}

GSourceFuncs functions = {nullptr, nullptr, Ring, nullptr, nullptr, nullptr};

}  // namespace

Alarm::Alarm(gint priority, const char* name, void (*ring)())
    : source_(g_source_new(&functions, sizeof(AlarmSource))) {
  reinterpret_cast<AlarmSource*>(source_)->ring = ring;
  g_source_set_priority(source_, priority);
  g_source_set_name(source_, name);
  g_source_set_can_recurse(source_, TRUE);
  g_source_attach(source_, nullptr);
}

Alarm::~Alarm() {
  g_source_destroy(source_);
  g_source_unref(source_);
}

void Alarm::SetAfter(guint ms) {
  g_source_set_ready_time(source_, g_get_monotonic_time() + gint64{ms} * 1000);
}

void Alarm::Stop() { g_source_set_ready_time(source_, -1); }

bool Alarm::IsSet() const { return g_source_get_ready_time(source_) >= 0; }

}  // namespace events
