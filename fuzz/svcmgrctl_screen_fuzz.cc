// SPDX-License-Identifier: Apache-2.0
// What the agent and its events say while a command of svcmgrctl runs, on its way through the library
// and the program to the screen.
//
// Input: a byte for the command, one for the form of its output, one for the width of the terminal,
// a block that a request which blocks is answered with, then steps: a byte that chooses what happens,
// and what that takes. When they are over, the command is interrupted.

#include <SvcMgrAppProxyHandler.h>
#include <agent_update_state.h>
#include <bundle.h>
#include <glib-unix.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent_stand_in.h"
#include "command_line.h"
#include "console.h"
#include "event_stand_in.h"
#include "input.h"
#include "kept_records.h"
#include "owned.h"
#include "screen.h"
#include "session.h"

extern "C" {
gboolean __real_g_main_context_iteration(GMainContext* context, gboolean may_block);
int __real_velmora_svcmgr_request_update();
int __real_velmora_svcmgr_request_update_with_list(velmora_svcmgr_agent_list_h list);
int __real_velmora_svcmgr_ai_model_info_destroy(velmora_svcmgr_ai_model_info_h info);

gboolean __wrap_g_main_context_iteration(GMainContext* context, gboolean may_block);
int __wrap_velmora_svcmgr_request_update();
int __wrap_velmora_svcmgr_request_update_with_list(velmora_svcmgr_agent_list_h list);
int __wrap_velmora_svcmgr_ai_model_info_destroy(velmora_svcmgr_ai_model_info_h info);
guint __wrap_g_unix_signal_add_full(gint priority, gint signum, GSourceFunc handler, gpointer data,
                                    GDestroyNotify notify);
// svcmgrctl::Now, by the name that the linker knows.
double __wrap__ZN9svcmgrctl3NowEv();
}

