// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_SERVICE_PROGRESS_H_
#define SVCMGR_SERVICE_PROGRESS_H_

// Allocated zero-filled by calloc. The values are the agent's; none is checked.
struct velmora_svcmgr_ai_progress_s {
  int index;
  int count;
  int percentage;
  int state;
};

#endif  // SVCMGR_SERVICE_PROGRESS_H_
