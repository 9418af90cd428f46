// SPDX-License-Identifier: Apache-2.0
#ifndef VELMORA_SVCMGR_GLIB_HPP
#define VELMORA_SVCMGR_GLIB_HPP

/**
 * @file
 * The main loop of GLib for velmora_svcmgr.hpp. Compile and link with glib-2.0.
 */

#include <glib.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

#include "velmora_svcmgr.hpp"

namespace velmora::svcmgr {

/**
 * Runs tasks and timers in the default main context of GLib, where the C interface runs its callbacks,
 * too. The application runs that context: by g_main_loop_run, by g_application_run, or by
 * g_main_context_iteration. What is pending when this object is destroyed still runs.
 */
class GlibLoop final : public Loop {
 public:
  bool Post(Task task) noexcept override {
    return Attach(g_idle_source_new(), G_PRIORITY_DEFAULT, std::move(task)) != 0;
  }

  bool PostLast(Task task) noexcept override {
    return Attach(g_idle_source_new(), G_PRIORITY_DEFAULT_IDLE, std::move(task)) != 0;
  }

  TimerId StartTimer(Milliseconds delay, Task task) noexcept override {
    // What a source takes as an interval ends at 49 days.
    GSource* const source = g_timeout_source_new(G_MAXUINT);
    const gint64 now = g_get_monotonic_time();
    const auto limited = std::clamp<Milliseconds::rep>(delay.count(), 0, (G_MAXINT64 - now) / 1000);
    g_source_set_ready_time(source, now + limited * 1000);
    return Attach(source, G_PRIORITY_DEFAULT, std::move(task));
  }

  void CancelTimer(TimerId timer) noexcept override {
    GSource* const source = g_main_context_find_source_by_id(nullptr, static_cast<guint>(timer));
    if (source != nullptr) g_source_destroy(source);
  }

 private:
  static guint Attach(GSource* source, gint priority, Task task) noexcept {
    auto* const kept = new (std::nothrow) Task(std::move(task));
    guint id = 0;
    if (kept != nullptr) {
      g_source_set_priority(source, priority);
      g_source_set_callback(source, Run, kept, Delete);
      id = g_source_attach(source, nullptr);
    }
    g_source_unref(source);
    return id;
  }

  static gboolean Run(gpointer task) {
    // Moved out: what it holds is freed when it has run, although it may run the main context itself.
    Task once = std::move(*static_cast<Task*>(task));
    once();
    return G_SOURCE_REMOVE;
  }

  static void Delete(gpointer task) { delete static_cast<Task*>(task); }
};

}  // namespace velmora::svcmgr

#endif  // VELMORA_SVCMGR_GLIB_HPP
