// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "commands.h"
#include "queries.h"
#include "terminal_text.h"

namespace svcmgrctl {
namespace {

using terminal_text::ForTerminal;
using terminal_text::Layout;

void ShowApiLevel(Session& session, Console& console) {
  session.Connect();
  const int level = AskApiLevel(session);
  console.Data({{"api_level", level}}, std::to_string(level) + "\n");
}

void ShowLicense(Session& session, Console& console) {
  session.Connect();
  const std::string license = AskLicense(session);
  std::string text = ForTerminal(license, Layout::kKeep);
  if (text.empty() || text.back() != '\n') text += '\n';
  console.Data({{"license", license}}, text);
}

}  // namespace

void AddAgentCommands(CLI::App& app, Command* chosen) {
  app.add_subcommand("api-level", "Print the API level that the agent implements")
      ->callback([chosen] { *chosen = ShowApiLevel; });
  app.add_subcommand("license", "Print the agent's licence text")->callback([chosen] {
    *chosen = ShowLicense;
  });
}

}  // namespace svcmgrctl
