// SPDX-License-Identifier: Apache-2.0
#include "fake_bus.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

FakeBus::FakeBus(Answer answer)
    : answer_(std::move(answer)),
      folder_(testing::TempDir() + "/fake-bus-XXXXXX"),
      listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      end_(eventfd(0, EFD_CLOEXEC)) {
  EXPECT_NE(mkdtemp(folder_.data()), nullptr);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  (folder_ + "/bus").copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(listen(listener_, 64), 0);
  thread_ = std::thread([this] { Serve(); });
}

FakeBus::~FakeBus() {
  EXPECT_EQ(eventfd_write(end_, 1), 0);
  thread_.join();
  close(end_);
  close(listener_);
  std::filesystem::remove_all(folder_);
}

void FakeBus::Serve() {
  sd_event* event = nullptr;
  EXPECT_GE(sd_event_new(&event), 0);
  sd_event_add_io(event, nullptr, listener_, EPOLLIN, OnClient, this);
  sd_event_add_io(
      event, nullptr, end_, EPOLLIN,
      [](sd_event_source* source, int, uint32_t, void*) {
        return sd_event_exit(sd_event_source_get_event(source), 0);
      },
      nullptr);
  EXPECT_GE(sd_event_loop(event), 0);
  for (sd_bus* client : clients_) {
    sd_bus_detach_event(client);
    sd_bus_close_unref(client);
  }
  sd_event_unref(event);
}

int FakeBus::OnClient(sd_event_source* source, int listener, uint32_t, void* data) {
  auto* self = static_cast<FakeBus*>(data);
  const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) return 0;
  sd_bus* client = nullptr;
  sd_id128_t id = {};
  EXPECT_GE(sd_id128_randomize(&id), 0);
  EXPECT_GE(sd_bus_new(&client), 0);
  EXPECT_GE(sd_bus_set_fd(client, fd, fd), 0);
  EXPECT_GE(sd_bus_set_server(client, 1, id), 0);
  EXPECT_GE(sd_bus_add_filter(client, nullptr, OnMessage, self), 0);
  EXPECT_GE(sd_bus_start(client), 0);
  EXPECT_GE(sd_bus_attach_event(client, sd_event_source_get_event(source), 0), 0);
  self->clients_.push_back(client);
  return 0;
}

int FakeBus::OnMessage(sd_bus_message* message, void* data, sd_bus_error*) {
  auto* self = static_cast<FakeBus*>(data);
  if (self->answer_) self->answer_(sd_bus_message_get_bus(message), message);
  return 1;
}
