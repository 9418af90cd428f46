// SPDX-License-Identifier: Apache-2.0
// A process of the same user that means no good: hostile_neighbour DEED, in a world's folder.
//
//     forge             sends events in the agent's name, from a connection that does not own it, to
//                       everybody and to each client by itself; asks for the name, and forges the
//                       news that it has it
//     impersonate       takes the agent's name, which nobody has, and sends events
//     connections N     opens so many connections to the agent's port, and to where it takes steps, and
//                       drips bytes into all of them, until the world ends; says "ready" when all are open
//     descriptors       passes many descriptors to both; says how many the agent has kept
//     flood N           asks as many times as a client, and never reads an answer
//     squat             listens in place of the agent's port and answers nobody, until the world ends
//     plant             puts links, pipes, holes, deep folders and odd names among the installed packages
//                       and in the application's folder
#include <bundle.h>
#include <bundle_desktop.h>
#include <fcntl.h>
#include <glib.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "owned.h"
#include "unique_fd.h"

namespace {

namespace fs = std::filesystem;

constexpr char kAgent[] = AGENT_PACKAGE_ID;
constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";

[[noreturn]] void GiveUp(const char* what) {
  std::perror(what);
  std::exit(EXIT_FAILURE);
}

bool WorldStands() { return access("trace.jsonl", F_OK) == 0; }

// ---- Events ----

using Message = base::Owned<sd_bus_message, sd_bus_message_unref>;

std::vector<char> BytesOf(const char* key) {
  const base::Owned<bundle, bundle_free> data(bundle_create());
  const char* agents[] = {kAgent};
  if (std::strcmp(key, "Start") == 0) {
    bundle_add_str_array(data.get(), key, agents, 1);
  } else {
    bundle_add_str(data.get(), key, "true");
  }
  unsigned char* bytes = nullptr;
  std::size_t size = 0;
  if (bundle_desktop_encode(data.get(), &bytes, &size) != 0) GiveUp("encode");
  const std::vector<char> copy(bytes, bytes + size);
  free(bytes);
  return copy;
}

void SendEvent(sd_bus* bus, const char* event, const char* key, const char* whom) {
  sd_bus_message* made = nullptr;
  if (sd_bus_message_new_signal(bus, &made, "/org/desktop/ApplicationEvents",
                                "org.desktop.ApplicationEvents", "Event") < 0) {
    GiveUp("signal");
  }
  const Message message(made);
  const std::string name = std::string("event.") + kAgent + "." + event;
  const std::vector<char> bytes = BytesOf(key);
  sd_bus_message_append(made, "s", name.c_str());
  sd_bus_message_append_array(made, 'y', bytes.data(), bytes.size());
  if (whom != nullptr) sd_bus_message_set_destination(made, whom);
  sd_bus_send(bus, made, nullptr);
}

void SendEvents(sd_bus* bus, const char* whom) {
  for (const char* key : {"Update", "Launch"}) SendEvent(bus, "agent_status", key, whom);
  for (const char* key : {"Start", "Complete"}) SendEvent(bus, "update_status", key, whom);
  for (const char* key : {"START", "COMPLETED"}) SendEvent(bus, "model_status", key, whom);
}

void ForgeOwner(sd_bus* bus, const char* whom) {
  const char* self = nullptr;
  sd_bus_get_unique_name(bus, &self);
  sd_bus_message* made = nullptr;
  if (sd_bus_message_new_signal(bus, &made, kBusPath, kBus, "NameOwnerChanged") < 0) return;
  const Message message(made);
  sd_bus_message_append(made, "sss", kAgent, "", self);
  if (whom != nullptr) sd_bus_message_set_destination(made, whom);
  sd_bus_send(bus, made, nullptr);
}

int Forge() {
  sd_bus* bus = nullptr;
  if (sd_bus_open_user(&bus) < 0) GiveUp("bus");
  const int owned = sd_bus_request_name(bus, kAgent, SD_BUS_NAME_REPLACE_EXISTING);
  if (owned >= 0) GiveUp("the name was free");
  sd_bus_message* reply = nullptr;
  if (sd_bus_call_method(bus, kBus, kBusPath, kBus, "ListNames", nullptr, &reply, "") < 0) {
    GiveUp("names");
  }
  char** names = nullptr;
  sd_bus_message_read_strv(reply, &names);
  SendEvents(bus, nullptr);
  for (char** name = names; *name != nullptr; ++name) {
    ForgeOwner(bus, *name);
    SendEvents(bus, *name);
    free(*name);
  }
  free(names);
  sd_bus_message_unref(reply);
  // The bus has dealt with all of it once it answers.
  sd_bus_call_method(bus, kBus, kBusPath, kBus, "GetId", nullptr, nullptr, "");
  sd_bus_flush_close_unref(bus);
  return EXIT_SUCCESS;
}

int Impersonate() {
  sd_bus* bus = nullptr;
  if (sd_bus_open_user(&bus) < 0) GiveUp("bus");
  // The bus may not have noticed the agent's end yet.
  while (sd_bus_request_name(bus, kAgent, 0) < 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  SendEvents(bus, nullptr);
  sd_bus_call_method(bus, kBus, kBusPath, kBus, "GetId", nullptr, nullptr, "");
  sd_bus_flush_close_unref(bus);
  return EXIT_SUCCESS;
}

// ---- Connections ----

std::string PortFile() { return std::string("run/") + kAgent + ":SvcMgrAppPort"; }

base::UniqueFd ConnectTo(const std::string& file, int type) {
  base::UniqueFd fd(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", file.c_str());
  const auto* where = reinterpret_cast<const sockaddr*>(&address);
  // Its queue may be full for a moment.
  while (fd && connect(fd.get(), where, sizeof address) != 0) {
    if (errno != EAGAIN) return {};
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return fd;
}

int HoldConnections(int count) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  std::vector<base::UniqueFd> open;
  for (int i = 0; i < count; ++i) {
    open.push_back(ConnectTo(PortFile(), SOCK_STREAM));
    if (!open.back()) GiveUp("a connection to the port");
    open.push_back(ConnectTo("control", SOCK_SEQPACKET));
    if (!open.back()) GiveUp("a connection for steps");
  }
  std::puts("ready");
  std::fflush(stdout);
  // The length of a hello that never comes.
  const unsigned char drip[] = {200, 0, 0, 0, 1, 0, 0, 0, 0};
  for (std::size_t i = 0; WorldStands(); ++i) {
    for (std::size_t each = 0; each < open.size(); each += 2) {
      send(open[each].get(), &drip[i % sizeof drip], 1, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return EXIT_SUCCESS;
}

long DescriptorsOf(const std::string& pid) {
  const fs::directory_iterator all("/proc/" + pid + "/fd");
  return std::distance(begin(all), end(all));
}

void PassDescriptors(int fd) {
  constexpr int kMany = 100;
  int passed[kMany];
  for (int& one : passed) one = STDIN_FILENO;
  char byte = 1;
  iovec content = {&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof passed)] = {};
  msghdr message = {};
  message.msg_iov = &content;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof passed);
  std::memcpy(CMSG_DATA(header), passed, sizeof passed);
  sendmsg(fd, &message, MSG_NOSIGNAL);
}

/** The agent reads in its own time: what it has is what it keeps once it has answered a client. */
int PassManyDescriptors() {
  std::string agent;
  std::getline(std::ifstream("agent.pid"), agent);
  const long before = DescriptorsOf(agent);
  constexpr int kTimes = 20;
  for (int i = 0; i < kTimes; ++i) {
    const base::UniqueFd port = ConnectTo(PortFile(), SOCK_STREAM);
    const base::UniqueFd steps = ConnectTo("control", SOCK_SEQPACKET);
    for (int each = 0; each < kTimes; ++each) PassDescriptors(port.get());
    PassDescriptors(steps.get());
  }
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  long now = 0;
  do {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    now = DescriptorsOf(agent);
  } while (now > before && std::chrono::steady_clock::now() < end);
  std::printf("kept %ld\n", now - before);
  return now > before ? EXIT_FAILURE : EXIT_SUCCESS;
}

// ---- A client ----

void OnConnection(int, int state, void* connected) { *static_cast<int*>(connected) = state + 1; }
void OnModels(int, velmora_svcmgr_ai_model_list_h, void*) {}

int Flood(int count) {
  setenv("VELMORA_APP_ID", "org.neighbour", 1);
  int connected = 0;
  if (velmora_svcmgr_connect(OnConnection, &connected) != 0) GiveUp("connect");
  while (connected == 0) g_main_context_iteration(nullptr, TRUE);
  int sent = 0;
  while (sent < count &&
         velmora_svcmgr_ai_request_usable_model_list_with_description(OnModels, nullptr) == 0) {
    ++sent;
  }
  std::printf("sent %d\n", sent);
  std::fflush(stdout);
  while (WorldStands()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return EXIT_SUCCESS;
}

int Squat() {
  const base::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", PortFile().c_str());
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(fd.get(), SOMAXCONN) != 0) {
    GiveUp("squat");
  }
  std::puts("ready");
  std::fflush(stdout);
  while (WorldStands()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return EXIT_SUCCESS;
}

// ---- Files ----

void MakeSparse(const fs::path& file, const std::string& beginning) {
  constexpr off_t kTebibyte = off_t{1} << 40;
  std::ofstream(file, std::ios::binary) << beginning;
  // As large as the file system lets it be.
  for (off_t size = kTebibyte; truncate(file.c_str(), size) != 0 && size > 1; size /= 2) continue;
}

void MakeDeep(const fs::path& folder) {
  constexpr int kDepth = 200;
  fs::path deep = folder / "deep";
  for (int i = 0; i < kDepth; ++i) deep /= "d";
  fs::create_directories(deep);
  MakeSparse(deep / "libmarked.so", "\177ELF");
}

int Plant() {
  for (const fs::path folder : {"packages", "app"}) {
    const std::string ending = folder == "app" ? ".so" : ".package";
    fs::create_symlink("/dev/zero", folder / ("com.velmora.zero" + ending));
    fs::create_symlink("loop" + ending, folder / ("loop" + ending));
    fs::create_directory_symlink("..", folder / ("com.velmora.up" + ending));
    if (mkfifo((folder / ("com.velmora.fifo" + ending)).c_str(), 0600) != 0) GiveUp("fifo");
    MakeSparse(folder / ("com.velmora.sparse" + ending), "\177ELF\2\1\1");
    std::ofstream(folder / ("com.velmora.\033]0;owned\007\033[2J" + ending)) << "[Package]\n";
    fs::create_directory(folder / ("com.velmora.folder" + ending));
    MakeDeep(folder);
  }
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string deed = argc > 1 ? argv[1] : "";
  const int number = argc > 2 ? std::atoi(argv[2]) : 0;
  if (deed == "forge") return Forge();
  if (deed == "impersonate") return Impersonate();
  if (deed == "connections") return HoldConnections(number);
  if (deed == "descriptors") return PassManyDescriptors();
  if (deed == "flood") return Flood(number);
  if (deed == "squat") return Squat();
  if (deed == "plant") return Plant();
  return EXIT_FAILURE;
}
