// SPDX-License-Identifier: Apache-2.0
#ifndef STAND_IN_KEPT_RECORDS_H_
#define STAND_IN_KEPT_RECORDS_H_

#include <velmora_svcmgr.h>

// Accounts for what the library keeps on purpose, for a program that links its objects: the record
// that each conversion of a model leaves, and the array of each list that is destroyed. Whatever
// else is left is a leak, and no loop runs out of memory.
namespace kept_records {

// Releases the records that were made so far, and what lists that were destroyed have left.
void Release();

// Those that were made so far belong to the caller.
void Forget();

// This one belongs to the caller, who releases it.
void Disown(velmora_svcmgr_ai_model_info_h info);

// Releases a list, which may be null; what that leaves is released with the records.
void DestroyWholly(velmora_svcmgr_ai_model_list_h list);

}  // namespace kept_records

#endif  // STAND_IN_KEPT_RECORDS_H_
