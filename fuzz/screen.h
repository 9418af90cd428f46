// SPDX-License-Identifier: Apache-2.0
#ifndef FUZZ_SCREEN_H_
#define FUZZ_SCREEN_H_

#include <string>
#include <string_view>

// What the program writes to standard output and standard error, and where that goes as far as it
// can tell. Link it with svcmgr_screen, which puts it in the place of the C library's functions.
namespace screen {

enum class Kind { kPipe, kTerminal };

// From here on, until Leave, nothing reaches the real descriptors. `columns` and `rows` are those of
// the terminal.
void Use(Kind kind, unsigned short columns = 80, unsigned short rows = 24);
void Leave();

// What was written to standard output, and not taken.
const std::string& Output();

// What was written since the last call.
std::string TakeOutput();
std::string TakeErrors();

enum class Characters { kAscii, kAll };

// Whether a text has nothing in it that steers a terminal, hides or reorders; it is valid UTF-8, and
// line feeds end its lines.
bool IsPlain(std::string_view text, Characters characters);

// A text without the colours that the program itself uses.
std::string WithoutColors(std::string_view text);

// The lines that are left on a terminal, on which the program draws lines again that it has written.
// Whatever else steers a terminal stays in them. What is erased must have been drawn, and each line of
// it must have fitted into the terminal.
std::string Shown(std::string_view output);

}  // namespace screen

#endif  // FUZZ_SCREEN_H_
