// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "examination.h"
#include "table.h"

namespace svcmgrctl {
namespace {

const char* WordFor(Health health) {
  switch (health) {
    case Health::kWell:
      return "ok";
    case Health::kIll:
      return "problem";
    case Health::kUnknown:
      break;
  }
  return "unknown";
}

Tone ToneFor(Health health) {
  if (health == Health::kUnknown) return Tone::kPlain;
  return health == Health::kWell ? Tone::kGood : Tone::kBad;
}

Json ToJson(const Finding& finding) {
  const bool is_ill = finding.failure.has_value();
  return {{"part", finding.part},
          {"state", WordFor(finding.health)},
          {"finding", finding.what},
          {"remedy", finding.remedy.empty() ? Json() : Json(finding.remedy)},
          {"code", is_ill && finding.failure->code ? Json(*finding.failure->code) : Json()},
          {"name", is_ill ? Json(finding.failure->name) : Json()},
          {"exit", is_ill ? static_cast<int>(finding.failure->exit) : kExitDone}};
}

std::string TableOf(const std::vector<Finding>& findings, const Console& console) {
  Table table;
  std::string remedies;
  for (const Finding& finding : findings) {
    table.AddRow({{finding.title, Tone::kHeading},
                  {WordFor(finding.health), ToneFor(finding.health)},
                  {finding.what}});
    if (!finding.remedy.empty())
      remedies += Paragraph("  " + std::string(finding.title) + ": ", finding.remedy, 4,
                            console.text_width());
  }
  if (remedies.empty()) return table.Render(console.color(), console.table_width());
  return table.Render(console.color(), console.table_width()) + "\n" +
         Painted("What to do", Tone::kHeading, console.color()) + "\n" + remedies;
}

void ShowHealth(Session& session, Console& console, double listen) {
  const std::vector<Finding> findings = Examine(session, console.timeout(), listen);
  const auto worst = std::find_if(findings.begin(), findings.end(),
                                  [](const Finding& each) { return each.failure.has_value(); });
  Json parts = Json::array();
  for (const Finding& finding : findings) parts.push_back(ToJson(finding));
  console.Data({{"well", worst == findings.end()}, {"parts", parts}}, TableOf(findings, console),
               parts);
  if (worst != findings.end()) throw *worst->failure;
}

}  // namespace

void AddDoctorCommand(CLI::App& app, Command* chosen) {
  auto listen = std::make_shared<double>(0);
  CLI::App* doctor = app.add_subcommand(
      "doctor", "Look for what is wrong between this machine and the agent, and say what to do");
  AddListenOption(*doctor, listen);
  doctor->callback([chosen, listen] {
    *chosen = [listen](Session& session, Console& console) {
      ShowHealth(session, console, *listen);
    };
  });
}

}  // namespace svcmgrctl