namespace {

using svcmgrctl::Failure;
using svcmgrctl::Invocation;

constexpr char kAgentStatus[] = "event." AGENT_PACKAGE_ID ".agent_status";
constexpr char kUpdateStatus[] = "event." AGENT_PACKAGE_ID ".update_status";
constexpr char kModelStatus[] = "event." AGENT_PACKAGE_ID ".model_status";

// When the story of an input begins: once something was asked, followed, or asked by a call that
// blocks and has returned. Until then that call reads what the agent says, on a thread of its own.
enum class Beginning { kAsked, kFollowed, kReturned };

struct CommandRow {
  Beginning beginning;
  std::vector<std::string> words;
};

const CommandRow kCommands[] = {
    {Beginning::kAsked, {"models", "update", "--force", "vision", "speech\x1b[2J\xe2\x80\xae@1.0"}},
    {Beginning::kAsked, {"models", "update", "vision", "speech@2"}},
    {Beginning::kAsked, {"models", "uninstall", "\xe8\xaa\x9e\xe9\x9f\xb3", "a\tb"}},
    {Beginning::kAsked, {"models", "list", "--descriptions"}},
    {Beginning::kAsked, {"models", "list"}},
    {Beginning::kAsked, {"models", "versions", "vision"}},
    {Beginning::kReturned, {"update"}},
    {Beginning::kReturned, {"update", "org.example.\x9b[1m"}},
    {Beginning::kFollowed, {"watch"}},
    {Beginning::kFollowed, {"watch", "model"}},
    {Beginning::kReturned, {"license"}},
    {Beginning::kReturned, {"api-level"}},
    {Beginning::kAsked, {"models", "list", "--fields", "id,version,title"}},
    {Beginning::kAsked, {"models", "list", "--format", "{id} {{{version}}}\\n"}},
    {Beginning::kFollowed, {"watch", "--format", "{name} {status}"}},
    {Beginning::kAsked, {"complete", "--", "models", "versions", "v"}},
};

struct Form {
  std::vector<std::string> options;
  screen::Kind kind;
};

const Form kForms[] = {
    {{}, screen::Kind::kTerminal},
    {{"--json"}, screen::Kind::kPipe},
    {{}, screen::Kind::kPipe},
    {{"--color", "always"}, screen::Kind::kPipe},
    {{"--quiet"}, screen::Kind::kTerminal},
    {{"--no-trunc", "--color", "never"}, screen::Kind::kTerminal},
};

// Empty for options that exclude each other. What only makes a difference once is done once: to read a command line takes longer than to run it.
const Invocation& InvocationOf(std::size_t command, std::size_t form) {
  static std::map<std::pair<std::size_t, std::size_t>, Invocation> known;
  const auto [found, is_new] = known.try_emplace({command, form});
  if (is_new) {
    std::vector<std::string> words = {"svcmgrctl"};
    words.insert(words.end(), kForms[form].options.begin(), kForms[form].options.end());
    words.insert(words.end(), kCommands[command].words.begin(), kCommands[command].words.end());
    try {
      svcmgrctl::ReadCommandLine(words, &found->second);
    } catch (const Failure&) {
      found->second.command = nullptr;
    }
  }
  return found->second;
}

// ---- What happens while the command runs --------------------------------------------------------

double now = 0;
GSourceFunc on_interrupt = nullptr;
gpointer interrupt_data = nullptr;

int NumberFrom(Input* input) {
  const std::uint8_t choice = input->Byte();
  if (choice < 200) return choice - 2;
  int number = 0;
  std::memcpy(&number, std::string(input->Bytes(4)).append(4, '\0').data(), sizeof number);
  return number;
}

void Append(std::string* message, int number) {
  message->append(reinterpret_cast<const char*>(&number), sizeof number);
}

void Append(std::string* message, std::string_view text) {
  const std::string_view whole = text.substr(0, text.find('\0'));
  Append(message, static_cast<int>(whole.size() + 1));
  message->append(whole).append(1, '\0');
}

// What names the delegate of the last request that has one, and begins each answer to it.
std::string AnswerHead() {
  constexpr std::size_t kHeader = 9;  // ID, sequence number, whether it is answered once
  for (auto sent = agent_stand_in::sent.rbegin(); sent != agent_stand_in::sent.rend(); ++sent) {
    std::string head;
    Append(&head, 1);
    if (sent->size() >= 4 + kHeader) return head + sent->substr(4, kHeader);
  }
  return {};
}

void SayProgress(Input* input) {
  std::string message = AnswerHead();
  for (int i = 0; i < 5; ++i) Append(&message, NumberFrom(input));  // result, then the record
  agent_stand_in::Push(message);
}

void SayList(Input* input) {
  std::string message = AnswerHead();
  Append(&message, NumberFrom(input));
  const int models = input->Byte() % 4;
  Append(&message, models);
  for (int i = 0; i < models * 4; ++i) Append(&message, input->Block());
  Append(&message, models);
  agent_stand_in::Push(message);
}

void SayEvent(const char* event, const char* key, std::optional<int> number) {
  const base::Owned<bundle, bundle_free> data(bundle_create());
  const char* agents[] = {"agent"};
  if (number) {
    bundle_add_byte(data.get(), key, &*number, sizeof *number);
  } else if (std::strcmp(key, "Start") == 0) {
    bundle_add_str_array(data.get(), key, agents, 1);
  } else {
    bundle_add_str(data.get(), key, "");
  }
  event_stand_in::Deliver(event, event, data.get());
}

void TakeStep(Input* input) {
  constexpr const char* kModelKeys[] = {"START", "COMPLETED", "FAILED", "key"};
  switch (input->Byte() % 10) {
    case 0:
      return SayProgress(input);
    case 1:
      return SayList(input);
    case 2:
      return agent_stand_in::Push(AnswerHead().append(input->Block()));
    case 3:
      return SayEvent(kUpdateStatus, "Start", std::nullopt);
    case 4:
      return SayEvent(kUpdateStatus, "Complete", std::nullopt);
    case 5:
      return SayEvent(kUpdateStatus, "Fail", NumberFrom(input));
    case 6:
      return SayEvent(kModelStatus, kModelKeys[input->Byte() % 4], std::nullopt);
    case 7:
      return SayEvent(kAgentStatus, input->Byte() % 2 == 0 ? "Update" : "Launch", std::nullopt);
    case 8:
      return agent_stand_in::Lose();
    default:
      now += input->Byte() / 8.0;
  }
}

struct Story {
  Input* input;
  Beginning beginning;
  bool has_begun = false;
};

Story* story = nullptr;
std::atomic<bool> has_returned{false};

bool MayBegin() {
  switch (story->beginning) {
    case Beginning::kAsked:
      return !agent_stand_in::sent.empty();
    case Beginning::kFollowed:
      return event_stand_in::IsSubscribed(kModelStatus);
    default:
      return has_returned;
  }
}

void GoOn() {
  if (!story->input->empty()) {
    TakeStep(story->input);
  } else if (on_interrupt != nullptr) {
    on_interrupt(interrupt_data);
  }
}

std::optional<Failure> Run(const Invocation& invocation, svcmgrctl::Console* console) {
  try {
    svcmgrctl::Session session(invocation.options.timeout);
    invocation.command(session, *console);
    return std::nullopt;
  } catch (const Failure& failure) {
    return failure;
  }
}

// ---- What is seen -------------------------------------------------------------------------------

void CheckJson(const std::string& output, const std::optional<Failure>& failure) {
  REQUIRE(screen::IsPlain(output, screen::Characters::kAscii));
  if (nlohmann::json::accept(output)) return;
  nlohmann::json last;
  for (std::string_view rest = output; !rest.empty();) {
    const std::size_t end = rest.find('\n');
    REQUIRE(end != rest.npos);
    last = nlohmann::json::parse(rest.substr(0, end), nullptr, false);
    REQUIRE(last.is_object());
    rest.remove_prefix(end + 1);
  }
  if (!last.is_null() && last["event"] == "end") REQUIRE(last["succeeded"] == !failure);
}

void CheckText(const std::string& output, const Form& form, const CommandRow& command) {
  const bool is_terminal = form.kind == screen::Kind::kTerminal;
  std::string shown = is_terminal ? screen::Shown(output) : output;
  // Of all texts from outside a licence alone keeps its layout.
  if (command.words.front() == "license") std::replace(shown.begin(), shown.end(), '\t', ' ');
  const bool has_color =
      form.options.empty() ? is_terminal : form.options.back() == "always" || is_terminal;
  REQUIRE(
      screen::IsPlain(has_color ? screen::WithoutColors(shown) : shown, screen::Characters::kAll));
}

}  // namespace

