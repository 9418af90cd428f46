// SPDX-License-Identifier: Apache-2.0
#ifndef DLOG_VISIBLE_TEXT_H_
#define DLOG_VISIBLE_TEXT_H_

#include <memory_resource>
#include <string>
#include <string_view>

namespace dlog_desktop {

// Appends a text so that nothing in it hides: the bytes of what must not reach a terminal, and
// those that are not UTF-8, become visible one by one. Tabs are passed on.
void AppendVisible(std::pmr::string* out, std::string_view text);

}  // namespace dlog_desktop

#endif  // DLOG_VISIBLE_TEXT_H_
