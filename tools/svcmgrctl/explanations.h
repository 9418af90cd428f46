// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_EXPLANATIONS_H_
#define TOOLS_SVCMGRCTL_EXPLANATIONS_H_

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace svcmgrctl {

/** What a number belongs to. */
enum class Family {
  /** velmora_svcmgr_error_e */
  kError,
  /** velmora::svcmgr::OwnError: what the C interface has no code for. */
  kFaceError,
  /** A failure of svcmgrctl itself, which has a name alone. */
  kOwnFailure,
  /** velmora_svcmgr_update_status_e */
  kUpdateStatus,
  /** velmora_svcmgr_ai_status_e */
  kModelStatus,
  /** velmora_svcmgr_connection_state_e */
  kConnectionState,
  /** What the agent answers to a request for models; the name is that of the code that it becomes. */
  kModelResult,
  /** How the agent ends an update; the name is that of the status that it becomes. */
  kUpdateResult,
  /** What svcmgrctl ends with. */
  kExitStatus,
  /** A constant of the public header that is a macro. */
  kConstant,
};

/** What is to be known of a number or a name; static texts in English, empty where there is nothing
 *  to say. The traps are those of the public header. */
struct Explanation {
  Family family = Family::kError;
  int number = 0;
  std::string_view name;
  /** Whole sentences, or a part of one where it is a status. */
  std::string_view meaning;
  /** Who returns or reports it. */
  std::string_view returned_by;
  /** What an application or a person does about it, in sentences. */
  std::string_view remedy;
  /** The same in a few words, for who reads an error of svcmgrctl. */
  std::string_view hint;
};

/** Everything that can be explained. */
std::span<const Explanation> Explanations();

/** The one with this number; null if the interface does not have it, as of a newer library. */
const Explanation* FindExplanation(Family family, int number);

/** What a person does about a failure of this name, in a few words; empty if that is not known. */
std::string_view HintFor(std::string_view name);

/** What a family is called, with an article. */
std::string_view NameOf(Family family);

/** All that a word of a person may stand for: a number, decimal or hexadecimal, or a name, whole or
 *  without what it begins with, in any case. */
std::vector<const Explanation*> ExplanationsOf(std::string_view word);

/** Names that may have been meant by such a word. */
std::vector<std::string> NamesLike(std::string_view word);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_EXPLANATIONS_H_
