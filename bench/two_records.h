// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_TWO_RECORDS_H_
#define BENCH_TWO_RECORDS_H_

#include <array>
#include <cstdlib>
#include <cstring>
#include <vector>

// What the library has to make of each model, whatever it comes from: two records with a block for
// each text. One of them is in the application's list, the other one is kept for good.
class TwoRecords {
 public:
  using Texts = std::array<const char*, 4>;

  void Add(const Texts& texts) {
    Record* const kept = NewRecord(texts);
    kept_.push_back(kept);
    list_.push_back(NewRecord({(*kept)[0], (*kept)[1], (*kept)[2], (*kept)[3]}));
  }

  // Calls `use` with each text of the list.
  template <typename Use>
  void ForEachText(Use use) const {
    for (const Record* record : list_) {
      for (const char* text : *record) use(text);
    }
  }

  void ReleaseList() {
    for (Record* record : list_) {
      for (char* text : *record) std::free(text);
      std::free(record);
    }
    list_.clear();
  }

 private:
  using Record = std::array<char*, 4>;

  static Record* NewRecord(const Texts& texts) {
    auto* const record = static_cast<Record*>(std::calloc(1, sizeof(Record)));
    for (std::size_t field = 0; field < texts.size(); ++field) {
      (*record)[field] = strdup(texts[field]);
    }
    return record;
  }

  std::vector<Record*> kept_;
  std::vector<Record*> list_;
};

#endif  // BENCH_TWO_RECORDS_H_
