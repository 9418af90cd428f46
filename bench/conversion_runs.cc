// SPDX-License-Identifier: Apache-2.0
// Turns a list of models in memory, from its bytes to the application's callback, into records,
// many times in a row:
//
//     conversion_runs library|limit TIMES MODELS
//
// prints the nanoseconds of each time. Either side keeps what the library keeps, so that the heap
// looks as it does in an application that has run for a while; each has a process of its own for
// that.

#include <rpc-port-desktop.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "SvcMgrAppProxyCallback.h"
#include "bench_world.h"
#include "models.h"
#include "times.h"
#include "two_records.h"

namespace {

using List = velmora_svcmgr_ai_model_list_h;

// A message as it arrives, read up to its list.
class Message {
 public:
  explicit Message(rpc_port_parcel_h original) {
    const void* bytes = nullptr;
    std::size_t size = 0;
    rpc_port_desktop_parcel_get_bytes(original, &bytes, &size);
    Require(rpc_port_parcel_create(&parcel_) == 0, "make a parcel");
    rpc_port_desktop_parcel_set_bytes(parcel_, bytes, size);
  }
  ~Message() { rpc_port_parcel_destroy(parcel_); }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  rpc_port_parcel_h get() const { return parcel_; }

 private:
  rpc_port_parcel_h parcel_ = nullptr;
};

// ---- The library --------------------------------------------------------------------------------

void OnList(int, List list, void* received) { *static_cast<List*>(received) = list; }

class Library {
 public:
  void Convert(rpc_port_parcel_h parcel) { delegate_.OnReceivedEvent(parcel); }
  void Release() { Require(velmora_svcmgr_ai_model_list_destroy(list_) == 0, "release a list"); }

 private:
  List list_ = nullptr;
  svcmgr::GetModelVersionListCB delegate_{{OnList, &list_}};
};

// ---- The limit ----------------------------------------------------------------------------------

// A list without checks and logs: each text is read as the platform hands it out, all go into one
// block, and from there into the two records of its model. One of them is kept for good.
class Limit {
 public:
  void Convert(rpc_port_parcel_h parcel) {
    int number = 0;
    int models = 0;
    Require(rpc_port_parcel_read_int32(parcel, &number) == 0 &&
                rpc_port_parcel_read_array_count(parcel, &models) == 0,
            "read a list");
    std::string texts;
    for (int i = 0; i < models * 4; ++i) {
      char* text = nullptr;
      Require(rpc_port_parcel_read_string(parcel, &text) == 0, "read a text");
      texts.append(text, std::strlen(text) + 1);
      std::free(text);
    }
    const char* text = texts.data();
    for (int i = 0; i < models; ++i) {
      TwoRecords::Texts fields = {};
      for (const char*& field : fields) {
        field = text;
        text += std::strlen(text) + 1;
      }
      records_.Add(fields);
    }
  }
  void Release() { records_.ReleaseList(); }

 private:
  TwoRecords records_;
};

// -------------------------------------------------------------------------------------------------

template <typename Side>
void Run(std::size_t times, int models) {
  rpc_port_parcel_h original = nullptr;
  Require(rpc_port_parcel_create(&original) == 0, "make a parcel");
  rpc_port_parcel_write_int32(original, 0);  // the agent's result
  WriteModels(original, models);
  std::vector<Clock::duration> all(times);
  Side side;
  for (Clock::duration& time : all) {
    const auto start = Clock::now();
    {
      const Message message(original);
      side.Convert(message.get());
    }
    time = Clock::now() - start;
    side.Release();
  }
  PrintTimes(all);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s library|limit TIMES MODELS\n", argv[0]);
    return 2;
  }
  const std::size_t times = std::strtoul(argv[2], nullptr, 10);
  const int models = std::atoi(argv[3]);
  const BenchWorld world;
  std::string(argv[1]) == "library" ? Run<Library>(times, models) : Run<Limit>(times, models);
  return 0;
}
