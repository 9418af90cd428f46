// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_FLAG_H_
#define SVCMGR_FLAG_H_

namespace svcmgr {

// Sets a variable for the life of this object.
class Flag {
 public:
  explicit Flag(bool& variable) : variable_(variable) { variable_ = true; }
  Flag(const Flag&) = delete;
  Flag& operator=(const Flag&) = delete;
  ~Flag() { variable_ = false; }

 private:
  bool& variable_;
};

}  // namespace svcmgr

#endif  // SVCMGR_FLAG_H_
