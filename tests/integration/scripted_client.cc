// SPDX-License-Identifier: Apache-2.0
// A client that does what its arguments say and prints what it is told: scripted_client ROUNDS
// WORD... It goes through the words so many times and prints, unless that is once, what it has more
// of after the last time than after half of them.
//
//     connect, disconnect, request-update, updating, level, client-level    calls the function
//     follow-updates, follow-models                           sets the callback for those events
//     subscribed    goes on when no event can be missed any more
//     models, versions=MODEL, category=CATEGORY               asks for the list
//     update=MODELS, uninstall=MODELS                         asks for it; MODEL[@VERSION]+...
//     untouched     says what of the process is not as it was before the library was called: what its
//                   signals do, the blocked ones, its environment, working folder and umask
//     until=LINE    goes on when this line has been printed; each line counts once
//     away, back    goes on when the connection is lost, when it stands, told or untold
//     child=WORD,...  has a forked child go through these words, and waits for its end; what the child
//                   is told is printed with "child " in front
//     run=COMMAND   has a shell run this in the world's folder, while the main loop goes on
#include <app_event_desktop.h>
#include <glib.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "owned.h"
#include "support/bytes_in_use.h"
#include "support/open_descriptors.h"

namespace {

constexpr std::chrono::seconds kPatience(60);

std::vector<std::string> told;  // and not waited for yet

std::string speaker;  // "child " in a forked one

void Tell(const std::string& line) {
  std::puts((speaker + line).c_str());
  std::fflush(stdout);
  told.push_back(line);
}

void Tell(const std::string& what, int result) { Tell(what + ": " + std::to_string(result)); }

[[noreturn]] void GiveUp(const std::string& why) {
  Tell("gave up: " + why);
  std::exit(EXIT_FAILURE);
}

void Expect(int result, const char* call) {
  if (result != SVCMGR_ERROR_NONE) GiveUp(call);
}

// The condition is looked at before each turn of the main loop, which a timer keeps turning.
void RunUntil(const std::function<bool()>& condition, const std::string& what) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) GiveUp(what);
    g_main_context_iteration(nullptr, TRUE);
  }
}

void DestroyModel(velmora_svcmgr_ai_model_info_h info) {
  Expect(velmora_svcmgr_ai_model_info_destroy(info), "the end of a model");
}

using Model = base::Owned<velmora_svcmgr_ai_model_info_s, DestroyModel>;

std::string TextOf(int (*get)(velmora_svcmgr_ai_model_info_h, char**), const Model& model) {
  char* text = nullptr;
  Expect(get(model.get(), &text), "a text of a model");
  const base::Malloced<char> owner(text);
  return text;
}

// ---- What the library tells ----

void OnConnection(int result, int state, void*) {
  Tell("connection: " + std::to_string(result) + " " + std::to_string(state));
}

void OnUpdateStatus(int status, void*) { Tell("update status", status); }

void OnModelStatus(int error, int status, void*) {
  Tell("model status: " + std::to_string(error) + " " + std::to_string(status));
}

// A request that is answered by callbacks, of which each round has its own, counted from 1.
struct Request {
  std::string name;
};

std::deque<Request> requests;

Request* NewRequest(const std::string& what) {
  return &requests.emplace_back(Request{what + " " + std::to_string(requests.size() + 1)});
}

void OnModels(int error, velmora_svcmgr_ai_model_list_h list, void* user_data) {
  std::string line = static_cast<Request*>(user_data)->name + ": " + std::to_string(error);
  int size = 0;
  Expect(velmora_svcmgr_ai_model_list_get_size(list, &size), "the size of a list");
  for (int i = 0; i < size; ++i) {
    velmora_svcmgr_ai_model_info_h info = nullptr;
    Expect(velmora_svcmgr_ai_model_list_get(list, i, &info), "a model of a list");
    const Model model(info);
    line += " " + TextOf(velmora_svcmgr_ai_model_info_get_id, model) + "@" +
            TextOf(velmora_svcmgr_ai_model_info_get_version, model);
  }
  Expect(velmora_svcmgr_ai_model_list_destroy(list), "the end of a list");
  Tell(line);
}

