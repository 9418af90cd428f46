// SPDX-License-Identifier: Apache-2.0
#include "service/events.h"

#include <app_event.h>
#include <app_event_desktop.h>
#include <bundle.h>
#include <dlog.h>

#include <cerrno>
#include <stdexcept>

#include "common/marks.h"
#include "common/platform_error.h"
#include "owned.h"
#include "service/log_tag.h"
#include "trace/trace.h"

namespace sim {
namespace {

constexpr char kSquatted[] =
    "another process owns the agent's name on the session bus: clients would take its events for "
    "the agent's, and drop the agent's own";

using Bundle = base::Owned<bundle, bundle_free>;

void AddList(bundle* data, const char* key, const std::vector<std::string>& texts) {
  std::vector<const char*> pointers;
  pointers.reserve(texts.size());
  for (const std::string& text : texts) pointers.push_back(text.c_str());
  Check(bundle_add_str_array(data, key, pointers.data(), static_cast<int>(pointers.size())),
        "cannot add a list to an event");
}

Bundle BundleOf(const Broadcast& broadcast) {
  Bundle data(bundle_create());
  for (const auto& [key, text] : broadcast.texts) {
    Check(bundle_add_str(data.get(), key.c_str(), text.c_str()), "cannot add a text to an event");
  }
  for (const auto& [key, texts] : broadcast.lists) AddList(data.get(), key.c_str(), texts);
  for (const auto& [key, number] : broadcast.numbers) {
    Check(bundle_add_byte(data.get(), key.c_str(), &number, sizeof number),
          "cannot add a number to an event");
  }
  return data;
}

/** What an event carries, by its keys, whatever the kinds of their values. */
Fields FieldsOf(const Broadcast& broadcast) {
  Fields data = Fields::object();
  for (const auto& [key, text] : broadcast.texts) data[key] = text;
  for (const auto& [key, texts] : broadcast.lists) data[key] = texts;
  for (const auto& [key, number] : broadcast.numbers) data[key] = number;
  return data;
}

}  // namespace

void OwnName(const std::string& id) {
  const int result = event_desktop_own_package(id.c_str());
  if (result == -EACCES) throw std::runtime_error(id + ": " + kSquatted);
  if (result != 0) {
    dlog_print(DLOG_WARN, kLogTag, "%s is not on the session bus (%d): its events may be lost",
               id.c_str(), result);
  }
}

void Publish(const std::string& id, const Broadcast& broadcast,
             const std::vector<std::string>& agents) {
  const std::string name = "event." + id + "." + broadcast.event;
  Broadcast event = broadcast;
  if (event.names_agents) {
    event.lists["Start"] = agents.empty() ? std::vector<std::string>{id} : agents;
  }
  // First: whoever hears it may end this process.
  Trace("event", {{"event", event.event}, {"data", FieldsOf(event)}});
  Pass(Mark::kEventTraced);
  try {
    const int result = event_publish_app_event(name.c_str(), BundleOf(event).get());
    Check(result, result == -EACCES ? kSquatted : "cannot publish");
    Pass(Mark::kEventPublished);
    dlog_print(DLOG_DEBUG, kLogTag, "published %s", name.c_str());
  } catch (const PlatformError& error) {
    Trace("lost", {{"event", event.event}, {"problem", error.what()}});
    dlog_print(DLOG_WARN, kLogTag, "%s is lost: %s", name.c_str(), error.what());
  }
}

}  // namespace sim
