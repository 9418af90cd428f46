// SPDX-License-Identifier: Apache-2.0
#include "failing_allocations.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

std::atomic<bool> armed{false};
std::atomic<int> first{0};
std::atomic<int> last{0};
std::atomic<size_t> at_least{0};
std::atomic<int> seen{0};
std::atomic<int> failed{0};

bool IsOfThePorts(void* caller) {
  Dl_info info;
  if (dladdr(caller, &info) == 0 || info.dli_fname == nullptr) return false;
  return std::strstr(info.dli_fname, "librpc-port") != nullptr ||
         std::strstr(info.dli_fname, "libstdc++") != nullptr;
}

bool Fails(size_t size, void* caller) {
  if (!armed || size < at_least || !IsOfThePorts(caller)) return false;
  const int number = ++seen;
  if (number < first || number > last) return false;
  ++failed;
  return true;
}

void* Allocate(size_t size, void* caller) {
  return Fails(size, caller) ? nullptr : std::malloc(size == 0 ? 1 : size);
}

}  // namespace

FailingAllocations::FailingAllocations(int first_to_fail, int last_to_fail, size_t size) {
  first = first_to_fail;
  last = last_to_fail;
  at_least = size;
  seen = 0;
  failed = 0;
  armed = true;
}

FailingAllocations::~FailingAllocations() { armed = false; }

int FailingAllocations::count() const { return failed; }

// The program's own definitions take precedence over those of the C and C++ libraries.

#pragma GCC visibility push(default)

void* operator new(size_t size) {
  void* const block = Allocate(size, __builtin_return_address(0));
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size, __builtin_return_address(0));
}

void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, size_t) noexcept { std::free(block); }

extern "C" void* __libc_realloc(void* block, size_t size);

extern "C" void* realloc(void* block, size_t size) {
  if (!Fails(size, __builtin_return_address(0))) return __libc_realloc(block, size);
  errno = ENOMEM;
  return nullptr;
}

#pragma GCC visibility pop
