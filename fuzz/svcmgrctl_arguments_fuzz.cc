// SPDX-License-Identifier: Apache-2.0
// What somebody types behind svcmgrctl's name: understood, or refused with a message for people. No
// command is run.
//
// Input: a byte that says what people see the message in, then the arguments as lines. NUL ends an
// argument, as it does for a program.

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "command_line.h"
#include "console.h"
#include "input.h"
#include "screen.h"

namespace {

using svcmgrctl::Failure;
using svcmgrctl::Invocation;

std::vector<std::string> WordsOf(Input* input) {
  std::vector<std::string> words = {"svcmgrctl"};
  for (std::string_view rest = input->Rest(); !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    words.emplace_back(line.substr(0, line.find('\0')));
  }
  return words;
}

std::optional<Failure> Read(const std::vector<std::string>& words, Invocation* invocation) {
  try {
    svcmgrctl::ReadCommandLine(words, invocation);
    return std::nullopt;
  } catch (const Failure& failure) {
    return failure;
  }
}

void CheckRefusal(const Failure& failure, const Invocation& invocation) {
  REQUIRE(failure.exit == svcmgrctl::kExitUsage && failure.name == "USAGE" && !failure.code);
  REQUIRE(!failure.message.empty());
  svcmgrctl::Console(invocation.options).Error(failure);
  const std::string errors = screen::TakeErrors();
  REQUIRE(screen::TakeOutput().empty());
  REQUIRE(!errors.empty() && errors.find('\n') == errors.size() - 1);
  if (invocation.options.json) {
    const auto json = nlohmann::json::parse(errors);
    REQUIRE(json["error"]["name"] == "USAGE" && json["error"]["message"].is_string());
    REQUIRE(screen::IsPlain(errors, screen::Characters::kAscii));
  } else {
    REQUIRE(screen::IsPlain(screen::WithoutColors(errors), screen::Characters::kAll));
  }
}

// Either something is to be done, or there is a text to be read; or nothing completes a word.
void CheckInvocation(const Invocation& invocation, bool completes) {
  REQUIRE(invocation.command == nullptr || invocation.text.empty());
  REQUIRE(completes || invocation.command != nullptr || !invocation.text.empty());
  REQUIRE(screen::IsPlain(invocation.text, screen::Characters::kAll));
  if (completes) return;
  const svcmgrctl::Options& options = invocation.options;
  REQUIRE(options.timeout >= 0 && options.timeout <= 3456000);
  if (invocation.command != nullptr) {
    REQUIRE(!(options.json && (options.verbose || options.fields || options.selection)));
    REQUIRE(!(options.verbose && options.quiet));
    const bool wants_selection = options.fields || (options.format && !options.json);
    REQUIRE(options.selection.has_value() == wants_selection);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  screen::Use(input.Byte() % 2 == 0 ? screen::Kind::kPipe : screen::Kind::kTerminal);
  const std::vector<std::string> words = WordsOf(&input);
  Invocation invocation;
  if (const auto failure = Read(words, &invocation)) {
    CheckRefusal(*failure, invocation);
  } else {
    CheckInvocation(invocation, words.size() > 2 && words[1] == "complete" && words[2] == "--");
  }
  screen::Leave();
  return 0;
}