void OnProgress(int error, velmora_svcmgr_ai_progress_h progress, void* user_data) {
  int index = -1;
  int count = -1;
  int percentage = -1;
  int state = -1;
  Expect(velmora_svcmgr_ai_progress_get_index(progress, &index), "an index");
  Expect(velmora_svcmgr_ai_progress_get_count(progress, &count), "a count");
  Expect(velmora_svcmgr_ai_progress_get_percentage(progress, &percentage), "a percentage");
  Expect(velmora_svcmgr_ai_progress_get_state(progress, &state), "a state");
  Expect(velmora_svcmgr_ai_progress_destroy(progress), "the end of a progress record");
  Tell(static_cast<Request*>(user_data)->name + ": " + std::to_string(error) + " " +
       std::to_string(index) + "/" + std::to_string(count) + " " + std::to_string(percentage) +
       "% state " + std::to_string(state));
}

// ---- The words ----

bool IsConnected() {
  bool updating = false;
  return velmora_svcmgr_is_being_updated(&updating) == SVCMGR_ERROR_NONE;
}

void TellWhetherUpdating() {
  bool updating = false;
  const int result = velmora_svcmgr_is_being_updated(&updating);
  Tell("updating: " + std::to_string(result) + (updating ? " yes" : " no"));
}

void TellLevel() {
  int level = 0;
  const int result = velmora_svcmgr_get_agent_api_level(&level);
  Tell("level: " + std::to_string(result) + " " + std::to_string(level));
}

void TellClientLevel() {
  int level = 0;
  const int result = velmora_svcmgr_get_client_api_level(&level);
  Tell("client level: " + std::to_string(result) + " " + std::to_string(level));
}

// What belongs to the application, in words.
struct ProcessState {
  std::string signals;
  std::string surroundings;

  ProcessState() {
    sigset_t blocked;
    sigprocmask(SIG_BLOCK, nullptr, &blocked);
    for (int number = 1; number < NSIG; ++number) {
      struct sigaction action = {};
      sigaction(number, nullptr, &action);
      signals += action.sa_handler == SIG_DFL ? 'd' : action.sa_handler == SIG_IGN ? 'i' : 'h';
      signals += sigismember(&blocked, number) == 1 ? 'b' : ' ';
    }
    for (char** variable = environ; *variable != nullptr; ++variable) {
      surroundings += std::string(*variable) + "\n";
    }
    const mode_t mask = umask(0);
    umask(mask);
    const base::Malloced<char> folder(get_current_dir_name());
    surroundings += std::to_string(mask) + "\n" + folder.get();
  }
};

void TellWhetherUntouched() {
  static const ProcessState before;
  const ProcessState now;
  Tell(std::string("untouched: signals ") + (now.signals == before.signals ? "yes" : "no") +
       ", surroundings " + (now.surroundings == before.surroundings ? "yes" : "no"));
}

Model ModelOf(const std::string& text) {
  const std::size_t at = text.find('@');
  const std::string version = at == std::string::npos ? "" : text.substr(at + 1);
  velmora_svcmgr_ai_model_info_h info = nullptr;
  Expect(velmora_svcmgr_ai_model_info_create(&info), "a model");
  Model model(info);
  Expect(velmora_svcmgr_ai_model_info_set_id(info, text.substr(0, at).c_str()), "an ID");
  Expect(velmora_svcmgr_ai_model_info_set_version(info, version.c_str()), "a version");
  Expect(velmora_svcmgr_ai_model_info_set_title(info, ""), "a title");
  Expect(velmora_svcmgr_ai_model_info_set_description(info, ""), "a description");
  return model;
}

void AskForVersions(const std::string& model) {
  Request* request = NewRequest("versions");
  const int result =
      velmora_svcmgr_ai_request_model_version_list(ModelOf(model).get(), OnModels, request);
  Tell("ask for " + request->name, result);
}

void AskForModels() {
  Request* request = NewRequest("models");
  const int result = velmora_svcmgr_ai_request_usable_model_list(OnModels, request);
  Tell("ask for " + request->name, result);
}

void AskForCategory(const std::string& category) {
  Request* request = NewRequest("category");
  const int result = velmora_svcmgr_ai_request_usable_model_list_with_category(
      OnModels, category.c_str(), request);
  Tell("ask for " + request->name, result);
}

void AskForWork(const std::string& what,
                int (*ask)(velmora_svcmgr_ai_model_list_h, velmora_svcmgr_ai_progress_cb, void*),
                const std::string& models) {
  velmora_svcmgr_ai_model_list_h list = nullptr;
  Expect(velmora_svcmgr_ai_model_list_create(&list), "a list");
  for (std::size_t begin = 0; begin <= models.size();) {
    const std::size_t end = std::min(models.find('+', begin), models.size());
    const Model model = ModelOf(models.substr(begin, end - begin));
    Expect(velmora_svcmgr_ai_model_list_add(list, model.get()), "a model for a list");
    begin = end + 1;
  }
  Request* request = NewRequest(what);
  const int result = ask(list, OnProgress, request);
  Tell("ask for " + request->name, result);
  Expect(velmora_svcmgr_ai_model_list_destroy(list), "the end of a list");
}

