// SPDX-License-Identifier: Apache-2.0
#include "private_bus.h"

#include <app_event.h>
#include <app_event_desktop.h>
#include <fcntl.h>
#include <glib.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <vector>

namespace {

constexpr char kPath[] = "/org/desktop/ApplicationEvents";
constexpr char kInterface[] = "org.desktop.ApplicationEvents";
constexpr char kBusName[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";

}  // namespace

PrivateBus::PrivateBus() {
  std::string pattern = testing::TempDir() + "/bus-XXXXXX";
  folder_ = mkdtemp(pattern.data());
  const std::string address = "unix:path=" + (folder_ / "bus").string();
  std::ofstream(folder_ / "bus.conf")
      << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
         "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\"><busconfig>"
         "<type>session</type><listen>"
      << address
      << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
         "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
         "<allow own=\"*\"/></policy></busconfig>";
  setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  Start();
}

PrivateBus::~PrivateBus() {
  Kill();
  std::filesystem::remove_all(folder_);
}

void PrivateBus::Start() {
  int ready[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  daemon_ = fork();
  if (daemon_ == 0) {
    dup2(ready[1], STDOUT_FILENO);
    const std::string config = "--config-file=" + (folder_ / "bus.conf").string();
    execl(DBUS_DAEMON, DBUS_DAEMON, config.c_str(), "--nofork", "--nopidfile", "--nosyslog",
          "--print-address=1", nullptr);
    _exit(127);
  }
  close(ready[1]);
  char byte;
  ASSERT_EQ(read(ready[0], &byte, 1), 1) << "the bus daemon does not start";
  close(ready[0]);
}

void PrivateBus::Kill() {
  if (daemon_ <= 0) return;
  kill(daemon_, SIGKILL);
  waitpid(daemon_, nullptr, 0);
  daemon_ = -1;
  std::filesystem::remove(folder_ / "bus");
}

void PrivateBus::Signal(int signal) { ASSERT_EQ(kill(daemon_, signal), 0); }

RawClient::RawClient() { EXPECT_GE(sd_bus_open_user(&bus_), 0); }

RawClient::~RawClient() { sd_bus_flush_close_unref(bus_); }

const char* RawClient::unique_name() const {
  const char* name = nullptr;
  EXPECT_GE(sd_bus_get_unique_name(bus_, &name), 0);
  return name;
}

// An answer from the bus says that it has dealt with what came before.
void RawClient::Send(sd_bus_message* message, const char* destination) {
  if (destination) {
    ASSERT_GE(sd_bus_message_set_destination(message, destination), 0);
  }
  ASSERT_GE(sd_bus_send(bus_, message, nullptr), 0);
  sd_bus_message_unref(message);
  ASSERT_GE(sd_bus_call_method(bus_, kBusName, kBusPath, kBusName, "GetId", nullptr, nullptr, ""),
            0);
}

void RawClient::SendEvent(const char* name, const std::string& payload, const char* destination) {
  sd_bus_message* message = nullptr;
  ASSERT_GE(sd_bus_message_new_signal(bus_, &message, kPath, kInterface, "Event"), 0);
  ASSERT_GE(sd_bus_message_append(message, "s", name), 0);
  ASSERT_GE(sd_bus_message_append_array(message, 'y', payload.data(), payload.size()), 0);
  Send(message, destination);
}

void RawClient::SendOwnerChange(const char* id, const char* owner, const char* destination) {
  sd_bus_message* message = nullptr;
  ASSERT_GE(sd_bus_message_new_signal(bus_, &message, kBusPath, kBusName, "NameOwnerChanged"), 0);
  ASSERT_GE(sd_bus_message_append(message, "sss", id, "", owner), 0);
  Send(message, destination);
}

std::string RawClient::OwnerOf(const char* name) {
  sd_bus_message* answer = nullptr;
  const char* owner = "";
  if (sd_bus_call_method(bus_, kBusName, kBusPath, kBusName, "GetNameOwner", nullptr, &answer, "s",
                         name) >= 0) {
    sd_bus_message_read(answer, "s", &owner);
  }
  std::string copy = owner;
  sd_bus_message_unref(answer);
  return copy;
}

std::string RawClient::OnlyOtherClient() {
  sd_bus_message* answer = nullptr;
  EXPECT_GE(
      sd_bus_call_method(bus_, kBusName, kBusPath, kBusName, "ListNames", nullptr, &answer, ""), 0);
  char** names = nullptr;
  EXPECT_GE(sd_bus_message_read_strv(answer, &names), 0);
  std::string other;
  for (char** name = names; name && *name; ++name) {
    if ((*name)[0] == ':' && strcmp(*name, unique_name()) != 0) {
      EXPECT_EQ(other, "");
      other = *name;
    }
    free(*name);
  }
  free(names);
  sd_bus_message_unref(answer);
  return other;
}

Publisher::Publisher() {
  int input[2];
  int output[2];
  EXPECT_EQ(pipe2(input, O_CLOEXEC), 0);
  EXPECT_EQ(pipe2(output, O_CLOEXEC), 0);
  process_ = fork();
  if (process_ == 0) {
    dup2(input[0], STDIN_FILENO);
    dup2(output[1], STDOUT_FILENO);
    execl(EVENT_PUBLISHER, EVENT_PUBLISHER, nullptr);
    _exit(127);
  }
  close(input[0]);
  close(output[1]);
  to_ = fdopen(input[1], "w");
  from_ = fdopen(output[0], "r");
}

Publisher::~Publisher() {
  End();
  fclose(from_);
}

void Publisher::End() {
  if (!to_) return;
  fclose(to_);
  to_ = nullptr;
  waitpid(process_, nullptr, 0);
}

int Publisher::Publish(const std::string& name, const std::string& key, const std::string& value) {
  fprintf(to_, "%s %s %s\n", name.c_str(), key.c_str(), value.c_str());
  fflush(to_);
  int result = 1;
  EXPECT_EQ(fscanf(from_, "%d", &result), 1);
  return result;
}

int PublishHere(const char* name, const char* value) {
  bundle* data = bundle_create();
  bundle_add_str(data, "key", value);
  const int result = event_publish_app_event(name, data);
  bundle_free(data);
  return result;
}

void Publisher::PublishUntil(const std::string& name, const std::function<bool()>& condition) {
  const guint turns =
      g_timeout_add(10, [](void*) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  RunUntil([&] {
    EXPECT_EQ(Publish(name, "key", "again"), 0);
    return condition();
  });
  g_source_remove(turns);
}

void RunUntil(const std::function<bool()>& condition) {
  bool late = false;
  const auto set_late = [](gpointer flag) {
    *static_cast<bool*>(flag) = true;
    return gboolean{G_SOURCE_REMOVE};
  };
  const guint limit = g_timeout_add_seconds(60, set_late, &late);
  while (!condition() && !late) g_main_context_iteration(nullptr, TRUE);
  if (!late) g_source_remove(limit);
  ASSERT_FALSE(late) << "waited in vain";
}

void AwaitSubscriptions() {
  RunUntil([] { return event_desktop_await_subscriptions() == 0; });
}

namespace {

std::vector<GPollFD> PollSet(gint* timeout_ms) {
  GMainContext* context = g_main_context_default();
  EXPECT_TRUE(g_main_context_acquire(context));
  gint priority = 0;
  std::vector<GPollFD> polled(16);
  g_main_context_prepare(context, &priority);
  const gint count = g_main_context_query(context, G_MAXINT, timeout_ms, polled.data(), 16);
  g_main_context_check(context, priority, polled.data(), count);
  g_main_context_release(context);
  polled.resize(static_cast<size_t>(count));
  return polled;
}

}  // namespace

int PolledDescriptors() {
  gint timeout_ms = 0;
  return static_cast<int>(PollSet(&timeout_ms).size());
}

bool LooksAgain() {
  gint timeout_ms = 0;
  (void)PollSet(&timeout_ms);
  return timeout_ms >= 0;
}

int ReadDescriptors() {
  gint timeout_ms = 0;
  const auto polled = PollSet(&timeout_ms);
  return static_cast<int>(std::count_if(polled.begin(), polled.end(), [](const GPollFD& each) {
    return (each.events & G_IO_IN) != 0;
  }));
}
