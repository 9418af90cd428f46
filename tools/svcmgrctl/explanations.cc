// SPDX-License-Identifier: Apache-2.0
#include "explanations.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <optional>
#include <velmora_svcmgr.hpp>

#include "failure.h"
#include "terminal_text.h"

namespace svcmgrctl {
namespace {

constexpr std::string_view kEverybody = "every function";
constexpr std::string_view kModelAnswers =
    "the callbacks of the model requests (velmora_svcmgr_ai_model_list_cb, "
    "velmora_svcmgr_ai_progress_cb)";
constexpr std::string_view kUpdateCallback = "velmora_svcmgr_update_status_cb";
constexpr std::string_view kModelCallback = "velmora_svcmgr_ai_status_cb";
constexpr std::string_view kConnectionCallback = "velmora_svcmgr_connection_cb";
constexpr std::string_view kAskAgent = "See the agent's documentation.";
constexpr std::string_view kAskAgentHint = "see the agent's documentation";
constexpr std::string_view kUpdateAgain =
    "Ask for the update again later; the agent's log says more.";
constexpr std::string_view kUpdateAgainHint = "ask again later; the agent's log says more";
constexpr std::string_view kFace = "the C++ face";
constexpr std::string_view kThisProgram = "svcmgrctl";

#define NAMED(number) number, #number

constexpr Explanation kExplanations[] = {
    {Family::kError, NAMED(SVCMGR_ERROR_NONE),
     "Success. For the licence also \"no text\" (trap 15); for model requests also the agent's "
     "results 2 and 10 (trap 14).",
     kEverybody, "Test the licence text for null.", ""},
    {Family::kError, NAMED(SVCMGR_ERROR_CONNECTION_FAILED),
     "The agent is not running, offers no such port, or the platform is short of memory or "
     "descriptors.",
     "velmora_svcmgr_connect",
     "Connect again later: this is the failure after which that works. Without a device, start the "
     "application with svcmgr-sim run.",
     "start it; without a device: svcmgr-sim run demo -- \u2026"},
    {Family::kError, NAMED(SVCMGR_ERROR_IO_ERROR), "Input or output failed in a lower layer.",
     "no function so far", "No function returns it so far. Treat it as a failure that may pass.",
     "try again; --verbose says what failed"},
    {Family::kError, NAMED(SVCMGR_ERROR_OUT_OF_MEMORY), "A handle could not be allocated.",
     "the functions that make a handle (velmora_svcmgr_agent_list_create, "
     "velmora_svcmgr_ai_model_info_create, velmora_svcmgr_ai_model_list_create, "
     "velmora_svcmgr_ai_progress_create)",
     "Release what is not needed, and try again.", "free memory, then try again"},
    {Family::kError, NAMED(SVCMGR_ERROR_PERMISSION_DENIED),
     "From connecting: the application may not connect. In the connection callback: the agent "
     "refused the application, and only a new process can connect. From a request: the agent "
     "refuses what was asked.",
     "velmora_svcmgr_connect, velmora_svcmgr_connection_cb, velmora_svcmgr_request_update, and the "
     "callbacks of the model requests (velmora_svcmgr_ai_model_list_cb)",
     "Declare the privilege that the device asks for; ask the device's maker to admit the "
     "application. Trying again in the same process does not help.",
     "have the agent admit this application, then start it anew"},
    {Family::kError, NAMED(SVCMGR_ERROR_INVALID_PARAMETER),
     "A required argument is null or out of its range. In a request by category: no application "
     "declares the category, or the search ended before it (trap 19).",
     "every function that has a required argument",
     "Mend the call. For a category: install the application that declares it.",
     "--verbose says which argument"},
    {Family::kError, NAMED(SVCMGR_ERROR_NO_SPACE), "The agent reports lack of storage.",
     kModelAnswers, "Remove models or other data, then ask again.",
     "remove models with 'svcmgrctl models uninstall', then try again"},
    {Family::kError, NAMED(SVCMGR_ERROR_INVALID_OPERATION),
     "The operation could not be carried out. From a model request: it could not be sent, for "
     "example because the connection does not stand yet or any more; or a text of a model is not "
     "set. In a callback: the agent failed, or its message could not be read. From anything: "
     "something unforeseen, such as memory that has run out.",
     kEverybody,
     "From a request: wait for the connection, set all four texts of each model. In a callback: "
     "ask "
     "again later. The log says more.",
     "try again later; --verbose says more"},
    {Family::kError, NAMED(SVCMGR_ERROR_ALREADY_CONNECTED), "The connection stands.",
     "velmora_svcmgr_connect", "Go on; the callback of the first call stays in use.",
     "use the connection that stands"},
    {Family::kError, NAMED(SVCMGR_ERROR_NOT_CONNECTED),
     "There is no connection: none was started, it was ended or lost, or the agent is replacing "
     "itself. velmora_svcmgr_request_update also returns it for other failures (trap 16).",
     "velmora_svcmgr_get_license_fulltext, velmora_svcmgr_get_agent_api_level, "
     "velmora_svcmgr_request_update, velmora_svcmgr_request_update_with_list, "
     "velmora_svcmgr_is_being_updated, and the model requests (velmora_svcmgr_ai_request_*)",
     "Connect, and wait for the callback. After a loss, wait for the agent's return: The life of a "
     "connection.",
     "try again; 'svcmgrctl doctor' looks for the reason"},
    {Family::kError, NAMED(SVCMGR_ERROR_NOT_SUPPORTED),
     "The agent's package is not installed. Found before any argument is looked at. For "
     "velmora_svcmgr_get_client_api_level also: no marker was found.",
     kEverybody,
     "Work without the agent, or have it installed. For the level: link the marker "
     "(client-api-level.md).",
     "without a device: svcmgr-sim run demo -- \u2026"},
    {Family::kError, NAMED(SVCMGR_ERROR_INVALID_API_LEVEL),
     "The agent could not be asked for its level, or answered -1.",
     "velmora_svcmgr_get_agent_api_level", "Ask again once the connection stands.",
     "try again; an agent that answers so again has no level"},
    {Family::kError, NAMED(SVCMGR_ERROR_KYR_DISABLED),
     "The KYR feature of the agent is switched off.",
     "velmora_svcmgr_get_license_fulltext, velmora_svcmgr_get_agent_api_level, "
     "velmora_svcmgr_request_update, and the callbacks of the model requests "
     "(velmora_svcmgr_ai_model_list_cb)",
     "Offer what works without it; ask again later. The connection is in order.",
     "have the feature switched on, then try again"},
    {Family::kError, NAMED(SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION),
     "The installed agent is older than the function needs: 1.7 for models, 2.3 for models by "
     "category and for updates of named agents.",
     "velmora_svcmgr_request_update_with_list, and the model requests "
     "(velmora_svcmgr_ai_request_*)",
     "Have the agent updated (velmora_svcmgr_request_update needs no version), then ask again.",
     "have the agent updated with 'svcmgrctl update'"},
    {Family::kError, NAMED(SVCMGR_ERROR_AGENT_CODE_6),
     "The agent's result 6; what it means is the agent's.", kModelAnswers, kAskAgent,
     kAskAgentHint},
    {Family::kError, NAMED(SVCMGR_ERROR_OUT_OF_INDEX),
     "An index is not below the size of the list.",
     "velmora_svcmgr_agent_list_get, velmora_svcmgr_ai_model_list_get",
     "Ask for the size first. A negative index is not detected (trap 23).", "try again"},
    {Family::kError, NAMED(SVCMGR_ERROR_AGENT_CODE_3),
     "The agent's result 3; what it means is the agent's.", kModelAnswers, kAskAgent,
     kAskAgentHint},

    {Family::kFaceError, vs::kConnectionLost, "CONNECTION_LOST",
     "the connection was lost before the answer came", kFace,
     "Ask again when the connection stands; what the agent has begun may go on.",
     "try again; 'svcmgrctl doctor' tells whether the agent is back"},
    {Family::kFaceError, vs::kTimedOut, "TIMEOUT", "the time limit is over", kFace,
     "Try again, or wait longer; what the agent has begun may go on.",
     "try again, or wait longer with --timeout"},
    {Family::kFaceError, vs::kSessionExists, "SESSION_EXISTS",
     "there is another session in this process", kFace, "Share that session, or destroy it first.",
     ""},
    {Family::kFaceError, vs::kNoLicense, "NO_LICENSE",
     "the agent has no licence text, or could not be asked", kFace,
     "Try again when the connection stands; an agent that answers so again has none.",
     "try again; an agent that answers so again has none"},
    {Family::kFaceError, vs::kWorkFailed, "WORK_FAILED",
     "work on models has failed, and the agent gives no code", kFace,
     "Try again; the agent says no more about the reason.",
     "try again; the agent says no more about the reason"},
    {Family::kFaceError, vs::kNotTaken, "NOT_TAKEN",
     "the agent did not take a request for an update, and does not say why", kFace,
     "Try again later; the agent may be busy with another update.",
     "try again later; the agent may be busy with another update"},

    {Family::kOwnFailure, kExitUsage, "USAGE", "The command line is wrong.", kThisProgram,
     "See svcmgrctl help.", ""},
    {Family::kOwnFailure, kExitNotFound, "NOT_FOUND",
     "There is no such model, version, folder or name.", kThisProgram,
     "See what there is: svcmgrctl models list, svcmgrctl explain.", ""},
    {Family::kOwnFailure, kExitFailed, "WRITE_FAILED", "Standard output cannot be written to.",
     kThisProgram, "Make room on the disk, or write elsewhere.", "make room, or write elsewhere"},
    {Family::kOwnFailure, kExitFailed, "UNFORESEEN", "Something happened that nobody has foreseen.",
     kThisProgram, "Try again; --verbose says more.", "try again; --verbose says more"},
    {Family::kOwnFailure, kExitInterrupted, "INTERRUPTED", "SIGINT has ended the command.",
     kThisProgram, "", ""},
    {Family::kOwnFailure, kExitTerminated, "TERMINATED", "SIGTERM has ended the command.",
     kThisProgram, "", ""},

    {Family::kUpdateStatus, NAMED(SVCMGR_UPDATE_STATUS_STARTED), "the update has begun",
     kUpdateCallback, "Wait for the status with which it ends.", ""},
    {Family::kUpdateStatus, NAMED(SVCMGR_UPDATE_STATUS_COMPLETED), "the update has ended well",
     kUpdateCallback, "", ""},
    {Family::kUpdateStatus, NAMED(SVCMGR_UPDATE_STATUS_RESULT_1),
     "the update has failed with the agent's result 1", kUpdateCallback, kAskAgent, kAskAgentHint},
    {Family::kUpdateStatus, NAMED(SVCMGR_UPDATE_STATUS_RESULT_3),
     "the update has failed with the agent's result 3", kUpdateCallback, kAskAgent, kAskAgentHint},
    {Family::kUpdateStatus, NAMED(SVCMGR_UPDATE_STATUS_RESULT_7),
     "the update has failed with the agent's result 7", kUpdateCallback, kAskAgent, kAskAgentHint},
    {Family::kUpdateStatus, NAMED(SVCMGR_UPDATE_STATUS_RESULT_10),
     "the update has failed with the agent's result 10", kUpdateCallback, kAskAgent, kAskAgentHint},
    {Family::kUpdateStatus, NAMED(SVCMGR_UPDATE_STATUS_FAILED), "the update has failed",
     kUpdateCallback, kUpdateAgain, kUpdateAgainHint},
    {Family::kUpdateStatus, NAMED(SVCMGR_UPDATE_STATUS_RESULT_13),
     "the update has failed with the agent's result 13", kUpdateCallback, kAskAgent, kAskAgentHint},

    {Family::kModelStatus, NAMED(SVCMGR_AI_STATUS_STARTED), "work on models has begun",
     kModelCallback, "Wait for the status with which it ends.", ""},
    {Family::kModelStatus, NAMED(SVCMGR_AI_STATUS_COMPLETED), "work on models has ended well",
     kModelCallback, "Ask for the list of models again.", ""},
    {Family::kModelStatus, NAMED(SVCMGR_AI_STATUS_FAILED), "work on models has failed",
     kModelCallback, "The progress callback of the request says more.", ""},

    {Family::kConnectionState, NAMED(SVCMGR_CONNECTION_STATE_CONNECTED), "the connection stands",
     kConnectionCallback, "Ask.", ""},
    {Family::kConnectionState, NAMED(SVCMGR_CONNECTION_STATE_DISCONNECTED),
     "the connection to the agent was lost", kConnectionCallback,
     "Wait: the library connects again when the agent says that it is back. After a loss before "
     "the "
     "agent had accepted, only a new process can connect (trap 1).",
     ""},
    {Family::kConnectionState, NAMED(SVCMGR_CONNECTION_STATE_REJECTED),
     "the agent refused the connection", kConnectionCallback,
     "Have the agent admit the application, then start the application anew: after a refusal of "
     "the "
     "first attempt, only a new process can connect (trap 1).",
     ""},

    {Family::kModelResult, 0, "SVCMGR_ERROR_NONE", "", "", "", ""},
    {Family::kModelResult, 1, "SVCMGR_ERROR_INVALID_OPERATION", "", "", "", ""},
    {Family::kModelResult, 2, "SVCMGR_ERROR_NONE", "", "", "", ""},
    {Family::kModelResult, 3, "SVCMGR_ERROR_AGENT_CODE_3", "", "", "", ""},
    {Family::kModelResult, 4, "SVCMGR_ERROR_INVALID_OPERATION", "", "", "", ""},
    {Family::kModelResult, 5, "SVCMGR_ERROR_NO_SPACE", "", "", "", ""},
    {Family::kModelResult, 6, "SVCMGR_ERROR_AGENT_CODE_6", "", "", "", ""},
    {Family::kModelResult, 7, "SVCMGR_ERROR_INVALID_OPERATION", "", "", "", ""},
    {Family::kModelResult, 8, "SVCMGR_ERROR_KYR_DISABLED", "", "", "", ""},
    {Family::kModelResult, 9, "SVCMGR_ERROR_PERMISSION_DENIED", "", "", "", ""},
    {Family::kModelResult, 10, "SVCMGR_ERROR_NONE", "", "", "", ""},

    {Family::kUpdateResult, 0, "SVCMGR_UPDATE_STATUS_COMPLETED", "", "", "", ""},
    {Family::kUpdateResult, 1, "SVCMGR_UPDATE_STATUS_RESULT_1", "", "", "", ""},
    {Family::kUpdateResult, 3, "SVCMGR_UPDATE_STATUS_RESULT_3", "", "", "", ""},
    {Family::kUpdateResult, 7, "SVCMGR_UPDATE_STATUS_RESULT_7", "", "", "", ""},
    {Family::kUpdateResult, 10, "SVCMGR_UPDATE_STATUS_RESULT_10", "", "", "", ""},
    {Family::kUpdateResult, 13, "SVCMGR_UPDATE_STATUS_RESULT_13", "", "", "", ""},

    {Family::kExitStatus, kExitDone, "", "done", kThisProgram, "", ""},
    {Family::kExitStatus, kExitFailed, "", "failed", kThisProgram, "The message says why.", ""},
    {Family::kExitStatus, kExitUsage, "", "the command line is wrong", kThisProgram,
     "See svcmgrctl help.", ""},
    {Family::kExitStatus, kExitPermission, "", "permission denied", kThisProgram,
     "See svcmgrctl explain SVCMGR_ERROR_PERMISSION_DENIED.", ""},
    {Family::kExitStatus, kExitNotFound, "", "no such model, category, folder or marker",
     kThisProgram, "See what there is: svcmgrctl models list.", ""},
    {Family::kExitStatus, kExitAgentMissing, "", "the agent is not installed, or too old",
     kThisProgram, "See svcmgrctl doctor.", ""},
    {Family::kExitStatus, kExitNoConnection, "", "no connection to the agent", kThisProgram,
     "See svcmgrctl doctor.", ""},
    {Family::kExitStatus, kExitTimeout, "", "the agent did not answer in time", kThisProgram,
     "Try again, or wait longer with --timeout.", ""},
    {Family::kExitStatus, kExitNoSpace, "", "no storage left on the device", kThisProgram,
     "Remove models or other data, then ask again.", ""},
    {Family::kExitStatus, kExitKyrDisabled, "", "the KYR feature is disabled", kThisProgram,
     "See svcmgrctl explain SVCMGR_ERROR_KYR_DISABLED.", ""},
    {Family::kExitStatus, kExitInterrupted, "", "interrupted (SIGINT)", kThisProgram, "", ""},
    {Family::kExitStatus, kExitTerminated, "", "terminated (SIGTERM)", kThisProgram, "", ""},

    {Family::kConstant, NAMED(VELMORA_SVCMGR_VERSION_MAJOR),
     "The first number of the library's version; programs need the library with the same one.", "",
     "", ""},
    {Family::kConstant, NAMED(VELMORA_SVCMGR_VERSION_MINOR),
     "The second number of the library's version.", "", "", ""},
    {Family::kConstant, NAMED(VELMORA_SVCMGR_VERSION_PATCH),
     "The third number of the library's version.", "", "", ""},
    {Family::kConstant, NAMED(VELMORA_SVCMGR_API_LEVEL),
     "The client API level: an application that is built with this header is of that level.",
     "velmora_svcmgr_get_client_api_level", "", ""},
};

#undef NAMED

std::string Upper(std::string_view text) {
  std::string upper(text);
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return upper;
}

// Hexadecimal ones are those of 32 bits, as the header writes them.
std::optional<int> NumberFrom(std::string_view word) {
  const bool is_hex = word.starts_with("0x") || word.starts_with("0X");
  if (is_hex) word.remove_prefix(2);
  std::int64_t number = 0;
  const auto [end, error] =
      std::from_chars(word.data(), word.data() + word.size(), number, is_hex ? 16 : 10);
  if (error != std::errc() || end != word.data() + word.size()) return std::nullopt;
  if (is_hex && number >= 0 && number <= UINT32_MAX)
    return static_cast<int>(static_cast<std::uint32_t>(number));
  if (number < INT32_MIN || number > INT32_MAX) return std::nullopt;
  return static_cast<int>(number);
}

bool IsAskedForByName(const Explanation& each) {
  return !each.name.empty() && each.family != Family::kModelResult &&
         each.family != Family::kUpdateResult;
}

bool IsCalled(const Explanation& each, const std::string& upper) {
  return IsAskedForByName(each) && (each.name == upper || each.name.ends_with("_" + upper));
}

}  // namespace

std::span<const Explanation> Explanations() { return kExplanations; }

const Explanation* FindExplanation(Family family, int number) {
  const auto* found = std::find_if(
      std::begin(kExplanations), std::end(kExplanations),
      [&](const Explanation& each) { return each.family == family && each.number == number; });
  return found == std::end(kExplanations) ? nullptr : found;
}

std::string_view HintFor(std::string_view name) {
  for (const Explanation& each : kExplanations)
    if (IsAskedForByName(each) && each.name == name) return each.hint;
  return {};
}

std::string_view NameOf(Family family) {
  switch (family) {
    case Family::kError:
      return "an error code";
    case Family::kFaceError:
      return "an error of the C++ face and of svcmgrctl";
    case Family::kOwnFailure:
      return "a failure of svcmgrctl";
    case Family::kUpdateStatus:
      return "a status of an update of the agents";
    case Family::kModelStatus:
      return "a status of work on models";
    case Family::kConnectionState:
      return "a state of the connection";
    case Family::kModelResult:
      return "a result of the agent for a model request";
    case Family::kUpdateResult:
      return "a result of the agent for an update";
    case Family::kExitStatus:
      return "an exit status of svcmgrctl";
    case Family::kConstant:
      return "a constant of the header";
  }
  return {};
}

std::vector<const Explanation*> ExplanationsOf(std::string_view word) {
  std::vector<const Explanation*> found;
  const std::optional<int> number = NumberFrom(word);
  const std::string upper = Upper(word);
  for (const Explanation& each : kExplanations) {
    // The numbers of constants say nothing, and failures of this program have none.
    const bool has_number = each.family != Family::kConstant && each.family != Family::kOwnFailure;
    if (number ? has_number && each.number == *number : !word.empty() && IsCalled(each, upper))
      found.push_back(&each);
  }
  return found;
}

std::vector<std::string> NamesLike(std::string_view word) {
  std::vector<std::string> names;
  for (const Explanation& each : kExplanations)
    if (IsAskedForByName(each)) names.emplace_back(each.name);
  const std::string upper = Upper(word);
  std::vector<std::string> similar = terminal_text::SimilarTo(upper, names);
  if (!similar.empty()) return similar;
  // Whoever leaves out what the names begin with compares with the rest of them.
  std::vector<std::string> ends;
  for (const char* prefix :
       {"SVCMGR_ERROR_", "SVCMGR_UPDATE_STATUS_", "SVCMGR_AI_STATUS_", "SVCMGR_CONNECTION_STATE_"})
    for (const std::string& name : names)
      if (name.starts_with(prefix)) ends.push_back(name.substr(std::string_view(prefix).size()));
  return terminal_text::SimilarTo(upper, ends);
}

}  // namespace svcmgrctl
