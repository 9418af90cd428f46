// SPDX-License-Identifier: Apache-2.0
// Calls of the application, answers of the agent and events in any order, as one program, compared
// step by step with the model of the walks.
//
// Input: steps. A byte chooses the step; its upper bits say which numbers the agent says in it, and
// where they say so, four bytes follow that are the number.

#include <cstring>
#include <iterator>

#include "input.h"
#include "unit/update_walk.h"

namespace {

using update_walk::kMoreSteps;
using update_walk::kSteps;
using update_walk::Model;
using update_walk::Sayings;
using update_walk::Step;

// Those that mean something.
constexpr int kNumbers[] = {0, -13, Model::kKyrDisabled, -1, 3, 7};

const Step& StepOf(std::size_t number) {
  number %= std::size(kSteps) + std::size(kMoreSteps);
  return number < std::size(kSteps) ? kSteps[number] : kMoreSteps[number - std::size(kSteps)];
}

int NumberFrom(Input* input, std::size_t choice) {
  if (choice < std::size(kNumbers)) return kNumbers[choice];
  int number = 0;
  std::memcpy(&number, std::string(input->Bytes(sizeof number)).append(4, '\0').data(),
              sizeof number);
  return number;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kLongest = 300;
  Input input(data, size);
  update_walk::Walk walk;
  std::vector<Sayings> said;
  Model model;
  while (!input.empty() && walk.size() < kLongest) {
    const std::uint8_t choice = input.Byte();
    const Step& step = StepOf(choice % 32);
    const int number = NumberFrom(&input, choice / 32);
    if (!(model.*step.possible)()) continue;
    model.said = {number, number};
    (model.*step.expected)();
    walk.push_back(&step);
    said.push_back(model.said);
  }
  const std::string differences = update_walk::DifferencesOf(walk, said);
  if (!differences.empty()) std::fputs(differences.c_str(), stderr);
  REQUIRE(differences.empty());
  return 0;
}