// Where the program waits, the story goes on.
gboolean __wrap_g_main_context_iteration(GMainContext* context, gboolean may_block) {
  if (story == nullptr || may_block == FALSE)
    return __real_g_main_context_iteration(context, may_block);
  story->has_begun = story->has_begun || MayBegin();
  if (story->has_begun) GoOn();
  // What was not asked for by a thread is there at once.
  const bool waits = !story->has_begun && story->beginning == Beginning::kReturned;
  return __real_g_main_context_iteration(context, waits ? TRUE : FALSE);
}

int __wrap_velmora_svcmgr_request_update() {
  const int result = __real_velmora_svcmgr_request_update();
  has_returned = true;
  return result;
}

int __wrap_velmora_svcmgr_request_update_with_list(velmora_svcmgr_agent_list_h list) {
  const int result = __real_velmora_svcmgr_request_update_with_list(list);
  has_returned = true;
  return result;
}

// What is given back is kept no longer.
int __wrap_velmora_svcmgr_ai_model_info_destroy(velmora_svcmgr_ai_model_info_h info) {
  kept_records::Disown(info);
  return __real_velmora_svcmgr_ai_model_info_destroy(info);
}

guint __wrap_g_unix_signal_add_full(gint, gint signum, GSourceFunc handler, gpointer data,
                                    GDestroyNotify notify) {
  if (signum == SIGINT) {
    on_interrupt = handler;
    interrupt_data = data;
  }
  // It never comes by itself, and goes as the real one would.
  GSource* const source = g_timeout_source_new(G_MAXUINT);
  g_source_set_callback(source, handler, data, notify);
  const guint id = g_source_attach(source, nullptr);
  g_source_unref(source);
  return id;
}

double __wrap__ZN9svcmgrctl3NowEv() { return now; }

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::size_t command = input.Byte() % std::size(kCommands);
  const std::size_t form = input.Byte() % std::size(kForms);
  const Invocation& invocation = InvocationOf(command, form);
  if (invocation.command == nullptr) return 0;
  screen::Use(kForms[form].kind, input.Byte());
  const std::string_view reply = input.Block();
  if (kCommands[command].beginning == Beginning::kReturned)
    agent_stand_in::messages.emplace_back(reply);
  now = 1000;
  has_returned = false;
  Story of_input = {&input, kCommands[command].beginning};

  svcmgrctl::Console console(invocation.options);
  story = &of_input;
  const std::optional<Failure> failure = Run(invocation, &console);
  story = nullptr;
  on_interrupt = nullptr;
  console.Flush();
  if (failure) console.Error(*failure);
  const std::string output = screen::TakeOutput();
  const std::string errors = screen::TakeErrors();
  REQUIRE(failure.has_value() == (errors.find("error") != errors.npos));
  if (invocation.options.json) {
    CheckJson(output, failure);
    REQUIRE(errors.empty() || nlohmann::json::accept(errors));
  } else {
    CheckText(output, kForms[form], kCommands[command]);
    REQUIRE(screen::IsPlain(screen::WithoutColors(errors), screen::Characters::kAll));
  }
  screen::Leave();

  while (g_main_context_iteration(nullptr, FALSE) != FALSE) continue;
  SvcMgrAppProxyHandler::GetInstance().Disconnect();
  svcmgr::agent_update_state.End();
  agent_stand_in::EndInput();
  return 0;
}
