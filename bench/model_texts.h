// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_MODEL_TEXTS_H_
#define BENCH_MODEL_TEXTS_H_

#include <string>
#include <vector>

// What is measured with: models that differ from each other, a number and a licence. bench.py's
// scenarios have the same.

struct ModelTexts {
  std::string id;
  std::string version;
  std::string title;
  std::string description;
};

inline ModelTexts TextsOfModel(int number) {
  const std::string text = std::to_string(number);
  return {"com.example.model." + text, "1.0.0", "The model of number " + text,
          std::string(80, 'd')};
}

inline std::vector<ModelTexts> TextsOfModels(int count) {
  std::vector<ModelTexts> models;
  for (int number = 0; number < count; ++number) models.push_back(TextsOfModel(number));
  return models;
}

constexpr int kLevel = 11;

inline std::string TextOfLicence() { return std::string(20 * 1024, 'l'); }

#endif  // BENCH_MODEL_TEXTS_H_
