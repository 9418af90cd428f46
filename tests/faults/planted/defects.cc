// SPDX-License-Identifier: Apache-2.0
#include "defects.h"

#include <app_common.h>
#include <fcntl.h>
#include <package_info.h>
#include <rpc-port.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "SvcMgrAppProxyHandler.h"

namespace planted {

Defect defect = Defect::kNone;

namespace {

constexpr int kUnknownCode = -4711;

bool connection_is_broken = false;

/** A text of the application; null if the platform fails, which most of these defects need. */
char* AppId() {
  char* text = nullptr;
  return app_get_id(&text) == 0 ? text : nullptr;
}

bool Fails() {
  char* const text = AppId();
  std::free(text);
  return text == nullptr;
}

void LoseBlock() {
  char* const copy = strdup("copy");
  if (!Fails()) std::free(copy);
}

void LosePlatformText() {
  char* const text = AppId();
  char* version = nullptr;
  if (app_get_version(&version) != 0) return;
  std::free(text);
  std::free(version);
}

void LoseNew() {
  auto* const number = new int(1);
  if (!Fails()) delete number;
}

void LoseParcel() {
  rpc_port_parcel_h parcel = nullptr;
  if (rpc_port_parcel_create(&parcel) != 0 || parcel == nullptr) return;
  if (rpc_port_parcel_write_int32(parcel, 1) != 0) return;
  rpc_port_parcel_destroy(parcel);
}

void LosePackageInfo() {
  package_info_h info = nullptr;
  if (package_info_create(AGENT_PACKAGE_ID, &info) != 0 || info == nullptr) return;
  char* version = nullptr;
  if (package_info_get_version(info, &version) != 0) return;
  std::free(version);
  package_info_destroy(info);
}

void LoseDescriptor() {
  const int descriptor = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return;
  char byte = 0;
  if (pread(descriptor, &byte, 1, 0) != 1) return;
  close(descriptor);
}

void ReleaseTwice() {
  char* const copy = strdup("copy");
  if (Fails()) std::free(copy);
  std::free(copy);
}

void ReleaseGarbage() {
  char* text = nullptr;
  app_get_id(&text);
  std::free(text);
}

void FollowNull() {
  char* text = nullptr;
  if (app_get_id(&text) != 0) return;
  volatile char first = text[0];
  static_cast<void>(first);
  std::free(text);
}

void FollowGarbageHandle() {
  package_info_h info = nullptr;
  package_info_create(AGENT_PACKAGE_ID, &info);
  if (info == nullptr) return;
  char* version = nullptr;
  if (package_info_get_version(info, &version) == 0) std::free(version);
  package_info_destroy(info);
}

void Hang() {
  while (Fails()) {
  }
}

void WriteWithoutMemory() {
  auto* const bytes = static_cast<char*>(std::malloc(16));
  bytes[0] = 'x';
  std::free(bytes);
}

int Work() {
  switch (defect) {
    case Defect::kNone:
      return Fails() ? SVCMGR_ERROR_INVALID_OPERATION : SVCMGR_ERROR_NONE;
    case Defect::kLosesBlock:
      LoseBlock();
      break;
    case Defect::kLosesPlatformText:
      LosePlatformText();
      break;
    case Defect::kLosesNew:
      LoseNew();
      break;
    case Defect::kLosesParcel:
      LoseParcel();
      break;
    case Defect::kLosesPackageInfo:
      LosePackageInfo();
      break;
    case Defect::kLosesDescriptor:
      LoseDescriptor();
      break;
    case Defect::kReleasesTwice:
      ReleaseTwice();
      break;
    case Defect::kReleasesGarbage:
      ReleaseGarbage();
      break;
    case Defect::kFollowsNull:
      FollowNull();
      break;
    case Defect::kFollowsGarbageHandle:
      FollowGarbageHandle();
      break;
    case Defect::kThrows:
      if (Fails()) throw std::bad_alloc();
      break;
    case Defect::kReturnsUnknownCode:
      if (Fails()) return kUnknownCode;
      break;
    case Defect::kHangs:
      Hang();
      break;
    case Defect::kEndsTheConnection:
      connection_is_broken = connection_is_broken || Fails();
      break;
    case Defect::kWritesWithoutMemory:
      WriteWithoutMemory();
      break;
  }
  return SVCMGR_ERROR_NONE;
}

}  // namespace
}  // namespace planted

int velmora_svcmgr_is_being_updated(bool* updating) {
  if (updating == nullptr) return SVCMGR_ERROR_INVALID_PARAMETER;
  *updating = false;
  return planted::Work();
}

int velmora_svcmgr_disconnect() {
  if (planted::connection_is_broken) return SVCMGR_ERROR_INVALID_OPERATION;
  SvcMgrAppProxyHandler& context = SvcMgrAppProxyHandler::GetInstance();
  if (context.IsConnected()) context.Disconnect();
  return SVCMGR_ERROR_NONE;
}
