// SPDX-License-Identifier: Apache-2.0
// A client of the C++ face that does one thing and prints what it is told:
//
//     face_client list [MILLISECONDS]             asks for the models
//     face_client level                           asks for the agent's API level
//     face_client update MODEL [MILLISECONDS]     updates a model, within so much time
//     face_client restart COMMAND                 asks for the models, then runs the command
//     face_client update-self                     asks for the models, then for an update
//     face_client kill MODEL COMMAND              updates a model, and runs the command at 20 percent
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>
#include <velmora_svcmgr_glib.hpp>

namespace vs = velmora::svcmgr;

namespace {

constexpr vs::Milliseconds kLong{120'000};

void RunLater(const std::string& command) {
  if (g_spawn_command_line_async(command.c_str(), nullptr) == FALSE) std::exit(3);
}

class Client {
 public:
  // Flushed, because a process that is started from here would write again what waits in the buffer.
  Client() {
    session_.OnState([](vs::State state) {
      std::cout << "state: " << vs::NameOf(state) << '\n' << std::flush;
    });
  }

  void List(vs::Milliseconds limit) {
    token_ = session_.Models(
        [this](const vs::Outcome<vs::ModelList>& models) {
          if (!models) return End(models.error().name());
          std::string ids;
          for (const vs::Model& model : *models) ids += ' ' + model.id() + '@' + model.version();
          End(std::to_string(models->size()) + " models" + ids);
        },
        limit);
  }

  void Level() {
    token_ = session_.AgentApiLevel([this](const vs::Outcome<int>& level) {
      End(level ? "level " + std::to_string(*level) : level.error().name());
    });
  }

  /** A request that the agent has begun to answer slowly when it replaces itself. */
  void ListAfter(vs::Task restart) {
    restart_ = std::move(restart);
    List(kLong);
    session_.OnState([this](vs::State state) {
      std::cout << "state: " << vs::NameOf(state) << '\n' << std::flush;
      if (state == vs::State::kConnected) std::exchange(restart_, nullptr)();
    });
  }

  void UpdateSelf() {
    ListAfter([this] {
      taken_ = session_.RequestUpdate([](const vs::Outcome<void>& taken) {
        std::cout << "taken: " << (taken ? "ok" : taken.error().name()) << '\n';
      });
    });
  }

  void Update(const std::string& model, vs::Milliseconds limit, std::string command = {}) {
    vs::WorkOptions options;
    options.limit = limit;
    work_ = session_.Update(
        {model},
        [this, command = std::move(command)](const vs::Progress& progress) mutable {
          if (progress.total < total_) std::cout << "backwards\n";
          total_ = progress.total;
          if (total_ >= 20 && !command.empty()) RunLater(std::exchange(command, {}));
        },
        [this](const vs::Outcome<void>& end) {
          std::cout << "total: " << work_.progress().total << '\n';
          End(end ? "done" : end.error().name());
        },
        std::move(options));
  }

  void Run() { g_main_loop_run(main_.get()); }

 private:
  void End(const std::string& word) {
    std::cout << "end: " << word << '\n';
    g_main_loop_quit(main_.get());
  }

  std::unique_ptr<GMainLoop, decltype(&g_main_loop_unref)> main_{g_main_loop_new(nullptr, FALSE),
                                                                 g_main_loop_unref};
  vs::GlibLoop loop_;
  vs::Session session_{loop_};
  vs::Token token_;
  vs::Token taken_;
  vs::ModelWork work_;
  vs::Task restart_;
  int total_ = 0;
};

vs::Milliseconds LimitFrom(const std::vector<std::string>& words, std::size_t index) {
  return index < words.size() ? vs::Milliseconds(std::stoi(words[index])) : kLong;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.empty()) return 2;
  Client client;
  if (words[0] == "list") client.List(LimitFrom(words, 1));
  if (words[0] == "level") client.Level();
  if (words[0] == "update") client.Update(words.at(1), LimitFrom(words, 2));
  if (words[0] == "restart") client.ListAfter([&words] { RunLater(words.at(1)); });
  if (words[0] == "update-self") client.UpdateSelf();
  if (words[0] == "kill") client.Update(words.at(1), kLong, words.at(2));
  client.Run();
  return EXIT_SUCCESS;
}
