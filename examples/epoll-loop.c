/* SPDX-License-Identifier: Apache-2.0 */
/*
 * epoll-loop: lists the models in an application whose main loop is epoll, not GLib. The loop
 * waits for what GLib waits for, too, and lets GLib run what is due.
 */
#define _POSIX_C_SOURCE 200809L /* for CLOCK_MONOTONIC */
#include <glib.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

/* No code of the library is positive. */
enum { WAITING = 1, TIME_IS_UP = 2 };

static int result = WAITING;

/* What GLib waits for, between two rounds of the loop. */
struct glib_in_epoll {
  GMainContext* context;
  int epoll;
  GPollFD* fds;
  int capacity, count;
  int priority;
};

/* Asks GLib what it waits for, and adds that to the epoll; returns for how long, as epoll_wait. */
static int glib_prepare(struct glib_in_epoll* glib) {
  int timeout = -1;
  g_main_context_prepare(glib->context, &glib->priority);
  while ((glib->count = g_main_context_query(glib->context, glib->priority, &timeout, glib->fds,
                                             glib->capacity)) > glib->capacity) {
    glib->capacity = glib->count;
    glib->fds = g_renew(GPollFD, glib->fds, (gsize)glib->capacity);
  }
  for (int i = 0; i < glib->count; i++) {
    /* Any event of it wakes the loop; which, GLib finds out. A descriptor may come twice. */
    struct epoll_event event = {.events = EPOLLIN | EPOLLPRI, .data.fd = glib->fds[i].fd};
    for (int j = 0; j < glib->count; j++)
      if (glib->fds[j].fd == event.data.fd && (glib->fds[j].events & G_IO_OUT) != 0)
        event.events |= EPOLLOUT;
    epoll_ctl(glib->epoll, EPOLL_CTL_ADD, event.data.fd, &event);
  }
  return timeout;
}

/* Lets GLib run what is due. The descriptors leave the epoll: until the next round, GLib's sources
 * may close them, and others may take their numbers. */
static void glib_dispatch(struct glib_in_epoll* glib) {
  for (int i = 0; i < glib->count; i++)
    epoll_ctl(glib->epoll, EPOLL_CTL_DEL, glib->fds[i].fd, NULL);
  g_poll(glib->fds, (guint)glib->count, 0);
  if (g_main_context_check(glib->context, glib->priority, glib->fds, glib->count))
    g_main_context_dispatch(glib->context);
}

static void on_models(int error, velmora_svcmgr_ai_model_list_h list, void* data) {
  int size = 0;
  (void)data;
  if (list != NULL) velmora_svcmgr_ai_model_list_get_size(list, &size);
  for (int i = 0; i < size; i++) {
    velmora_svcmgr_ai_model_info_h model;
    char* id = NULL;
    if (velmora_svcmgr_ai_model_list_get(list, i, &model) != SVCMGR_ERROR_NONE) break;
    if (velmora_svcmgr_ai_model_info_get_id(model, &id) == SVCMGR_ERROR_NONE) puts(id);
    free(id);
    velmora_svcmgr_ai_model_info_destroy(model);
  }
  if (list != NULL) velmora_svcmgr_ai_model_list_destroy(list);
  result = error;
}

static void on_connection(int error, int state, void* data) {
  if (state == SVCMGR_CONNECTION_STATE_CONNECTED)
    error = velmora_svcmgr_ai_request_usable_model_list(on_models, data);
  else if (error == SVCMGR_ERROR_NONE)
    error = SVCMGR_ERROR_NOT_CONNECTED;
  if (error != SVCMGR_ERROR_NONE) result = error;
}

/* A descriptor of the application's own, as any other of its loop: readable after some seconds. */
static int add_time_limit(int epoll, int seconds) {
  const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  const struct itimerspec when = {.it_value.tv_sec = seconds};
  struct epoll_event event = {.events = EPOLLIN, .data.fd = timer};
  timerfd_settime(timer, 0, &when, NULL);
  epoll_ctl(epoll, EPOLL_CTL_ADD, timer, &event);
  return timer;
}

static void run_loop(struct glib_in_epoll* glib, int timer) {
  while (result == WAITING) {
    struct epoll_event events[16];
    const int timeout = glib_prepare(glib);
    const int count = epoll_wait(glib->epoll, events, 16, timeout);
    for (int i = 0; i < count; i++)
      if (events[i].data.fd == timer) result = TIME_IS_UP;
    glib_dispatch(glib);
  }
}

int main(void) {
  struct glib_in_epoll glib = {.context = g_main_context_default(),
                               .epoll = epoll_create1(EPOLL_CLOEXEC)};
  const int timer = add_time_limit(glib.epoll, 3);
  /* This thread, and no other, runs the default main context. */
  g_main_context_acquire(glib.context);
  const int error = velmora_svcmgr_connect(on_connection, NULL);
  if (error != SVCMGR_ERROR_NONE) result = error;
  run_loop(&glib, timer);
  velmora_svcmgr_disconnect();
  g_main_context_release(glib.context);
  g_free(glib.fds);
  close(timer);
  close(glib.epoll);
  if (result != SVCMGR_ERROR_NONE) fprintf(stderr, "epoll-loop: error %d\n", result);
  return result == SVCMGR_ERROR_NONE && fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
