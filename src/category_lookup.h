// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_CATEGORY_LOOKUP_H_
#define SVCMGR_CATEGORY_LOOKUP_H_

#include "app_identity.h"

namespace svcmgr {

// Finds the first of the vendor's packages, in the package manager's order, whose application
// declares the category; a null category is declared by none. Throws NoSuchAppException.
AppIdentity FindPackageOfCategory(const char* category);

}  // namespace svcmgr

#endif  // SVCMGR_CATEGORY_LOOKUP_H_
