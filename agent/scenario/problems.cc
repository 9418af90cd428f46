// SPDX-License-Identifier: Apache-2.0
#include "scenario/problems.h"

#include <iterator>

#include "common/report.h"
#include "terminal_text.h"

namespace sim {
namespace {

using terminal_text::Shortened;

constexpr std::size_t kMostShown = 100;

std::string Escaped(std::string_view key) {
  std::string step;
  for (const char c : Shortened(key)) {
    if (c == '~') {
      step += "~0";
    } else if (c == '/') {
      step += "~1";
    } else {
      step += c;
    }
  }
  return step;
}

}  // namespace

struct JsonPointer::Step {
  std::shared_ptr<const Step> before;
  std::string_view key;
  std::size_t index;  // counts where the key is no text at all
};

JsonPointer JsonPointer::Of(std::string_view key) const {
  return JsonPointer(std::make_shared<const Step>(Step{last_, key, 0}));
}

JsonPointer JsonPointer::Of(std::size_t index) const {
  return JsonPointer(std::make_shared<const Step>(Step{last_, std::string_view(), index}));
}

std::string JsonPointer::Text() const {
  std::string text;
  for (const Step* step = last_.get(); step != nullptr; step = step->before.get()) {
    const bool is_key = step->key.data() != nullptr;
    text.insert(0, "/" + (is_key ? Escaped(step->key) : std::to_string(step->index)));
  }
  return text;
}

void Problems::Add(Place place, const JsonPointer& pointer, std::string_view reason) {
  ++count_;
  const std::pair key(place.line, place.column);
  if (first_.size() == kMostShown && key >= first_.rbegin()->first) return;
  const std::string where = pointer.Text();
  first_.emplace(key, (where.empty() ? "" : Quotable(where) + ": ") + Quotable(Shortened(reason)));
  if (first_.size() > kMostShown) first_.erase(std::prev(first_.end()));
}

void Problems::ThrowIfAny(const std::string& name) const {
  if (count_ == 0) return;
  std::string lines;
  for (const auto& [place, problem] : first_) {
    lines += (lines.empty() ? "" : "\n") + Quotable(name) + ":" + std::to_string(place.first) +
             ":" + std::to_string(place.second) + ": " + problem;
  }
  if (const std::size_t others = count_ - first_.size(); others > 0) {
    lines += "\n" + Quotable(name) + ": " + std::to_string(others) +
             (others == 1 ? " further problem" : " further problems");
  }
  throw ScenarioError(lines);
}

}  // namespace sim
