/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_TESTS_FAULTS_BALANCE_H_
#define SVCMGR_TESTS_FAULTS_BALANCE_H_

/* Whose each block and each object of the platform is; what is nobody's has been lost. */

namespace faults {

/** Begins the account. */
void WatchBalance();
/** Begins it anew: the platform has forgotten all blocks and objects. */
void RestartBalance();

/** The application has got a text or a handle, with all that it holds, and releases it itself. */
void GiveToApplication(const void* block);
/** It has released it. */
void TakeFromApplication(const void* block);
/** Whether it has been released, so that nobody may use it again. */
bool IsReleased(const void* block);
/** A descriptor that the library has opened; it is to be closed again. */
void NoteOpened(int descriptor);
void NoteClosed(int descriptor);

/** The library is at work, for an exported function or in a callback: what it makes is judged. */
class Judged {
 public:
  Judged();
  ~Judged();
  Judged(const Judged&) = delete;
  Judged& operator=(const Judged&) = delete;
};

bool LibraryIsAtWork();

/**
 * Finds each block and object that the library has made or been given, and that cannot be reached
 * any more: neither from what the application holds, nor from the library's own data, nor by what
 * it keeps on purpose. What the application holds on its stack lies in `frames` or above: what is
 * below is the judges' own, where earlier calls have left what they held.
 */
void JudgeBalance(const void* frames);

}  // namespace faults

#endif  // SVCMGR_TESTS_FAULTS_BALANCE_H_