void AwaitLine(const std::string& line) {
  RunUntil([&] { return std::find(told.begin(), told.end(), line) != told.end(); }, line);
  told.erase(std::find(told.begin(), told.end(), line));
}

void RunCommand(const std::string& command) {
  std::string script = "cd \"$(dirname \"$SVCMGR_SIM_CONTROL\")\" && " + command;
  std::string shell = "sh";
  std::string option = "-c";
  char* const arguments[] = {shell.data(), option.data(), script.data(), nullptr};
  pid_t child = -1;
  if (posix_spawnp(&child, "sh", nullptr, nullptr, arguments, environ) != 0) GiveUp(command);
  int status = 0;
  RunUntil([&] { return waitpid(child, &status, WNOHANG) == child; }, command);
  if (status != 0) GiveUp(command);
}

void Do(const std::string& word);

// The child ends as any program does, with all that is run at exit.
void RunChild(const std::string& words) {
  const pid_t child = fork();
  if (child < 0) GiveUp("no child");
  if (child > 0) {
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0) GiveUp("child");
    return;
  }
  speaker = "child ";
  told.clear();
  std::istringstream stream(words);
  for (std::string word; std::getline(stream, word, ',');) Do(word);
  std::exit(EXIT_SUCCESS);
}

void Do(const std::string& word) {
  const std::size_t equals = word.find('=');
  const std::string verb = word.substr(0, equals);
  const std::string object = equals == std::string::npos ? "" : word.substr(equals + 1);
  if (verb == "connect") return Tell(verb, velmora_svcmgr_connect(OnConnection, nullptr));
  if (verb == "disconnect") return Tell(verb, velmora_svcmgr_disconnect());
  if (verb == "request-update") return Tell(verb, velmora_svcmgr_request_update());
  if (verb == "updating") return TellWhetherUpdating();
  if (verb == "level") return TellLevel();
  if (verb == "client-level") return TellClientLevel();
  if (verb == "untouched") return TellWhetherUntouched();
  if (verb == "follow-updates") {
    return Expect(velmora_svcmgr_set_update_status_cb(OnUpdateStatus, nullptr), verb.c_str());
  }
  if (verb == "follow-models") {
    return Expect(velmora_svcmgr_ai_register_status_cb(OnModelStatus, nullptr), verb.c_str());
  }
  if (verb == "subscribed") return Expect(event_desktop_await_subscriptions(), verb.c_str());
  if (verb == "models") return AskForModels();
  if (verb == "versions") return AskForVersions(object);
  if (verb == "category") return AskForCategory(object);
  if (verb == "update") return AskForWork(verb, velmora_svcmgr_ai_request_to_update, object);
  if (verb == "uninstall") return AskForWork(verb, velmora_svcmgr_ai_request_to_uninstall, object);
  if (verb == "until") return AwaitLine(object);
  if (verb == "away") return RunUntil([] { return !IsConnected(); }, verb);
  if (verb == "back") return RunUntil(IsConnected, verb);
  if (verb == "child") return RunChild(object);
  if (verb == "run") return RunCommand(object);
  GiveUp("no such word: " + word);
}

void Round(const std::vector<std::string>& words) {
  for (const std::string& word : words) Do(word);
  told.clear();
  requests.clear();
}

// What answers look-ups without a system call is made, and kept, during some of them.
void LookUpOften() {
  constexpr int kOften = 1000;
  for (int i = 0; i < kOften; ++i) IsConnected();
}

gboolean TurnAgain(void*) { return G_SOURCE_CONTINUE; }

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return EXIT_FAILURE;
  const int rounds = std::atoi(argv[1]);
  const std::vector<std::string> words(argv + 2, argv + argc);
  g_timeout_add(5, TurnAgain, nullptr);
  LookUpOften();
  // What else is made once and kept stands by then.
  const int first = (rounds + 1) / 2;
  for (int i = 0; i < first; ++i) Round(words);
  if (rounds == 1) return EXIT_SUCCESS;
  const int descriptors = OpenDescriptors();
  const auto memory = static_cast<long>(BytesInUse());
  for (int i = first; i < rounds; ++i) Round(words);
  const long growth = static_cast<long>(BytesInUse()) - memory;
  std::printf("descriptors %+d, memory %s\n", OpenDescriptors() - descriptors,
              growth < 16384 ? "as before" : "grown");
  return EXIT_SUCCESS;
}
