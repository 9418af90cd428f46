// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_COMMON_MARKS_H_
#define AGENT_COMMON_MARKS_H_

#include <atomic>
#include <string>

/*
 * Marked places in an agent's life, at which a test has it killed or stopped. A tester and the agents
 * of its world share a table in a file, which this variable names. Without it, a place costs the look
 * at a pointer.
 */

namespace sim {

constexpr char kMarksVariable[] = "SVCMGR_SIM_MARKS";

enum class Mark {
  // Beginning to serve.
  kBegun,
  kPortMade,
  kNameOwned,
  kListening,
  kOpenToSteps,
  kJournalRead,
  kLaunched,
  kReady,
  // Connections and requests.
  kAdmitting,
  kConnected,
  kRequestArrived,
  kRequestRead,
  kMessageTraced,
  kInMessage,
  kMessageSent,
  // Events and traces.
  kEventTraced,
  kEventPublished,
  kTracing,
  // Updates and other steps.
  kStepNoted,
  kStepTaken,
  kJournalDrafted,
  kReplacementWanted,
  // Work on models.
  kWorkBegun,
  kPartDone,
  kInPart,
  kVersionComplete,
  kWorkFinished,
  kCount,
};

/** A mark in words, as it is printed. */
const char* NameOf(Mark mark);

/** What a tester and agents share. Filled with zeros, it marks nothing. */
struct MarkTable {
  std::atomic<int> armed;   // 1 and the mark; 0 for none
  std::atomic<int> passes;  // how often the mark is passed before the signal comes
  std::atomic<int> signal;
  std::atomic<int> struck;  // how many signals have come
};

/** Makes the file of a table, or opens one that there is. Throws std::system_error. */
MarkTable* MapMarks(const std::string& file);

/** Obeys the table that the environment names, from now on. */
void ObeyMarks();

extern MarkTable* obeyed_marks;
bool TakeTurn(Mark mark);
void Strike();

/** Whether a signal is to come at this place, now: Strike is what follows. */
inline bool IsDue(Mark mark) { return obeyed_marks != nullptr && TakeTurn(mark); }

/** This is the place: does nothing, unless a signal is to come here. */
inline void Pass(Mark mark) {
  if (IsDue(mark)) Strike();
}

}  // namespace sim

#endif  // AGENT_COMMON_MARKS_H_
