// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_SVCMGRAPPPROXYEXCEPTION_H_
#define SVCMGR_SVCMGRAPPPROXYEXCEPTION_H_

namespace rpc_port::SvcMgrAppProxy::proxy {

// What the port proxy throws. The types alone tell the failures apart.
class Exception {};
class NotConnectedSocketException : public Exception {};
class InvalidProtocolException : public Exception {};
class InvalidIOException : public Exception {};
class PermissionDeniedException : public Exception {};
class InvalidIDException : public Exception {};

}  // namespace rpc_port::SvcMgrAppProxy::proxy

#endif  // SVCMGR_SVCMGRAPPPROXYEXCEPTION_H_
