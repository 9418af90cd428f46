// SPDX-License-Identifier: Apache-2.0
#ifndef BASE_OWNED_H_
#define BASE_OWNED_H_

#include <cstdlib>
#include <memory>

namespace base {

/** Releases an object with a C function, whatever that returns. */
template <auto function>
struct Deleter {
  template <typename T>
  void operator()(T* object) const {
    function(object);
  }
};

/** Owns an object of a C interface, say `Owned<GKeyFile, g_key_file_unref>`; may be empty. */
template <typename T, auto function>
using Owned = std::unique_ptr<T, Deleter<function>>;

/** Owns what came from malloc, as most texts of C interfaces do; may be empty. */
template <typename T>
using Malloced = Owned<T, std::free>;

}  // namespace base

#endif  // BASE_OWNED_H_
