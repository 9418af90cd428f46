// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_THREAD_EXIT_H_
#define SVCMGR_THREAD_EXIT_H_

#include <cxxabi.h>

// Stands before a catch-all clause: the unwinding of a thread that exits or is cancelled must go
// on. LLVM's C++ library has no name for it.
#if defined(__GLIBCXX__)
#define LET_THREAD_EXIT_PASS            \
  catch (const abi::__forced_unwind&) { \
    throw;                              \
  }
#else
#define LET_THREAD_EXIT_PASS
#endif

#endif  // SVCMGR_THREAD_EXIT_H_
