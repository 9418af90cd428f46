/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_TESTS_FAULTS_INJECTION_H_
#define SVCMGR_TESTS_FAULTS_INJECTION_H_

/* Lets calls that the library makes fail. */

#include <limits>
#include <string>
#include <vector>

#include "run_record.h"

namespace faults {

inline constexpr long kForever = std::numeric_limits<long>::max();

enum class Shape {
  kNone,
  kError,        // fails, the outputs untouched
  kGarbage,      // fails, garbage in the outputs
  kNull,         // succeeds, null in the output
  kReentry,      // does its work, after a call into the library from inside
  kInterrupted,  // fails with EINTR
  kShort,        // gives less than was asked for
};
const char* NameOf(Shape shape);

/** What fails in a run: calls of one family, from the first to the last, counted from 1. */
struct Plan {
  Family family = Family::kPlatform;
  long first = 0;
  long last = 0;
  Shape shape = Shape::kNone;
  int code = 0;  // of an error
  /** Of a run in which nothing fails: at which of the test's verdicts it is judged; 0 for never. */
  long verdict = 0;
};

/** All functions that may fail. */
const std::vector<std::string>& FunctionNames();

/** The ways in which one call of a function may fail. */
struct Way {
  Shape shape;
  int code;
  bool lasts;  // whether all calls from there on may fail so, too
};
std::vector<Way> WaysOf(Function function);

/** Counts, and lets fail what the plan names, until Disarm; all is noted in the two records. */
void Arm(const Plan& plan, RunRecord* run, SiteRecord* sites);
void Disarm();

/** Whether this run is one of the armed process, not of a child that the test has made. */
bool IsArmedProcess();

/** Ends a run in which the test has done what no application may do. */
[[noreturn]] void GiveUp();

/** Notes the first finding. */
void Find(const char* format, ...) __attribute__((format(printf, 1, 2)));
void FindAt(const Caller& where, const char* format, ...) __attribute__((format(printf, 2, 3)));

/** Of the injection that has happened, if any. */
Shape InjectedShape();
std::string InjectedFunction();
/** Whether it was a re-entry that ends the connection. */
bool InjectedDisconnection();
/** Whether it was in the thread that asks. */
bool InjectedHere();

}  // namespace faults

#endif  // SVCMGR_TESTS_FAULTS_INJECTION_H_
