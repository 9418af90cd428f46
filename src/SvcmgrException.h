// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_SVCMGREXCEPTION_H_
#define SVCMGR_SVCMGREXCEPTION_H_

#include <exception>

// Failures of the client layer. None leaves the library.
class SvcmgrException : public std::exception {};

class AppInfoException : public SvcmgrException {
 public:
  const char* what() const noexcept override { return "Failed to get app info."; }
};

class NoSuchAppException : public SvcmgrException {
 public:
  const char* what() const noexcept override { return "No such package for the category."; }
};

class RegisterEventException : public SvcmgrException {
 public:
  const char* what() const noexcept override { return "Failed to register app event."; }
};

class DeregisterEventException : public SvcmgrException {
 public:
  const char* what() const noexcept override { return "Failed to deregister app event."; }
};

#endif  // SVCMGR_SVCMGREXCEPTION_H_
