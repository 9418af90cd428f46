// SPDX-License-Identifier: Apache-2.0
#include "places.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>

#include "owned.h"

namespace sweep {
namespace {

std::string FileName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string Demangled(const char* name) {
  int status = 0;
  const base::Malloced<char> text(abi::__cxa_demangle(name, nullptr, nullptr, &status));
  return status == 0 ? text.get() : name;
}

/** Without arguments of functions and templates, which only make a stack harder to read. */
std::string Shortened(const std::string& function) {
  std::string text;
  int depth = 0;
  for (const char c : function) {
    if (c == '<' || c == '(') ++depth;
    if (depth == 0) text += c;
    if ((c == '>' || c == ')') && depth > 0) --depth;
  }
  return text.empty() ? function : text;
}

/** The functions at an offset of a file, those inlined there first; empty if unknown. */
std::vector<std::string> Lookup(const std::string& file, std::uintptr_t offset) {
  char arguments[64];
  snprintf(arguments, sizeof arguments, "' 0x%zx 2>/dev/null", static_cast<std::size_t>(offset));
  const std::string command = "addr2line -Cfie '" + file + arguments;
  const base::Owned<FILE, pclose> pipe(popen(command.c_str(), "r"));
  std::vector<std::string> lines;
  char line[4096];
  while (pipe && fgets(line, sizeof line, pipe.get()) != nullptr) {
    lines.emplace_back(line);
    while (!lines.back().empty() && lines.back().back() == '\n') lines.back().pop_back();
  }
  std::vector<std::string> functions;
  for (std::size_t i = 0; i + 1 < lines.size(); i += 2) {
    if (lines[i].rfind("??", 0) == 0) return {};
    const std::string place = lines[i + 1].substr(0, lines[i + 1].find(" ("));
    if (place.rfind("??", 0) == 0) return {};
    const std::string path = std::filesystem::path(place).lexically_normal();
    functions.push_back(Shortened(lines[i]) + " (" + path + ")");
  }
  return functions;
}

const std::vector<std::string>& FunctionsAt(const void* address) {
  static std::map<const void*, std::vector<std::string>> known;
  const auto [entry, is_new] = known.try_emplace(address);
  if (!is_new) return entry->second;
  Dl_info info = {};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
    entry->second = {"?"};
    return entry->second;
  }
  // A return address may belong to the next line; the call is before it.
  const auto offset =
      reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(info.dli_fbase);
  entry->second = Lookup(info.dli_fname, offset - 1);
  if (entry->second.empty()) {
    const std::string name = info.dli_sname == nullptr ? "?" : Shortened(Demangled(info.dli_sname));
    entry->second = {name + " (" + FileName(info.dli_fname) + ")"};
  }
  return entry->second;
}

bool IsOfTheSweep(const std::string& function) {
  return function.find("(tests/sweep/failing_allocations.") != std::string::npos;
}

bool IsOwn(const std::string& function) {
  return function.find("(platform/") != std::string::npos ||
         function.find("(src/") != std::string::npos;
}

}  // namespace

bool IsIn(const void* address, const char* library) {
  Dl_info info = {};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return false;
  return FileName(info.dli_fname).rfind(library, 0) == 0;
}

bool IsOf(const void* address, const char* function) {
  Dl_info info = {};
  return dladdr(address, &info) != 0 && info.dli_sname != nullptr &&
         strcmp(info.dli_sname, function) == 0;
}

const void* LibraryOf(const void* address) {
  Dl_info info = {};
  return dladdr(address, &info) == 0 ? nullptr : info.dli_fbase;
}

bool IsOfThisTree(const void* address) {
  for (const char* const library :
       {"libvelmora-svcmgr.", "librpc-port.", "libbundle.", "libdlog.", "libcapi-appfw-"}) {
    if (IsIn(address, library)) return true;
  }
  return false;
}

std::vector<std::string> Describe(const Stack& stack) {
  std::vector<std::string> functions;
  for (int i = 0; i < stack.depth; ++i) {
    for (const std::string& function : FunctionsAt(stack.frames[i])) {
      if (!IsOfTheSweep(function)) functions.push_back(function);
    }
  }
  return functions;
}

std::string Fingerprint(const Stack& stack) {
  std::string text;
  for (int i = 0; i < stack.depth; ++i) {
    Dl_info info = {};
    if (dladdr(stack.frames[i], &info) == 0 || info.dli_fname == nullptr) continue;
    text += FileName(info.dli_fname) + std::to_string(static_cast<char*>(stack.frames[i]) -
                                                      static_cast<char*>(info.dli_fbase));
  }
  return std::to_string(std::hash<std::string>()(text));
}

std::string PlaceOf(const Stack& stack) {
  const std::vector<std::string> functions = Describe(stack);
  for (const std::string& function : functions) {
    if (IsOwn(function)) return function;
  }
  return functions.empty() ? "?" : functions.front();
}

}  // namespace sweep
