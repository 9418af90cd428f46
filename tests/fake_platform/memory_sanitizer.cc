// SPDX-License-Identifier: Apache-2.0
// Tells MemorySanitizer what the C library hands out behind its back.

#include <dlfcn.h>
#include <ftw.h>
#include <sanitizer/msan_interface.h>
#include <sys/stat.h>

#include <cstdlib>

namespace {

thread_local __nftw64_func_t on_file = nullptr;

int Unpoison(const char* path, const struct stat64* status, int type, struct FTW* place) {
  __msan_unpoison_string(path);
  __msan_unpoison(status, sizeof *status);
  __msan_unpoison(place, sizeof *place);
  return on_file(path, status, type, place);
}

}  // namespace

// In the place of the C library's, which alone is not compiled for it.
extern "C" int nftw64(const char* root, __nftw64_func_t function, int descriptors, int flags) {
  static auto* const walk = reinterpret_cast<decltype(&nftw64)>(dlsym(RTLD_NEXT, "nftw64"));
  if (walk == nullptr) std::abort();
  const auto before = on_file;
  on_file = function;
  const int result = walk(root, Unpoison, descriptors, flags);
  on_file = before;
  return result;
}
