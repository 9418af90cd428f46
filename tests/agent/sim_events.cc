// SPDX-License-Identifier: Apache-2.0
// A client for svcmgr-sim run that prints the agent's events, one line each.
//
//   sim_events COUNT request           asks the agent for an update once it listens
//   sim_events COUNT SHELL-COMMAND     runs a shell command once it listens
//
// Ends when COUNT events have come and the command, whose status it prints, has ended.

#include <app_event.h>
#include <app_event_desktop.h>
#include <glib.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "protocol/parcel.h"

namespace {

const char* const kEvents[] = {"agent_status", "update_status", "model_status"};
const char* const kTexts[] = {"Update", "Launch", "Complete", "START", "COMPLETED", "FAILED"};
const char* const kNumbers[] = {"Fail", "com.example.client", "com.velmora.notes"};

int events_left = 0;
bool working = true;

void Print(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

std::string TextOf(bundle* data) {
  std::string text;
  int count = 0;
  if (const char** agents = bundle_get_str_array(data, "Start", &count)) {
    text += " Start";
    for (int i = 0; i < count; ++i) {
      text += std::string(i == 0 ? "=" : ",") + agents[i];
    }
  }
  for (const char* key : kTexts) {
    char* value = nullptr;
    text += bundle_get_str(data, key, &value) == 0 ? std::string(" ") + key : "";
  }
  for (const char* key : kNumbers) {
    void* bytes = nullptr;
    size_t size = 0;
    std::int32_t number = 0;
    if (bundle_get_byte(data, key, &bytes, &size) == 0 && size == sizeof number) {
      memcpy(&number, bytes, sizeof number);
      text += std::string(" ") + key + "=" + std::to_string(number);
    }
  }
  return text;
}

void OnEvent(const char* name, bundle* data, void*) {
  Print(std::string(strrchr(name, '.') + 1) + TextOf(data));
  --events_left;
}

void OnConnected(const char*, const char*, rpc_port_h port, void*) {
  sim::Parcel request;
  request.Int(4).Send(port);
  sim::Parcel reply = sim::Parcel::From(port);
  reply.Int();
  Print("reply " + std::to_string(reply.Int()));
  working = false;
}

void RunCommand(const char* command) {
  const pid_t child = fork();
  if (child == 0) {
    execl("/bin/sh", "sh", "-c", command, nullptr);
    _exit(127);
  }
  g_child_watch_add(
      child,
      [](GPid, gint status, gpointer) {
        Print("status " + std::to_string(WEXITSTATUS(status)));
        working = false;
      },
      nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    return 2;
  }
  events_left = atoi(argv[1]);
  for (const char* event : kEvents) {
    event_handler_h handler = nullptr;
    const std::string name = std::string("event." AGENT_PACKAGE_ID ".") + event;
    if (event_add_event_handler(name.c_str(), OnEvent, nullptr, &handler) != 0) {
      Print("no bus");
    }
  }
  if (event_desktop_await_subscriptions() != 0) Print("no subscriptions");
  rpc_port_proxy_h proxy = nullptr;
  if (strcmp(argv[2], "request") == 0) {
    rpc_port_proxy_create(&proxy);
    rpc_port_proxy_add_connected_event_cb(proxy, OnConnected, nullptr);
    rpc_port_proxy_connect(proxy, AGENT_PACKAGE_ID, "SvcMgrAppPort");
  } else {
    RunCommand(argv[2]);
  }
  while (working || events_left > 0) {
    g_main_context_iteration(nullptr, TRUE);
  }
  return 0;
}
